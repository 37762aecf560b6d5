// Runs the real nyxd against a private bus and the mock messaging server, with
// the device's other services played by the simulators in tools/.
#ifndef NYX_TESTS_E2E_DAEMON_HARNESS_H
#define NYX_TESTS_E2E_DAEMON_HARNESS_H

#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "daemon/common/Json.h"
#include "tests/support/TestSupport.h"

namespace nyxtest {

constexpr milliseconds kDeadline(20000);
constexpr char kWaiting[] = "I Main: Waiting for tasks.";

// The non-empty lines of a JSON-lines log.
std::vector<std::string> jsonLines(const std::string& path);
bool waitForJsonLines(const std::string& path, size_t count);
// The value that the sample app logged on line `index`: what the daemon wrote it.
std::string appAnswer(const std::string& path, size_t index);

class DaemonHarness {
 public:
  // Prepares the root (customer "customer-1"), the bus, the mock server, the
  // shell (with "frameworkStarted" 1) and the outbox, which forwards acks.
  DaemonHarness();

  NyxRoot& root() { return root_; }
  PrivateBus& bus() { return bus_; }
  ChildProcess& shell() { return *shell_; }
  // The mock messaging server, "http://127.0.0.1:PORT".
  const std::string& serverUrl() const { return serverUrl_; }
  // Starts nyxd, limited to 1,024 open files as a service is, and returns
  // at once.
  std::unique_ptr<ChildProcess> nyxd();
  // Starts the harness's own nyxd and waits for "Waiting for tasks.".
  ChildProcess& startDaemon();
  // Starts a Python tool of tools/ (the path below it) with --ready-file and
  // waits for that file, the root's NAME.ready.json: one of each tool at a time.
  std::unique_ptr<ChildProcess> startTool(const std::string& tool,
                                          std::vector<std::string> arguments,
                                          bool inputPipe = false);
  void stopShell() { shell_.reset(); }
  // Writes a property of a service (by default nyxd's) as an application
  // does, over a bus connection of its own; throws unless answered with 0.
  void write(const std::string& property, const std::variant<int, std::string>& value,
             const std::string& service = "cobalt.device.messaging");
  // Runs the mock server's client with --json and parses its output.
  rapidjson::Document mock(const std::vector<std::string>& arguments);

 private:
  NyxRoot root_;
  PrivateBus bus_;
  std::unique_ptr<ChildProcess> server_;
  std::string serverUrl_;
  std::unique_ptr<ChildProcess> shell_;
  std::unique_ptr<ChildProcess> outbox_;
  std::unique_ptr<ChildProcess> daemon_;
};

}  // namespace nyxtest

#endif  // NYX_TESTS_E2E_DAEMON_HARNESS_H
