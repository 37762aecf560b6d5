// Arbitrary bytes as a page for the fetcher, which must never throw for a
// body, and every message it accepts to the dispatcher.
#include <list>

#include "http/HttpErrors.h"
#include "messaging/WispMessageDispatcher.h"
#include "messaging/WispMessageFetcher.h"
#include "tests/fuzz/FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  WispMessageFetcher fetcher(
      nyxfuzz::pageServer(std::string(reinterpret_cast<const char*>(data), size)),
      std::make_shared<nyxtest::FakeSigner>());
  std::list<WispMessage> messages;
  try {  // a page naming itself as the next page would loop: first, next and one more
    int calls = 0;
    while (calls++ < 3 && fetcher.fetchNextPage(WispPollReason::NUDGE, messages)) {
    }
  } catch (const ClientError&) {  // a next page the fake server does not know
  }
  WispMessageDispatcher dispatcher(std::make_shared<nyxtest::RecordingSender>());
  for (const WispMessage& message : messages) {
    nyxfuzz::allowRuntimeError([&] { dispatcher.dispatch(message); });
  }
  return 0;
}
