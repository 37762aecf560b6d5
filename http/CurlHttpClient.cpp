#include "http/CurlHttpClient.h"

#include <cstring>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>

#include "daemon/common/COwners.h"
#include "http/HttpErrors.h"

namespace {

// Collects response bytes exactly as received. It runs inside libcurl, so
// nothing may be thrown through it: running out of memory refuses the data,
// which ends the transfer with a write error.
extern "C" size_t collect(char* data, size_t size, size_t count, void* stream) {
  try {
    static_cast<std::string*>(stream)->append(data, size * count);
  } catch (const std::bad_alloc&) {
    return 0;
  }
  return size * count;
}

// Header blocks of every response in a redirect chain, one after the other:
// lines split at the first ": ", one trailing CR dropped, lines without ": "
// (status lines, the blank line ending a block) skipped. A later block
// overwrites the values of an earlier one.
void parseHeaders(const std::string& text, WebResponse& response) {
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) {
      end = text.size();
    }
    std::string line = text.substr(start, end - start);
    start = end + 1;
    if (!line.empty() && line.back() == '\r') {
      line.pop_back();
    }
    const size_t separator = line.find(": ");
    if (separator != std::string::npos) {
      response.setHeader(line.substr(0, separator), line.substr(separator + 2));
    }
  }
}

}  // namespace

CurlHttpClient::~CurlHttpClient() = default;

void CurlHttpClient::check(CURLcode code) {
  if (code != CURLE_OK) {
    throw std::runtime_error(curl_easy_strerror(code));
  }
}

void CurlHttpClient::configureHandle(CURL* /*handle*/) {}

WebResponse CurlHttpClient::perform(const WebRequest& request) {
  // Everything the handle points at is declared before it, so the handle is
  // cleaned up first on every path.
  CurlHeaderListOwner headers;
  std::string headerText;
  std::string bodyText;
  char errorBuffer[CURL_ERROR_SIZE];
  static_assert(CURL_ERROR_SIZE == 256, "the error buffer holds 256 bytes");

  CurlEasyOwner handle(curl_easy_init());
  if (!handle) {
    throw std::runtime_error("Failed to initialize curl");
  }
  CURL* curl = handle.get();
  check(curl_easy_setopt(curl, CURLOPT_SSL_CIPHER_LIST, "HIGH"));
  check(curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L));
  // The daemon handles signals itself; libcurl's timeouts must not use them.
  check(curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L));
  check(curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 1L));
  check(curl_easy_setopt(curl, CURLOPT_TIMEOUT, static_cast<long>(request.getTimeout())));
  check(curl_easy_setopt(curl, CURLOPT_URL, request.getUrl().c_str()));
  check(curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, request.getMethod().name().c_str()));

  for (const auto& header : request.getHeaders()) {
    const std::string line = header.first + ": " + header.second;
    curl_slist* head = curl_slist_append(headers.get(), line.c_str());
    if (head == nullptr) {
      throw std::runtime_error("Failed to build the request header list");
    }
    if (!headers) {
      headers.reset(head);
    }
  }
  check(curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers.get()));

  // Every request carries its body, GET and empty ones included; the method
  // on the wire comes from CURLOPT_CUSTOMREQUEST.
  const std::string& body = request.getBody();
  check(curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size())));
  check(curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.data()));

  check(curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, &collect));
  check(curl_easy_setopt(curl, CURLOPT_HEADERDATA, &headerText));
  check(curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &collect));
  check(curl_easy_setopt(curl, CURLOPT_WRITEDATA, &bodyText));

  configureHandle(curl);

  memset(errorBuffer, 0, sizeof errorBuffer);
  check(curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, errorBuffer));

  const CURLcode result = curl_easy_perform(curl);
  if (result != CURLE_OK) {
    throw IOError(std::string(curl_easy_strerror(result)) + ": " + errorBuffer);
  }

  WebResponse response;
  long status = 0;
  check(curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status));
  response.setStatusCode(static_cast<uint32_t>(status));
  parseHeaders(headerText, response);
  response.setBody(bodyText);
  return response;
}
