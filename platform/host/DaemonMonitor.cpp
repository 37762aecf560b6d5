// The daemon monitor on systemd's notification protocol.
//
// The count of activities is published as "STATUS=activities: N" at every
// change. The first time it falls to 0 after initialize, start-up is over and
// "READY=1" goes out with it, so a Type=notify unit starts its dependants
// only once the daemon listens on the bus. Without NOTIFY_SOCKET sd_notify
// does nothing, and only the count is kept.
#include <systemd/sd-daemon.h>

#include <mutex>
#include <string>

#include "daemon_monitor.h"

namespace {

std::mutex monitorMutex;
int activityCount = 0;
bool readyPending = false;

// Called with monitorMutex held, so that statuses leave in the order of the
// changes.
int publish(bool ready) {
  std::string state = "STATUS=activities: " + std::to_string(activityCount);
  if (ready) {
    state = "READY=1\n" + state;
  }
  return sd_notify(0, state.c_str()) < 0 ? 1 : 0;
}

int change(int delta) {
  std::lock_guard<std::mutex> lock(monitorMutex);
  activityCount += delta;
  const bool ready = readyPending && activityCount == 0;
  if (ready) {
    readyPending = false;
  }
  return publish(ready);
}

}  // namespace

int initialize(const char* /*daemonName*/, int /*checkIntervalSeconds*/) {
  std::lock_guard<std::mutex> lock(monitorMutex);
  activityCount = 1;
  readyPending = true;
  return publish(false);
}

int incrementProcessActivity(void) { return change(1); }

int decrementProcessActivity(void) { return change(-1); }
