#include "http/HttpClient.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>

#include "daemon/common/Logging.h"
#include "daemon/common/Termination.h"
#include "http/HttpErrors.h"

namespace {

const char* const kTag = "HttpClient";

// The first wait, and the longest wait the client accepts: a server that
// asks for more is not retried within this call.
const unsigned int kFirstWaitSeconds = 5;
const unsigned int kLongestWaitSeconds = 300;

// rand() is seeded once per process, the first time a wait is drawn. Only
// the worker thread makes requests, so the flag needs no lock.
bool randomSeeded = false;

unsigned int drawWait(unsigned int base) {
  if (!randomSeeded) {
    srand(static_cast<unsigned int>(time(nullptr)));
    randomSeeded = true;
  }
  const unsigned int r = static_cast<unsigned int>(rand());
  const unsigned int spread = std::min(kLongestWaitSeconds - base, base);
  // A spread of 0 happens only when the server asked for exactly 300
  // seconds: the base is then both what the server wants and the longest
  // wait the client accepts, so there is no room for a random part and the
  // wait is exactly the base.
  if (spread == 0) {
    return base;
  }
  return base + r % spread;
}

// 5, 10, 20, 40, 80, 160, 160, ...: the base doubles while it stays below
// the longest wait.
unsigned int nextBase(unsigned int base) {
  return base * 2 < kLongestWaitSeconds ? base * 2 : base;
}

}  // namespace

HttpClient::~HttpClient() = default;

void HttpClient::waitSeconds(unsigned int seconds) {
  logInfo(kTag, "Waiting for %d seconds before next attempt", static_cast<int>(seconds));
  // One second at a time, so that a stop is noticed within a second: a wait
  // may last up to 299 seconds and several follow each other, far longer than
  // a supervisor waits for a stop. SIGTERM may be handled on another thread
  // and then does not cut a sleep short here; only the flag tells. Otherwise
  // the wait is never shortened.
  for (unsigned int second = 0; second < seconds && !terminationRequested.load(); ++second) {
    unsigned int left = 1;
    while (left > 0) {
      left = sleep(left);
    }
  }
}

WebResponse HttpClient::execute(const WebRequest& request) {
  logInfo(kTag, "Making request to %s", request.getUrl().c_str());
  WebResponse result;
  unsigned int base = kFirstWaitSeconds;
  // Wraps to 0 for the largest retry count, and then no attempt is made.
  const uint32_t attempts = request.getMaxRetries() + 1;
  for (uint32_t attempt = 0; attempt < attempts; ++attempt) {
    if (attempt != 0) {
      logInfo(kTag, "Retry %d", static_cast<int>(attempt));
    }
    try {
      result = perform(request);
    } catch (IOError& error) {
      if (attempt + 1 >= attempts) {
        // The caller sees the transport's own error, not a wrapped one.
        throw;
      }
      logError(kTag, "IOError: %s", error.what());
      waitSeconds(drawWait(base));
      if (terminationRequested.load()) {
        // A stop ends the retries with the failure in hand, as if they were
        // used up: the task then ends as it would after its last attempt.
        throw;
      }
      base = nextBase(base);
      continue;
    }
    if (result.getStatusCode() < 500) {
      break;
    }
    if (result.hasHeader("Retry-After")) {
      // An HTTP date or other text reads as 0 and leaves the wait as it is;
      // a negative number compares as huge.
      const int asked = atoi(result.getHeader("Retry-After").c_str());
      if (static_cast<unsigned int>(asked) > kLongestWaitSeconds) {
        logError(kTag, "Server retry of %d is too long, try again later", asked);
        break;
      }
      base = std::max(base, static_cast<unsigned int>(asked));
    }
    // Also after the last attempt: the wait before giving up is kept, so a
    // failing server is never asked again sooner than the schedule allows,
    // even by the caller's next call.
    waitSeconds(drawWait(base));
    if (terminationRequested.load()) {
      break;  // with this 5xx as the final answer, as above
    }
    base = nextBase(base);
  }
  const uint32_t status = result.getStatusCode();
  if (status >= 400 && status < 500) {
    throw ClientError(result);
  }
  if (status >= 500) {
    throw ServerError(result);
  }
  return result;
}
