// The final HTTP response of one request: status, headers and body.
//
// A value: copies are deep and never share state. The HTTP client's errors
// carry a copy. Used on the worker thread.
#ifndef NYX_HTTP_WEB_RESPONSE_H
#define NYX_HTTP_WEB_RESPONSE_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "http/HeaderMap.h"

class WebResponse {
 public:
  // Status 0 (no response received), no headers, an empty body.
  WebResponse();
  WebResponse(const WebResponse& other);

  virtual WebResponse& operator=(const WebResponse& other);
  virtual ~WebResponse();

  virtual void setStatusCode(uint32_t statusCode);
  virtual uint32_t getStatusCode() const;

  // Inserts the header, or overwrites the value of the header of that name in
  // any letter case.
  virtual void setHeader(const std::string& name, const std::string& value);
  // True when a header of that name exists, in any letter case.
  virtual bool hasHeader(const std::string& name) const;
  // The value of the header of that name in any letter case. Throws
  // std::runtime_error "Attempted retrieval of non-existent header: <name>"
  // when there is none; call hasHeader first when unsure.
  virtual const std::string& getHeader(const std::string& name) const;
  virtual const HeaderMap& getHeaders() const;

  virtual void setBody(const std::string& body);
  virtual void setBody(const char* data, size_t length);
  virtual const std::string& getBody() const;

 private:
  struct Record;
  std::unique_ptr<Record> record_;
};

#endif  // NYX_HTTP_WEB_RESPONSE_H
