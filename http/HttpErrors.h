// The three ways an HTTP exchange fails.
//
// IOError: no usable answer came back (transport failure, or as ServerError a
// 5xx answer). ClientError: the server answered 4xx; it is not an IOError, so
// the retry loop never retries it. Each is thrown by value and caught by
// reference; raise() rethrows a copy with its full type from a base
// reference.
#ifndef NYX_HTTP_HTTP_ERRORS_H
#define NYX_HTTP_HTTP_ERRORS_H

#include <stdexcept>
#include <string>

#include "http/WebResponse.h"

class IOError : public std::runtime_error {
 public:
  explicit IOError(const std::string& message);
  ~IOError() override;
  [[noreturn]] virtual void raise() const;
};

// The message of ClientError and ServerError is "Status Code: N\n", then one
// "Name: value\n" line per response header in header-map order, then the body.
class ClientError : public std::runtime_error {
 public:
  explicit ClientError(const WebResponse& response);
  ~ClientError() override;
  virtual const WebResponse& getResponse() const;
  [[noreturn]] virtual void raise() const;

 private:
  WebResponse response_;
};

class ServerError : public IOError {
 public:
  explicit ServerError(const WebResponse& response);
  ~ServerError() override;
  [[noreturn]] void raise() const override;
  virtual const WebResponse& getResponse() const;

 private:
  WebResponse response_;
};

#endif  // NYX_HTTP_HTTP_ERRORS_H
