// The network state from $NYX_ROOT/etc/nyx-host/network.
#include <glib.h>

#include <cstdlib>
#include <string>

#include "HostFiles.h"
#include "conn.h"

int ConActiveInterface(void) {
  const auto values = nyxhost::readKeyValues("network");
  const auto found = values.find("interface");
  gint64 code = 0;
  if (found == values.end() ||
      !g_ascii_string_to_signed(found->second.c_str(), 10, G_MININT, G_MAXINT, &code, nullptr)) {
    return CON_INTERFACE_DIRECT;
  }
  return static_cast<int>(code);
}

ConProxyData* ConGetNetworkProxy(void) {
  const auto values = nyxhost::readKeyValues("network");
  const auto found = values.find("proxy");
  if (found == values.end() || found->second.empty()) {
    return nullptr;
  }
  // HOST:PORT split at the last colon, so that a bracketed IPv6 host keeps
  // its own colons; "[::1]" alone has no port.
  const std::string& proxy = found->second;
  size_t colon = proxy.rfind(':');
  if (proxy.back() == ']') {
    colon = std::string::npos;
  }
  const std::string port = colon == std::string::npos ? "" : proxy.substr(colon + 1);
  auto* record = static_cast<ConProxyData*>(std::calloc(1, sizeof(ConProxyData)));
  if (record == nullptr) {
    return nullptr;
  }
  record->host = nyxhost::mallocCopy(proxy.substr(0, colon));
  record->port = port.empty() ? nullptr : nyxhost::mallocCopy(port);
  return record;
}
