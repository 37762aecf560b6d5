#include "tests/e2e/DaemonHarness.h"

#include <signal.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <stdexcept>

namespace nyxtest {

namespace {

constexpr milliseconds kStartTimeout(30000);

std::string tool(const std::string& relative) { return sourceDir() + "/tools/" + relative; }

}  // namespace

DaemonHarness::DaemonHarness() {
  root_.writePlatformFile("device-serial", "SERIAL-0001\n");
  root_.writePlatformFile("device-secret", "e2e-device-secret\n");
  root_.writePlatformFile("customer", "customer-1\n");

  const std::string ready = root_.file("mock-server.json");
  ChildProcess::Options server;
  server.argv = {"python3",      tool("mock-server/nyx-mock-server"),
                 "--root",       root_.path(),
                 "--port",       "0",
                 "--configure",  "--quiet",
                 "--ready-file", ready};
  server_ = std::make_unique<ChildProcess>(server);
  rapidjson::Document info;
  info.Parse(waitForReadyFile(ready, *server_));
  serverUrl_ = info["url"].GetString();

  shell_ = startSimulator("nyx-shell-sim", {"--framework-started", "1"});
  outbox_ = startSimulator("nyx-outbox-sim",
                           {"--forward", serverUrl_, "--log", root_.file("outbox.jsonl")});
}

DaemonHarness::~DaemonHarness() {
  if (daemon_ && daemon_->running()) {
    daemon_->signal(SIGKILL);
    daemon_->waitForExit(milliseconds(5000));
  }
}

std::string DaemonHarness::waitForReadyFile(const std::string& path, ChildProcess& process) {
  std::string content;
  bool ready = waitUntil(
      [&] {
        if (access(path.c_str(), R_OK) != 0) {
          return false;
        }
        content = readFile(path);
        // Written atomically; a complete file holds one JSON object.
        return content.find_last_of('}') != std::string::npos;
      },
      kStartTimeout);
  if (!ready) {
    throw std::runtime_error("no ready file " + path + "; output:\n" + process.output());
  }
  return content;
}

std::unique_ptr<ChildProcess> DaemonHarness::startSimulator(const std::string& name,
                                                            std::vector<std::string> arguments,
                                                            bool inputPipe) {
  static int started = 0;
  const std::string ready = root_.file(name + "-" + std::to_string(++started) + ".ready");
  ChildProcess::Options options;
  // The simulators use GLib's Gio through Debian's python3-gi, which only
  // the system interpreter has.
  options.argv = {"/usr/bin/python3", tool("simulators/" + name)};
  options.argv.insert(options.argv.end(), arguments.begin(), arguments.end());
  options.argv.insert(options.argv.end(), {"--ready-file", ready});
  options.inputPipe = inputPipe;
  auto process = std::make_unique<ChildProcess>(options);
  waitForReadyFile(ready, *process);
  return process;
}

void DaemonHarness::stopShell() {
  shell_->signal(SIGTERM);
  shell_->waitForExit(milliseconds(5000));
}

ChildProcess& DaemonHarness::startDaemon() {
  ChildProcess::Options options;
  options.argv = {binaryDir() + "/daemon/nyxd"};
  options.projectBinary = true;
  daemon_ = std::make_unique<ChildProcess>(options);
  if (!daemon_->waitForLine("Waiting for tasks.", kStartTimeout)) {
    throw std::runtime_error("nyxd did not start:\n" + daemon_->output());
  }
  return *daemon_;
}

std::unique_ptr<ChildProcess> DaemonHarness::startSecondDaemon() {
  ChildProcess::Options options;
  options.argv = {binaryDir() + "/daemon/nyxd"};
  options.projectBinary = true;
  return std::make_unique<ChildProcess>(options);
}

int DaemonHarness::hbus(const std::vector<std::string>& arguments) {
  ChildProcess::Options options;
  options.argv = {binaryDir() + "/tools/hbus/hbus"};
  options.argv.insert(options.argv.end(), arguments.begin(), arguments.end());
  options.projectBinary = true;
  ChildProcess process(options);
  auto status = process.waitForExit(milliseconds(20000));
  if (!status) {
    throw std::runtime_error("hbus did not finish");
  }
  return *status;
}

void DaemonHarness::writeDaemonInt(const std::string& property, int value) {
  int status = hbus({"set-int", "cobalt.device.messaging", property, std::to_string(value)});
  if (status != 0) {
    throw std::runtime_error("hbus set-int " + property + " gave status " + std::to_string(status));
  }
}

void DaemonHarness::writeDaemonString(const std::string& property, const std::string& value) {
  int status = hbus({"set", "cobalt.device.messaging", property, value});
  if (status != 0) {
    throw std::runtime_error("hbus set " + property + " gave status " + std::to_string(status));
  }
}

rapidjson::Document DaemonHarness::mock(const std::vector<std::string>& arguments) {
  ChildProcess::Options options;
  options.argv = {"python3", tool("mock-server/nyx-mock"), "--server", serverUrl_, "--json"};
  options.argv.insert(options.argv.end(), arguments.begin(), arguments.end());
  ChildProcess process(options);
  auto status = process.waitForExit(milliseconds(20000));
  process.waitForOutputClosed(milliseconds(5000));
  const std::string output = process.output();
  if (!status || *status != 0) {
    throw std::runtime_error("nyx-mock failed: " + output);
  }
  rapidjson::Document document;
  document.Parse(output);
  if (document.HasParseError()) {
    throw std::runtime_error("nyx-mock printed no JSON: " + output);
  }
  return document;
}

std::vector<std::string> DaemonHarness::jsonLines(const std::string& path) const {
  std::vector<std::string> lines;
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line)) {
    if (!line.empty()) {
      lines.push_back(line);
    }
  }
  return lines;
}

}  // namespace nyxtest
