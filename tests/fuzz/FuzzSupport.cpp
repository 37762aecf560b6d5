#include "tests/fuzz/FuzzSupport.h"

#include <stdlib.h>
#include <sys/stat.h>

#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <string>

#include "daemon/Logging.h"

namespace nyxfuzz {
namespace {

class SilentLogger : public Logger {
 public:
  void debug(const char*, const char*) override {}
  void error(const char*, const char*) override {}
  void info(const char*, const char*) override {}
  void warn(const char*, const char*) override {}
};

}  // namespace

void setUpProcess() {
  setLogger(new SilentLogger());
  char pattern[] = "/tmp/nyx-fuzz-XXXXXX";
  if (mkdtemp(pattern) == nullptr) {
    throw std::runtime_error("mkdtemp failed");
  }
  const std::string root = pattern;
  mkdir((root + "/etc").c_str(), 0700);
  mkdir((root + "/etc/nyx-host").c_str(), 0700);
  std::ofstream(root + "/etc/nyx-host/dynconfig")
      << "url.devicemessaging.getmessages=" << kFetchUrl << "\n";
  setenv("NYX_ROOT", root.c_str(), 1);
}

}  // namespace nyxfuzz
