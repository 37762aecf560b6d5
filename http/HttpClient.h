// The one way the daemon talks to its servers: execute() runs a request
// through the transport's perform(), retrying transport failures and 5xx
// answers with a growing, randomised wait that honours "Retry-After" up to
// 300 seconds.
//
// Runs on the worker thread, whose every wait it blocks. Handlers make one
// client each and keep it for their lifetime.
#ifndef NYX_HTTP_HTTP_CLIENT_H
#define NYX_HTTP_HTTP_CLIENT_H

#include "http/WebRequest.h"
#include "http/WebResponse.h"

class HttpClient {
 public:
  virtual ~HttpClient();

  // One attempt, no retry. Throws IOError when the transfer fails and a
  // std::runtime_error for a set-up fault; any HTTP status is a normal return.
  virtual WebResponse perform(const WebRequest& request) = 0;

  // Logs "Waiting for N seconds before next attempt" and sleeps whole
  // seconds, returning within a second once terminationRequested is set.
  // Tests replace it to record the waits instead of sleeping.
  virtual void waitSeconds(unsigned int seconds);

  // Returns the final response when its status is below 400. Throws
  // ClientError for a final 4xx, ServerError for a final 5xx (retries used up,
  // or a "Retry-After" above 300), the transport's own IOError when the last
  // permitted attempt failed, and any other exception of perform() at once.
  // At most getMaxRetries() + 1 attempts are made. When terminationRequested
  // is set after a wait, no further attempt is made: the failure that led
  // to the wait is thrown as if it had been the last attempt's.
  WebResponse execute(const WebRequest& request);
};

#endif  // NYX_HTTP_HTTP_CLIENT_H
