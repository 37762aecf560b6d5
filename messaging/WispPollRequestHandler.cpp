#include "messaging/WispPollRequestHandler.h"

#include <list>

#include "daemon/common/Logging.h"
#include "daemon/common/Termination.h"
#include "http/HttpErrors.h"
#include "http/TesselCurlHttpClient.h"
#include "http/TesselRequestSigner.h"

namespace {

constexpr char kTag[] = "WispPollRequestHandler";

}  // namespace

struct WispPollRequestHandler::Impl {
  void runCycle(const WispPollReason& reason);

  std::shared_ptr<WispMessageFetcher> fetcher;
  std::shared_ptr<WispMessageDispatcher> dispatcher;
  std::shared_ptr<WispMessagePurger> purger;
};

void WispPollRequestHandler::Impl::runCycle(const WispPollReason& reason) {
  fetcher->reset();
  std::list<WispMessage> messages;
  while (fetcher->fetchNextPage(reason, messages)) {
    // Messages that asked for a retry stay in the list and go out again
    // after every later page of this cycle, ahead of that page's own: a
    // receiver that was busy a moment ago often answers a moment later, and
    // the server would otherwise not offer the message again before the
    // next cycle.
    for (auto message = messages.begin(); message != messages.end();) {
      const WispDispatchStatus status = dispatcher->dispatch(*message);
      if (status.retry()) {
        ++message;
        continue;
      }
      purger->purge(*message, status);
      message = messages.erase(message);
    }
    if (terminationRequested.load()) {
      // The daemon is stopping: no further page. What was not purged stays
      // on the server and comes back in the next cycle after the restart.
      logInfo(kTag, "Stopping: poll cycle ended after this page.");
      return;
    }
  }
}

WispPollRequestHandler::WispPollRequestHandler(const std::string& customerId) : impl_(new Impl()) {
  std::shared_ptr<HttpClient> httpClient = std::make_shared<TesselCurlHttpClient>();
  std::shared_ptr<RequestSigner> signer = std::make_shared<TesselRequestSigner>(customerId);
  impl_->fetcher = std::make_shared<WispMessageFetcher>(httpClient, signer);
  auto sender = std::make_shared<IPCMessageSender>();
  impl_->dispatcher = std::make_shared<WispMessageDispatcher>(sender);
  impl_->purger = std::make_shared<WispMessagePurger>(sender);
}

WispPollRequestHandler::WispPollRequestHandler(std::shared_ptr<WispMessageFetcher> fetcher,
                                               std::shared_ptr<WispMessageDispatcher> dispatcher,
                                               std::shared_ptr<WispMessagePurger> purger)
    : impl_(new Impl{std::move(fetcher), std::move(dispatcher), std::move(purger)}) {}

WispPollRequestHandler::~WispPollRequestHandler() = default;

void WispPollRequestHandler::handlePoll(const WispPollReason& reason) {
  try {
    impl_->runCycle(reason);
  } catch (const IOError& error) {
    // The server or the way to it failed; what was not purged stays on the
    // server and comes back in the next cycle. Anything else is a fault that
    // must not be hidden and goes on to the task.
    logError(kTag, "IOError: %s", error.what());
  }
}
