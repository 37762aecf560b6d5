#include "http/WebResponse.h"

#include <stdexcept>

struct WebResponse::Record {
  uint32_t statusCode = 0;
  HeaderMap headers;
  std::string body;
};

WebResponse::WebResponse() : record_(new Record) {}

WebResponse::WebResponse(const WebResponse& other) : record_(new Record(*other.record_)) {}

WebResponse& WebResponse::operator=(const WebResponse& other) {
  if (this != &other) {
    *record_ = *other.record_;
  }
  return *this;
}

WebResponse::~WebResponse() = default;

void WebResponse::setStatusCode(uint32_t statusCode) { record_->statusCode = statusCode; }
uint32_t WebResponse::getStatusCode() const { return record_->statusCode; }

void WebResponse::setHeader(const std::string& name, const std::string& value) {
  record_->headers[name] = value;
}

bool WebResponse::hasHeader(const std::string& name) const {
  return record_->headers.count(name) != 0;
}

const std::string& WebResponse::getHeader(const std::string& name) const {
  if (!hasHeader(name)) {
    throw std::runtime_error("Attempted retrieval of non-existent header: " + name);
  }
  return record_->headers.find(name)->second;
}

const HeaderMap& WebResponse::getHeaders() const { return record_->headers; }

void WebResponse::setBody(const std::string& body) { record_->body = body; }
void WebResponse::setBody(const char* data, size_t length) { record_->body.assign(data, length); }
const std::string& WebResponse::getBody() const { return record_->body; }
