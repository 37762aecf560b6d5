// The TLS-context callback: the system's trust anchors plus tls/ca.pem, and
// with tls/crl.pem its revocation lists checked for the whole chain.
//
// The system anchors are found through OpenSSL's hashed certificate directory
// (/etc/ssl/certs, whose hash links Debian's ca-certificates keeps): a
// handshake loads the one root its chain names, when it first needs it, and
// the store keeps only the roots in use. Loading the whole system bundle
// instead costs about 27 ms of CPU and keeps some 1.4 MB parsed for the life
// of the process, which the device cannot spare.
//
// One X509_STORE is shared, reference counted, by every SSL_CTX, so a
// transfer costs a few stat calls here. It is built again when ca.pem,
// crl.pem or the certificate directory changes (inode, size or mtime), so an
// edited file takes effect at the next transfer and a root removed from the
// system store is not kept trusted.
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <sys/stat.h>

#include <cstdlib>
#include <mutex>
#include <string>
#include <tuple>
#include <vector>

#include "HostFiles.h"
#include "curl_extras.h"

namespace {

struct FileStamp {
  bool exists = false;
  dev_t device = 0;
  ino_t inode = 0;
  off_t size = 0;
  long long mtimeNs = 0;

  bool operator==(const FileStamp& other) const {
    return std::tie(exists, device, inode, size, mtimeNs) ==
           std::tie(other.exists, other.device, other.inode, other.size, other.mtimeNs);
  }
};

FileStamp stampOf(const std::string& path) {
  FileStamp stamp;
  struct stat info {};
  if (stat(path.c_str(), &info) == 0) {
    stamp.exists = true;
    stamp.device = info.st_dev;
    stamp.inode = info.st_ino;
    stamp.size = info.st_size;
    stamp.mtimeNs =
        static_cast<long long>(info.st_mtim.tv_sec) * 1000000000LL + info.st_mtim.tv_nsec;
  }
  return stamp;
}

// The system's hashed certificate directories: SSL_CERT_DIR when set (a
// list separated by ':'), else OpenSSL's default, /usr/lib/ssl/certs on
// Debian, a link to /etc/ssl/certs.
std::string systemCertDirs() {
  const char* fromEnv = std::getenv(X509_get_default_cert_dir_env());
  return fromEnv != nullptr ? fromEnv : X509_get_default_cert_dir();
}

std::vector<FileStamp> stampsOf(const std::string& dirs) {
  std::vector<FileStamp> stamps;
  size_t start = 0;
  for (;;) {
    const size_t end = dirs.find(':', start);
    stamps.push_back(stampOf(dirs.substr(start, end - start)));
    if (end == std::string::npos) {
      return stamps;
    }
    start = end + 1;
  }
}

struct StoreInputs {
  std::string certDirs;
  std::string caPath;
  std::string crlPath;
  std::vector<FileStamp> system;
  FileStamp ca;
  FileStamp crl;
  bool operator==(const StoreInputs& other) const {
    return std::tie(certDirs, caPath, crlPath, system, ca, crl) ==
           std::tie(other.certDirs, other.caPath, other.crlPath, other.system, other.ca, other.crl);
  }
};

class TrustStoreCache {
 public:
  // Installs the current store into ctx. Returns CURLE_OK, or the error that
  // fails the transfer when a present ca.pem or crl.pem cannot be loaded:
  // trusting less than configured, or checking no revocation, is never
  // silently accepted.
  CURLcode install(SSL_CTX* ctx) {
    const std::string certDirs = systemCertDirs();
    const std::string caPath = nyxhost::hostFilePath("tls/ca.pem");
    const std::string crlPath = nyxhost::hostFilePath("tls/crl.pem");
    const StoreInputs inputs{certDirs,           caPath,          crlPath,
                             stampsOf(certDirs), stampOf(caPath), stampOf(crlPath)};
    std::lock_guard<std::mutex> lock(mutex_);
    if (store_ == nullptr || !(inputs == inputs_)) {
      X509_STORE* fresh = nullptr;
      const CURLcode built = build(inputs, &fresh);
      if (built != CURLE_OK) {
        return built;
      }
      X509_STORE_free(store_);
      store_ = fresh;
      inputs_ = inputs;
    }
    SSL_CTX_set1_cert_store(ctx, store_);
    if (inputs_.crl.exists) {
      X509_VERIFY_PARAM_set_flags(SSL_CTX_get0_param(ctx),
                                  X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL);
    }
    return CURLE_OK;
  }

  ~TrustStoreCache() { X509_STORE_free(store_); }

 private:
  static CURLcode build(const StoreInputs& inputs, X509_STORE** result) {
    X509_STORE* store = X509_STORE_new();
    // The directory lookup reads a certificate only when a chain asks for
    // its subject; nothing of the system store is loaded here.
    X509_LOOKUP* systemDirs =
        store != nullptr ? X509_STORE_add_lookup(store, X509_LOOKUP_hash_dir()) : nullptr;
    if (systemDirs == nullptr ||
        X509_LOOKUP_add_dir(systemDirs, inputs.certDirs.c_str(), X509_FILETYPE_PEM) != 1) {
      X509_STORE_free(store);
      return CURLE_SSL_CACERT_BADFILE;
    }
    X509_STORE_set_flags(store, X509_V_FLAG_TRUSTED_FIRST);
    if (inputs.ca.exists && X509_STORE_load_file(store, inputs.caPath.c_str()) != 1) {
      X509_STORE_free(store);
      return CURLE_SSL_CACERT_BADFILE;
    }
    if (inputs.crl.exists) {
      if (X509_STORE_load_file(store, inputs.crlPath.c_str()) != 1) {
        X509_STORE_free(store);
        return CURLE_SSL_CRL_BADFILE;
      }
      X509_STORE_set_flags(store, X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL);
    }
    *result = store;
    return CURLE_OK;
  }

  std::mutex mutex_;
  X509_STORE* store_ = nullptr;
  StoreInputs inputs_;
};

TrustStoreCache& trustStoreCache() {
  static TrustStoreCache cache;
  return cache;
}

CURLcode revocationSslCtx(CURL* /*curl*/, void* sslCtx, void* /*userData*/) {
  if (sslCtx == nullptr) {
    return CURLE_SSL_CERTPROBLEM;
  }
  try {
    return trustStoreCache().install(static_cast<SSL_CTX*>(sslCtx));
  } catch (...) {
    return CURLE_OUT_OF_MEMORY;
  }
}

}  // namespace

curl_ssl_ctx_callback getRevocationSslCxtCb(void) { return revocationSslCtx; }
