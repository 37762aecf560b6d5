// Feeds arbitrary bytes as the server's answer to the message fetcher, and
// every message it accepts to the dispatcher. The fetcher must never throw
// for a body: whatever the server sends is a page, maybe an empty one.
// Application envelopes may make the dispatcher throw its runtime errors.
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <stdexcept>

#include "messaging/WispMessageDispatcher.h"
#include "messaging/WispMessageFetcher.h"
#include "tests/fuzz/FuzzSupport.h"
#include "tests/messaging/MessagingFakes.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  nyxfuzz::setUpProcess();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  auto client = std::make_shared<nyxtest::FakeHttpClient>();
  client->answer(nyxfuzz::kFetchUrl,
                 std::string(reinterpret_cast<const char*>(data), size));
  WispMessageFetcher fetcher(client, std::make_shared<nyxtest::FakeSigner>());
  std::list<WispMessage> messages;
  // A page naming itself as next page would loop; three calls cover first
  // page, next page and the extra call.
  for (int call = 0; call < 3; ++call) {
    try {
      if (!fetcher.fetchNextPage(WispPollReason::NUDGE, messages)) {
        break;
      }
    } catch (const ClientError&) {
      break;  // a next page the fake server does not know
    }
  }
  auto sender = std::make_shared<nyxtest::RecordingSender>();
  WispMessageDispatcher dispatcher(sender);
  for (const WispMessage& message : messages) {
    try {
      dispatcher.dispatch(message);
    } catch (const std::runtime_error&) {
      // A bad application envelope; the poll cycle passes this on.
    }
  }
  return 0;
}
