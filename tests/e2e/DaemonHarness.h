// Runs the real nyxd against a private bus and a local messaging server, with
// the device's other services played by the simulators in tools/, and lets a
// test poke it with the hbus tool and inspect what the server recorded.
#ifndef NYX_TESTS_E2E_DAEMON_HARNESS_H
#define NYX_TESTS_E2E_DAEMON_HARNESS_H

#include <memory>
#include <string>
#include <vector>

#include "daemon/Json.h"
#include "tests/support/TestSupport.h"

namespace nyxtest {

class DaemonHarness {
 public:
  // Prepares the root (serial, secret, customer "customer-1"), starts the bus,
  // the mock messaging server (configured into dynconfig), the shell (with
  // "frameworkStarted" 1) and the outbox, which forwards acknowledgements.
  DaemonHarness();
  ~DaemonHarness();

  NyxRoot& root() { return root_; }
  const std::string& serverUrl() const { return serverUrl_; }

  // Starts nyxd and waits for "Waiting for tasks.".
  ChildProcess& startDaemon();
  ChildProcess& daemon() { return *daemon_; }
  std::unique_ptr<ChildProcess> startSecondDaemon();

  // Starts a simulator from tools/simulators with its arguments and waits for
  // its ready file.
  std::unique_ptr<ChildProcess> startSimulator(const std::string& tool,
                                               std::vector<std::string> arguments,
                                               bool inputPipe = false);
  void stopShell();

  // Runs the hbus tool and returns its exit status.
  int hbus(const std::vector<std::string>& arguments);
  // Writes an integer / string property of the daemon's own service.
  void writeDaemonInt(const std::string& property, int value);
  void writeDaemonString(const std::string& property, const std::string& value);

  // Runs the mock server's client with --json and parses its output.
  rapidjson::Document mock(const std::vector<std::string>& arguments);
  // Lines of a JSON-lines log written by a simulator.
  std::vector<std::string> jsonLines(const std::string& path) const;

 private:
  std::string waitForReadyFile(const std::string& path, ChildProcess& process);

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
