// The libcurl transport: one new easy handle per attempt, nothing kept
// between attempts. Used through HttpClient on the worker thread.
#ifndef NYX_HTTP_CURL_HTTP_CLIENT_H
#define NYX_HTTP_CURL_HTTP_CLIENT_H

#include <curl/curl.h>

#include "http/HttpClient.h"

class CurlHttpClient : public HttpClient {
 public:
  ~CurlHttpClient() override;

  // Throws IOError "<curl's text for the code>: <error buffer>" when the
  // transfer fails, std::runtime_error "Failed to initialize curl" or curl's
  // text for an option that cannot be set. Every resource of the attempt is
  // released on every path.
  WebResponse perform(const WebRequest& request) override;

 protected:
  // Called once per attempt after the standard options and before the
  // transfer; may set further options, throwing std::runtime_error with
  // curl's text when one fails. Does nothing here.
  virtual void configureHandle(CURL* handle);

  // Checks the result of one curl_easy_setopt or curl_easy_getinfo at once:
  // throws std::runtime_error with curl's text for a non-zero code. Shared
  // with subclasses so that every option of an attempt fails the same way.
  static void check(CURLcode code);
};

#endif  // NYX_HTTP_CURL_HTTP_CLIENT_H
