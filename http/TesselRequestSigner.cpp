#include "http/TesselRequestSigner.h"

#include <glib.h>

#include <stdexcept>

#include "daemon/common/COwners.h"
#include "libauth.h"

TesselRequestSigner::TesselRequestSigner(const std::string& directedId)
    : directedId_(new std::string(directedId)) {}

TesselRequestSigner::~TesselRequestSigner() = default;

const std::string& TesselRequestSigner::getDirectedId() const { return *directedId_; }

void TesselRequestSigner::sign(WebRequest& request) {
  // The library signs the path, query and fragment, the method, the body and
  // the customer; the host, the other headers and the time are its own
  // business, so nothing signed may change after this call.
  MallocString pathQueryFragment(libauth_getPathQueryFragmentFromURL(request.getUrl().c_str()));
  GHashTable* table = nullptr;
  const std::string& body = request.getBody();
  const int status = libauth_getProxyHeaders(
      &table, pathQueryFragment.get(), request.getMethod().name().c_str(), body.data(), body.size(),
      directedId_->empty() ? nullptr : directedId_->c_str());
  HashTableOwner headers(table);
  if (status != 0) {
    throw std::runtime_error("Request Signing Failure. StatusCode: " + std::to_string(status) +
                             " DirectedId: " + *directedId_);
  }
  GHashTableIter iter;
  gpointer name = nullptr;
  gpointer value = nullptr;
  g_hash_table_iter_init(&iter, headers.get());
  while (g_hash_table_iter_next(&iter, &name, &value)) {
    request.setHeader(static_cast<const char*>(name), static_cast<const char*>(value));
  }
}

std::string TesselRequestSigner::signPayload(const unsigned char* payload, size_t length) {
  std::unique_ptr<char[]> digest(libauth_getSignedDigest(payload, length, directedId_->c_str()));
  if (!digest) {
    throw std::runtime_error("Payload Signing Failure. DirectedId: " + *directedId_);
  }
  return digest.get();
}
