// One HTTP request as the daemon builds it: a request builder fills it, the
// request signer adds its headers, and the HTTP client executes it.
//
// A value: copies are deep and never share state. Used on the worker thread.
#ifndef NYX_HTTP_WEB_REQUEST_H
#define NYX_HTTP_WEB_REQUEST_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "http/HeaderMap.h"
#include "http/RequestMethod.h"

class WebRequest {
 public:
  // An empty URL, "GET", no headers, an empty body, no retries and a timeout
  // of 30 seconds.
  WebRequest();
  WebRequest(const WebRequest& other);

  virtual WebRequest& operator=(const WebRequest& other);
  virtual ~WebRequest();

  // Byte-exact equality of every member; header names compare with their case
  // here, although the map finds them without it.
  virtual bool operator==(const WebRequest& other) const;
  virtual bool operator!=(const WebRequest& other) const;

  // The absolute URL, query included.
  virtual void setUrl(const std::string& url);
  virtual const std::string& getUrl() const;

  virtual void setMethod(const RequestMethod& method);
  virtual const RequestMethod& getMethod() const;

  // Inserts the header, or overwrites the value of the header of that name in
  // any letter case. Headers cannot be removed.
  virtual void setHeader(const std::string& name, const std::string& value);
  virtual const HeaderMap& getHeaders() const;

  // The body may hold any bytes, zero bytes included.
  virtual void setBody(const std::string& body);
  virtual void setBody(const char* data, size_t length);
  virtual const std::string& getBody() const;

  // How many further attempts the HTTP client may make after the first.
  virtual void setMaxRetries(uint32_t maxRetries);
  virtual uint32_t getMaxRetries() const;

  // The limit in seconds for one whole transfer.
  virtual void setTimeout(uint32_t seconds);
  virtual uint32_t getTimeout() const;

 private:
  struct Record;
  std::unique_ptr<Record> record_;
};

#endif  // NYX_HTTP_WEB_REQUEST_H
