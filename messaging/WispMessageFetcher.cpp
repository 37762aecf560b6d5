#include "messaging/WispMessageFetcher.h"

#include <stdexcept>
#include <string>

#include "daemon/common/Json.h"
#include "daemon/common/Logging.h"
#include "messaging/Base64.h"
#include "messaging/MessageCrc.h"
#include "messaging/WispFetchRequestBuilder.h"

namespace {

constexpr char kTag[] = "WispMessageFetcher";

// A message element that cannot be turned into a WispMessage; the text says
// which member was wrong.
class MalformedMessage : public std::runtime_error {
 public:
  explicit MalformedMessage(const std::string& what) : std::runtime_error(what) {}
};

std::string requiredString(const rapidjson::Value& object, const char* name) {
  const rapidjson::Value* value = jsonMember(object, name);
  if (value == nullptr) {
    throw MalformedMessage(std::string("missing \"") + name + "\"");
  }
  if (!value->IsString()) {
    throw MalformedMessage(std::string("\"") + name + "\" is not a string");
  }
  return jsonString(*value);
}

// An undecodable payload is taken as empty rather than dropped here: its CRC
// then decides, so a message whose payload really is empty still arrives.
std::string decodePayload(const std::string& text) {
  int length = 0;
  std::unique_ptr<unsigned char[]> bytes = decodeBase64(text, length);
  if (length <= 0) {
    return std::string();
  }
  return std::string(reinterpret_cast<const char*>(bytes.get()), static_cast<size_t>(length));
}

// Reads one element of "messages" into message and returns the expected CRC.
// Every member's type is checked before it is read: the server's answer is
// untrusted, and one bad element must cost only that element. Throws
// MalformedMessage naming the member; message.getId() is set as soon as it
// is known, for the log.
uint32_t readMessage(const rapidjson::Value& element, WispMessage& message) {
  if (!element.IsObject()) {
    throw MalformedMessage("element is not an object");
  }
  const rapidjson::Value* body = jsonMember(element, "message");
  if (body == nullptr || !body->IsObject()) {
    throw MalformedMessage("\"message\" is missing or not an object");
  }
  message.setId(requiredString(*body, "id"));
  message.setTopic(requiredString(*body, "topic"));
  message.setPayload(decodePayload(requiredString(*body, "payload")));
  if (const rapidjson::Value* directed = jsonMember(*body, "directedCustomerId")) {
    // A garbled customer id must not turn a directed message into one for
    // every customer.
    if (!directed->IsString()) {
      throw MalformedMessage("\"directedCustomerId\" is not a string");
    }
    message.setDirectedCustomerId(jsonString(*directed));
  }
  const rapidjson::Value* crc = jsonMember(*body, "crc");
  if (crc == nullptr || !crc->IsUint()) {
    throw MalformedMessage("\"crc\" is missing or not an unsigned 32-bit number");
  }
  return crc->GetUint();
}

}  // namespace

struct WispMessageFetcher::Impl {
  Impl(std::shared_ptr<HttpClient> client, std::shared_ptr<RequestSigner> requestSigner)
      : httpClient(std::move(client)), signer(std::move(requestSigner)) {}

  void readPage(const rapidjson::Value& page, bool& foundMessages,
                std::list<WispMessage>& messages);
  void readElement(const rapidjson::Value& element, std::list<WispMessage>& messages);

  std::shared_ptr<HttpClient> httpClient;
  std::shared_ptr<RequestSigner> signer;
  WispFetchRequestBuilder requestBuilder;
  bool hasMore = true;
};

void WispMessageFetcher::Impl::readPage(const rapidjson::Value& page, bool& foundMessages,
                                        std::list<WispMessage>& messages) {
  // Only a string is followed as the next page: anything else would send the
  // next request to a URL the server never gave.
  const rapidjson::Value* nextPage = jsonMember(page, "nextPage");
  if (nextPage != nullptr && nextPage->IsString()) {
    requestBuilder.setNextPage(jsonString(*nextPage));
  } else {
    if (nextPage != nullptr) {
      logError(kTag, "Ignored \"nextPage\" that is not a string.");
    }
    hasMore = false;
  }

  const rapidjson::Value* list = jsonMember(page, "messages");
  if (list == nullptr) {
    return;
  }
  if (!list->IsArray()) {
    logError(kTag, "Ignored \"messages\" that is not an array.");
    return;
  }
  foundMessages = true;
  for (const rapidjson::Value& element : list->GetArray()) {
    readElement(element, messages);
  }
}

void WispMessageFetcher::Impl::readElement(const rapidjson::Value& element,
                                           std::list<WispMessage>& messages) {
  WispMessage message;
  uint32_t expectedCrc = 0;
  try {
    expectedCrc = readMessage(element, message);
  } catch (const MalformedMessage& error) {
    if (message.getId().empty()) {
      logError(kTag, "Dropped malformed message. Reason: %s", error.what());
    } else {
      logError(kTag, "Dropped malformed message. MessageID: %s Reason: %s", message.getId().c_str(),
               error.what());
    }
    return;
  } catch (const JsonError& error) {
    // Not reached while every read above is type-checked; should one slip,
    // it still costs only this message.
    logError(kTag, "Dropped malformed message. Reason: %s", error.what());
    return;
  }

  if (messageCrc32(message.getTopic(), message.getPayload()) != expectedCrc) {
    logError(kTag, "Received corrupted message. MessageID: %s MessageTopic: %s",
             message.getId().c_str(), message.getTopic().c_str());
    return;
  }
  logInfo(kTag, "Received message. MessageID: %s MessageTopic: %s Payload: %d bytes",
          message.getId().c_str(), message.getTopic().c_str(),
          static_cast<int>(message.getPayload().size()));
  messages.push_back(message);
}

WispMessageFetcher::WispMessageFetcher(std::shared_ptr<HttpClient> httpClient,
                                       std::shared_ptr<RequestSigner> signer)
    : impl_(new Impl(std::move(httpClient), std::move(signer))) {}

WispMessageFetcher::~WispMessageFetcher() = default;

bool WispMessageFetcher::fetchNextPage(const WispPollReason& reason,
                                       std::list<WispMessage>& messages) {
  if (!impl_->hasMore) {
    return false;
  }
  const WebRequest request = impl_->requestBuilder.build(reason, *impl_->signer);
  const WebResponse response = impl_->httpClient->execute(request);

  rapidjson::MemoryPoolAllocator<> allocator(64 * 1024);
  rapidjson::Document page(&allocator);
  parseUntrusted(page, response.getBody());

  bool foundMessages = false;
  if (page.HasParseError() || !page.IsObject()) {
    // Read as a page with neither messages nor a next page: the cycle ends
    // and the messages stay on the server for the next one.
    logError(
        kTag, "Received a page that is not a JSON object: %s",
        page.HasParseError() ? rapidjson::GetParseError_En(page.GetParseError()) : "not an object");
    impl_->hasMore = false;
  } else {
    impl_->readPage(page, foundMessages, messages);
  }
  return foundMessages || impl_->hasMore;
}

void WispMessageFetcher::reset() {
  impl_->requestBuilder.reset();
  impl_->hasMore = true;
}
