// The harness of the messaging fuzz targets, included once by each: a fake
// page server, a silent logger, a device root whose configuration names
// kFetchUrl.
#ifndef NYX_TESTS_FUZZ_FUZZ_SUPPORT_H
#define NYX_TESTS_FUZZ_FUZZ_SUPPORT_H

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>

#include "tests/support/Fakes.h"
#include "tests/support/TestSupport.h"

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
  // libFuzzer ends through exit(), which removes the root.
  static const nyxtest::NyxRoot root;
  root.setConfig({{"url.devicemessaging.getmessages", nyxfuzz::kFetchUrl}});
  return 0;
}

#endif  // NYX_TESTS_FUZZ_FUZZ_SUPPORT_H
