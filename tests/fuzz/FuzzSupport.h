// The harness of the messaging fuzz targets, included once by each: a fake
// page server, a silent logger, a device root whose configuration names
// kFetchUrl.
#ifndef NYX_TESTS_FUZZ_FUZZ_SUPPORT_H
#define NYX_TESTS_FUZZ_FUZZ_SUPPORT_H

#include <stdlib.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>

#include "tests/support/Fakes.h"

namespace nyxfuzz {

constexpr char kFetchUrl[] = "https://messaging.fuzz/messages";

// Answers kFetchUrl with the page, any other URL with 404.
inline std::shared_ptr<nyxtest::FakeHttpClient> pageServer(const std::string& page) {
  auto client = std::make_shared<nyxtest::FakeHttpClient>();
  client->record = false;
  client->answer = [page](const WebRequest& request) {
    return request.getUrl() == kFetchUrl ? nyxtest::response(200, page) : nyxtest::response(404);
  };
  return client;
}

// Runs the call; a std::runtime_error is an accepted outcome, anything else a finding.
template <typename Call>
void allowRuntimeError(Call call) {
  try {
    call();
  } catch (const std::runtime_error&) {
  }
}

}  // namespace nyxfuzz

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  setLogger(new nyxtest::SilentLogger());
  char root[] = "/tmp/nyx-fuzz-XXXXXX";
  if (mkdtemp(root) == nullptr) throw std::runtime_error("mkdtemp failed");
  std::filesystem::create_directories(std::string(root) + "/etc/nyx-host");
  std::ofstream(std::string(root) + "/etc/nyx-host/dynconfig")
      << "url.devicemessaging.getmessages=" << nyxfuzz::kFetchUrl << "\n";
  setenv("NYX_ROOT", root, 1);
  // libFuzzer ends through exit(): the root goes with the process.
  static struct RemovedAtExit {
    std::string path;
    ~RemovedAtExit() { std::filesystem::remove_all(path); }
  } removed{root};
  return 0;
}

#endif  // NYX_TESTS_FUZZ_FUZZ_SUPPORT_H
