// Device authentication from $NYX_ROOT/etc/nyx-host: the active customer,
// and request signing with the device serial and secret.
//
// The canonical text of a request is five lines joined by '\n' (no '\n' after
// the last): method, path-query-fragment, the X-Device-Date value, the
// customer identifier or "", and the lower-case hex SHA-256 of the body. The
// signature is the lower-case hex HMAC-SHA256 of that text under the secret.
#include <curl/curl.h>
#include <glib.h>

#include <cstring>
#include <memory>
#include <optional>
#include <string>

#include "HostFiles.h"
#include "HostOwners.h"
#include "libauth.h"

namespace {

// GLib computes both digests and writes them in lower-case hex.
std::string hmacSha256Hex(const std::string& key, const void* data, size_t length) {
  static const guchar kEmpty = 0;
  nyxhost::GFreeString mac(g_compute_hmac_for_data(
      G_CHECKSUM_SHA256, reinterpret_cast<const guchar*>(key.data()), key.size(),
      data != nullptr ? static_cast<const guchar*>(data) : &kEmpty, length));
  return mac.get();
}

std::string sha256Hex(const void* data, size_t length) {
  static const guchar kEmpty = 0;
  nyxhost::GFreeString digest(g_compute_checksum_for_data(
      G_CHECKSUM_SHA256, data != nullptr ? static_cast<const guchar*>(data) : &kEmpty, length));
  return digest.get();
}

std::string utcNow() {
  nyxhost::GDateTimeOwner now(g_date_time_new_now_utc());
  nyxhost::GFreeString text(g_date_time_format(now.get(), "%Y-%m-%dT%H:%M:%SZ"));
  return text.get();
}

// One part of a parsed URL, or nullopt when the URL has none.
std::optional<std::string> urlPart(CURLU* url, CURLUPart part) {
  char* raw = nullptr;
  if (curl_url_get(url, part, &raw, 0) != CURLUE_OK || raw == nullptr) {
    return std::nullopt;
  }
  return std::string(nyxhost::CurlString(raw).get());
}

}  // namespace

char* libauth_getActiveCustomerID(void) {
  std::optional<std::string> customer = nyxhost::readFirstLine("customer");
  return customer ? nyxhost::mallocCopy(*customer) : nullptr;
}

// curl's own URL parser, so that the signed text is exactly the request
// target libcurl puts on the wire (dot segments removed, "/" for no path).
char* libauth_getPathQueryFragmentFromURL(const char* url) {
  if (url == nullptr) {
    return nullptr;
  }
  nyxhost::CurlUrlOwner parsed(curl_url());
  if (!parsed || curl_url_set(parsed.get(), CURLUPART_URL, url, 0) != CURLUE_OK) {
    return nullptr;
  }
  std::string result = urlPart(parsed.get(), CURLUPART_PATH).value_or("/");
  if (result.empty() || result[0] != '/') {
    result.insert(0, "/");
  }
  if (auto query = urlPart(parsed.get(), CURLUPART_QUERY)) {
    result += "?" + *query;
  }
  if (auto fragment = urlPart(parsed.get(), CURLUPART_FRAGMENT)) {
    result += "#" + *fragment;
  }
  return nyxhost::mallocCopy(result);
}

int libauth_getProxyHeaders(GHashTable** headers, const char* pathQueryFragment, const char* method,
                            const char* body, size_t bodyLength, const char* directedId) {
  if (headers == nullptr || pathQueryFragment == nullptr || method == nullptr ||
      (body == nullptr && bodyLength != 0)) {
    return 1;
  }
  const std::optional<std::string> serial = nyxhost::readFirstLine("device-serial");
  const std::optional<std::string> secret = nyxhost::readFirstLine("device-secret");
  if (!serial || !secret) {
    return 2;
  }
  const std::string customer = directedId != nullptr ? directedId : "";
  const std::string date = utcNow();
  const std::string canonical = std::string(method) + "\n" + pathQueryFragment + "\n" + date +
                                "\n" + customer + "\n" + sha256Hex(body, bodyLength);
  const std::string signature = hmacSha256Hex(*secret, canonical.data(), canonical.size());
  GHashTable* table = g_hash_table_new_full(g_str_hash, g_str_equal, g_free, g_free);
  g_hash_table_insert(table, g_strdup("X-Device-Serial"), g_strdup(serial->c_str()));
  g_hash_table_insert(table, g_strdup("X-Device-Date"), g_strdup(date.c_str()));
  if (!customer.empty()) {
    g_hash_table_insert(table, g_strdup("X-Device-Customer"), g_strdup(customer.c_str()));
  }
  g_hash_table_insert(table, g_strdup("X-Device-Signature"), g_strdup(signature.c_str()));
  *headers = table;
  return 0;
}

char* libauth_getSignedDigest(const unsigned char* payload, size_t payloadLength,
                              const char* /*directedId*/) {
  const std::optional<std::string> secret = nyxhost::readFirstLine("device-secret");
  if (!secret || (payload == nullptr && payloadLength != 0)) {
    return nullptr;
  }
  const std::string digest = hmacSha256Hex(*secret, payload, payloadLength);
  char* copy = new char[digest.size() + 1];
  std::memcpy(copy, digest.c_str(), digest.size() + 1);
  return copy;
}
