#include "tests/e2e/DaemonHarness.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <stdexcept>

#include "daemon/common/COwners.h"
#include "hbus.h"

namespace nyxtest {

namespace {

constexpr milliseconds kStartTimeout(30000);

std::string tool(const std::string& relative) { return sourceDir() + "/tools/" + relative; }

}  // namespace

std::vector<std::string> jsonLines(const std::string& path) {
  std::vector<std::string> lines;
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);) {
    if (!line.empty()) {
      lines.push_back(line);
    }
  }
  return lines;
}

bool waitForJsonLines(const std::string& path, size_t count) {
  return waitUntil([&] { return jsonLines(path).size() >= count; }, kDeadline);
}

std::string appAnswer(const std::string& path, size_t index) {
  rapidjson::Document entry;
  entry.Parse(jsonLines(path).at(index));
  return entry["value"].GetString();
}

DaemonHarness::DaemonHarness() {
  // systemd gives a service a soft limit of 1,024 open files, whatever the
  // limit of the shell that runs the tests; nyxd inherits the test's limit.
  rlimit files{};
  getrlimit(RLIMIT_NOFILE, &files);
  files.rlim_cur = std::min<rlim_t>(1024, files.rlim_max);
  setrlimit(RLIMIT_NOFILE, &files);
  root_.writePlatformFile("device-serial", "SERIAL-0001\n");
  root_.writePlatformFile("device-secret", "e2e-device-secret\n");
  root_.writePlatformFile("customer", "customer-1\n");
  server_ = startTool("mock-server/nyx-mock-server",
                      {"--root", root_.path(), "--port", "0", "--configure", "--quiet"});
  rapidjson::Document info;
  info.Parse(readFile(root_.file("nyx-mock-server.ready.json")));
  serverUrl_ = info["url"].GetString();
  shell_ = startTool("simulators/nyx-shell-sim", {"--framework-started", "1"});
  outbox_ = startTool("simulators/nyx-outbox-sim",
                      {"--forward", serverUrl_, "--log", root_.file("outbox.jsonl")});
}

std::unique_ptr<ChildProcess> DaemonHarness::startTool(const std::string& relative,
                                                       std::vector<std::string> arguments,
                                                       bool inputPipe) {
  const std::string readyFile =
      root_.file(relative.substr(relative.rfind('/') + 1) + ".ready.json");
  // Only the system interpreter has python3-gi, which the simulators use.
  arguments.insert(arguments.begin(), {"/usr/bin/python3", tool(relative)});
  arguments.insert(arguments.end(), {"--ready-file", readyFile});
  auto process = std::make_unique<ChildProcess>(ChildProcess::Options{arguments, false, inputPipe});
  // The tool writes the file in one rename, once it is ready.
  if (!waitUntil([&] { return access(readyFile.c_str(), R_OK) == 0; }, kStartTimeout)) {
    throw std::runtime_error("no ready file from " + relative + "; output:\n" + process->output());
  }
  return process;
}

std::unique_ptr<ChildProcess> DaemonHarness::nyxd() {
  return std::make_unique<ChildProcess>(
      ChildProcess::Options{{binaryDir() + "/daemon/nyxd"}, true});
}

ChildProcess& DaemonHarness::startDaemon() {
  daemon_ = nyxd();
  if (!daemon_->waitForLine("Waiting for tasks.", kStartTimeout)) {
    throw std::runtime_error("nyxd did not start:\n" + daemon_->output());
  }
  return *daemon_;
}

void DaemonHarness::write(const std::string& property, const std::variant<int, std::string>& value,
                          const std::string& service) {
  COwner<HbusHandleStruct, HbusClose> writer(HbusInitEx(nullptr, nullptr));
  const int status = std::holds_alternative<int>(value)
                         ? HbusSetIntProperty(writer.get(), service.c_str(), property.c_str(),
                                              std::get<int>(value))
                         : HbusSetStringProperty(writer.get(), service.c_str(), property.c_str(),
                                                 std::get<std::string>(value).c_str());
  if (status != HBUS_STATUS_OK) {
    throw std::runtime_error("writing " + property + " of " + service + ": status " +
                             std::to_string(status));
  }
}

rapidjson::Document DaemonHarness::mock(const std::vector<std::string>& arguments) {
  std::vector<std::string> argv = {"python3", tool("mock-server/nyx-mock"), "--server", serverUrl_,
                                   "--json"};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  ChildProcess process({argv});
  auto status = process.waitForExit(milliseconds(20000));
  process.waitForOutputClosed(milliseconds(5000));
  rapidjson::Document document;
  document.Parse(process.output());
  if (status != 0 || document.HasParseError()) {
    throw std::runtime_error("nyx-mock failed: " + process.output());
  }
  return document;
}

}  // namespace nyxtest
