#include "http/WebRequest.h"

struct WebRequest::Record {
  std::string url;
  RequestMethod method = RequestMethod::GET;
  HeaderMap headers;
  std::string body;
  uint32_t maxRetries = 0;
  uint32_t timeout = 30;
};

WebRequest::WebRequest() : record_(new Record) {}

WebRequest::WebRequest(const WebRequest& other) : record_(new Record(*other.record_)) {}

WebRequest& WebRequest::operator=(const WebRequest& other) {
  if (this != &other) {
    record_->url = other.record_->url;
    record_->method = other.record_->method;
    record_->headers = other.record_->headers;
    record_->body = other.record_->body;
    record_->maxRetries = other.record_->maxRetries;
    record_->timeout = other.record_->timeout;
  }
  return *this;
}

WebRequest::~WebRequest() = default;

bool WebRequest::operator==(const WebRequest& other) const {
  if (this == &other) {
    return true;
  }
  const Record& a = *record_;
  const Record& b = *other.record_;
  if (a.url != b.url || a.method != b.method || a.headers.size() != b.headers.size()) {
    return false;
  }
  // Walk both maps side by side: the names must match byte for byte, letter
  // case included, which the map's own comparison would not check.
  for (auto i = a.headers.begin(), j = b.headers.begin(); i != a.headers.end(); ++i, ++j) {
    if (i->first != j->first || i->second != j->second) {
      return false;
    }
  }
  return a.body == b.body && a.maxRetries == b.maxRetries && a.timeout == b.timeout;
}

bool WebRequest::operator!=(const WebRequest& other) const { return !(*this == other); }

void WebRequest::setUrl(const std::string& url) { record_->url = url; }
const std::string& WebRequest::getUrl() const { return record_->url; }

void WebRequest::setMethod(const RequestMethod& method) { record_->method = method; }
const RequestMethod& WebRequest::getMethod() const { return record_->method; }

void WebRequest::setHeader(const std::string& name, const std::string& value) {
  record_->headers[name] = value;
}
const HeaderMap& WebRequest::getHeaders() const { return record_->headers; }

void WebRequest::setBody(const std::string& body) { record_->body = body; }
void WebRequest::setBody(const char* data, size_t length) { record_->body.assign(data, length); }
const std::string& WebRequest::getBody() const { return record_->body; }

void WebRequest::setMaxRetries(uint32_t maxRetries) { record_->maxRetries = maxRetries; }
uint32_t WebRequest::getMaxRetries() const { return record_->maxRetries; }

void WebRequest::setTimeout(uint32_t seconds) { record_->timeout = seconds; }
uint32_t WebRequest::getTimeout() const { return record_->timeout; }
