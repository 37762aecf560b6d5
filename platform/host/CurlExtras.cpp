// The TLS-context callback: the system's trust store plus tls/ca.pem, and
// with tls/crl.pem its revocation lists checked for the whole chain.
//
// Parsing the system bundle costs tens of milliseconds of CPU, too much for
// every request on the device's processor. One parsed X509_STORE is kept for
// the process and shared, reference counted, by every SSL_CTX; it is rebuilt
// when the system bundle, ca.pem or crl.pem changes (inode, size or mtime),
// so an edited file still takes effect at the next transfer.
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <sys/stat.h>

#include <cstdlib>
#include <mutex>
#include <string>
#include <tuple>

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

std::string systemBundlePath() {
  const char* fromEnv = std::getenv(X509_get_default_cert_file_env());
  return fromEnv != nullptr ? fromEnv : X509_get_default_cert_file();
}

struct StoreInputs {
  std::string caPath;
  std::string crlPath;
  FileStamp system;
  FileStamp ca;
  FileStamp crl;
  bool operator==(const StoreInputs& other) const {
    return caPath == other.caPath && crlPath == other.crlPath && system == other.system &&
           ca == other.ca && crl == other.crl;
  }
};

class TrustStoreCache {
 public:
  // Installs the current store into ctx. Returns CURLE_OK, or the error that
  // fails the transfer when a present ca.pem or crl.pem cannot be loaded:
  // trusting less than configured, or checking no revocation, is never
  // silently accepted.
  CURLcode install(SSL_CTX* ctx) {
    const std::string caPath = nyxhost::hostFilePath("tls/ca.pem");
    const std::string crlPath = nyxhost::hostFilePath("tls/crl.pem");
    const StoreInputs inputs{caPath, crlPath, stampOf(systemBundlePath()), stampOf(caPath),
                             stampOf(crlPath)};
    std::lock_guard<std::mutex> lock(mutex_);
    if (store_ == nullptr || !(inputs == inputs_)) {
      X509_STORE* fresh = nullptr;
      const CURLcode built = build(inputs, caPath, crlPath, &fresh);
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
  static CURLcode build(const StoreInputs& inputs, const std::string& caPath,
                        const std::string& crlPath, X509_STORE** result) {
    X509_STORE* store = X509_STORE_new();
    if (store == nullptr || X509_STORE_set_default_paths(store) != 1) {
      X509_STORE_free(store);
      return CURLE_SSL_CACERT_BADFILE;
    }
    X509_STORE_set_flags(store, X509_V_FLAG_TRUSTED_FIRST);
    if (inputs.ca.exists && X509_STORE_load_file(store, caPath.c_str()) != 1) {
      X509_STORE_free(store);
      return CURLE_SSL_CACERT_BADFILE;
    }
    if (inputs.crl.exists) {
      if (X509_STORE_load_file(store, crlPath.c_str()) != 1) {
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
