// nyx-bench-msg-cpu: CPU cost per message of reading a fetched page.
//
//   nyx-bench-msg-cpu [--payload TEXT] [benchmark flags]   Google Benchmark
//   nyx-bench-msg-cpu [--payload TEXT] --pages N           N pages, no timing
//
// WispMessageFetcher is given an HttpClient that answers every request with
// one prepared page of 100 plain messages (the mock server's layout, payload
// TEXT) whose "nextPage" points back at itself, so every call is one full
// page: building and signing the request, parsing the JSON, decoding each
// payload, checking each CRC and appending each message. The logger is
// replaced by one that drops lines, so that the figure is the fetcher's work
// and not the terminal's; the lines are still formatted.
//
// The second form exists for callgrind: the instruction count of N2 pages
// minus that of N1 pages, over (N2 - N1) * 100, is the instructions per
// message, free of start-up cost.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <list>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "messaging/Base64.h"
#include "messaging/WispMessageFetcher.h"
#include "messaging/WispPollReason.h"
#include "tests/support/Fakes.h"

namespace {

const int kMessagesPerPage = 100;
const char* const kPageUrl = "http://127.0.0.1:9/v1/messages?cursor=1.0";

// Bitwise CRC-32 (reflected, polynomial 0xEDB88320), written apart from the
// fetcher's own so that a fault there shows as dropped messages.
uint32_t crc32Of(const std::string& a, const std::string& b) {
  uint32_t crc = 0xFFFFFFFFu;
  for (const std::string* part : {&a, &b}) {
    for (unsigned char byte : *part) {
      crc ^= byte;
      for (int bit = 0; bit < 8; ++bit) {
        crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
      }
    }
  }
  return crc ^ 0xFFFFFFFFu;
}

// A page as the mock server writes it.
std::string makePage(const std::string& payload) {
  const std::string topic = "bench.receiver";
  const std::string encoded =
      encodeBase64(reinterpret_cast<const unsigned char*>(payload.data()), payload.size());
  const std::string crc = std::to_string(crc32Of(topic, payload));
  std::string page = "{\"messages\":[";
  for (int i = 0; i < kMessagesPerPage; ++i) {
    char id[16];
    std::snprintf(id, sizeof id, "msg-%06d", i + 1);
    page += std::string(i == 0 ? "" : ",") + "{\"message\":{\"id\":\"" + id + "\",\"topic\":\"" +
            topic + "\",\"payload\":\"" + encoded + "\",\"crc\":" + crc + "}}";
  }
  return page + "],\"nextPage\":\"" + kPageUrl + "\"}";
}

// A client answering every request with the page and a signer, both keeping
// nothing.
std::shared_ptr<nyxtest::FakeHttpClient> pageClient(const std::string& page) {
  auto client = std::make_shared<nyxtest::FakeHttpClient>();
  client->record = false;
  const WebResponse answer = nyxtest::response(200, page);
  client->answer = [answer](const WebRequest&) { return answer; };
  return client;
}

std::shared_ptr<nyxtest::FakeSigner> signer() {
  auto signer = std::make_shared<nyxtest::FakeSigner>();
  signer->record = false;
  return signer;
}

// A device root whose dynconfig names the page URL, for the fetcher's
// constructor; removed at exit.
class ConfiguredRoot {
 public:
  ConfiguredRoot() {
    char pattern[] = "/tmp/nyx-bench-msg-cpu-XXXXXX";
    if (mkdtemp(pattern) == nullptr) {
      throw std::runtime_error("mkdtemp failed");
    }
    root_ = pattern;
    for (const char* dir : {"/etc", "/etc/nyx-host"}) {
      if (mkdir((root_ + dir).c_str(), 0755) != 0) {
        throw std::runtime_error("mkdir failed");
      }
    }
    std::ofstream(config()) << "url.devicemessaging.getmessages=" << kPageUrl << "\n";
    setenv("NYX_ROOT", root_.c_str(), 1);
  }
  ~ConfiguredRoot() {
    unlink(config().c_str());
    rmdir((root_ + "/etc/nyx-host").c_str());
    rmdir((root_ + "/etc").c_str());
    rmdir(root_.c_str());
  }

 private:
  std::string config() const { return root_ + "/etc/nyx-host/dynconfig"; }
  std::string root_;
};

std::string gPayload(96, 'x');

void BM_FetchPage(benchmark::State& state) {
  WispMessageFetcher fetcher(pageClient(makePage(gPayload)), signer());
  std::list<WispMessage> messages;
  for (auto _ : state) {
    messages.clear();
    fetcher.fetchNextPage(WispPollReason::NUDGE, messages);
    if (messages.size() != static_cast<size_t>(kMessagesPerPage)) {
      state.SkipWithError("the fetcher dropped messages of a good page");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations() * kMessagesPerPage);
  state.counters["ns_per_msg"] =
      benchmark::Counter(static_cast<double>(state.iterations() * kMessagesPerPage),
                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_FetchPage)->Unit(benchmark::kMicrosecond);

int runPages(long pages) {
  WispMessageFetcher fetcher(pageClient(makePage(gPayload)), signer());
  std::list<WispMessage> messages;
  for (long i = 0; i < pages; ++i) {
    messages.clear();
    fetcher.fetchNextPage(WispPollReason::NUDGE, messages);
    if (messages.size() != static_cast<size_t>(kMessagesPerPage)) {
      std::fprintf(stderr, "nyx-bench-msg-cpu: the fetcher dropped messages of a good page\n");
      return 1;
    }
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  long pages = -1;
  std::vector<char*> rest{argv[0]};
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--payload") == 0 && i + 1 < argc) {
      gPayload = argv[++i];
    } else if (std::strcmp(argv[i], "--pages") == 0 && i + 1 < argc) {
      pages = std::atol(argv[++i]);
    } else {
      rest.push_back(argv[i]);
    }
  }
  ConfiguredRoot root;
  setLogger(new nyxtest::SilentLogger);
  if (pages >= 0) {
    return runPages(pages);
  }
  int restCount = static_cast<int>(rest.size());
  benchmark::Initialize(&restCount, rest.data());
  if (benchmark::ReportUnrecognizedArguments(restCount, rest.data())) {
    return 2;
  }
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
