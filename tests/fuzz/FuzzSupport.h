// The harness of the messaging fuzz targets, included once by each: fakes, a
// silent logger, a device root whose configuration names kFetchUrl.
#ifndef NYX_TESTS_FUZZ_FUZZ_SUPPORT_H
#define NYX_TESTS_FUZZ_FUZZ_SUPPORT_H

#include <stdlib.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>

#include "daemon/common/IPCMessageSender.h"
#include "daemon/common/Logging.h"
#include "http/HttpClient.h"
#include "http/RequestSigner.h"

namespace nyxfuzz {

constexpr char kFetchUrl[] = "https://messaging.fuzz/messages";

// Answers kFetchUrl with the page, any other URL with 404.
struct PageServer : HttpClient {
  explicit PageServer(std::string page) : page(std::move(page)) {}
  WebResponse perform(const WebRequest& request) override {
    WebResponse response;
    response.setStatusCode(request.getUrl() == kFetchUrl ? 200 : 404);
    response.setBody(request.getUrl() == kFetchUrl ? page : "");
    return response;
  }
  std::string page;
};

struct NullSender : IPCMessageSender {
  int send(const std::string&, const std::string&, const std::string&) override { return 0; }
};

struct NullSigner : RequestSigner {
  const std::string& getDirectedId() const override { return directedId; }
  void sign(WebRequest&) override {}
  std::string signPayload(const unsigned char*, size_t) override { return "signature"; }
  std::string directedId = "customer";
};

struct SilentLogger : Logger {
  void debug(const char*, const char*) override {}
  void error(const char*, const char*) override {}
  void info(const char*, const char*) override {}
  void warn(const char*, const char*) override {}
};

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
  setLogger(new nyxfuzz::SilentLogger());
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
