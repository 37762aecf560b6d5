// The TLS-context callback against a local HTTPS server whose certificates
// are made for this run and trusted only through tls/ca.pem.
#include <curl/curl.h>
#include <gtest/gtest.h>
#include <openssl/ssl.h>

#include <cstdio>
#include <map>
#include <memory>
#include <string>

#include "curl_extras.h"
#include "tests/support/TestSupport.h"

namespace {

using nyxtest::ChildProcess;
using nyxtest::milliseconds;

size_t discard(char*, size_t size, size_t count, void*) { return size * count; }

class TlsTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    curl_global_init(CURL_GLOBAL_DEFAULT);
    pki_ = new nyxtest::TempDir();
    ChildProcess::Options make;
    make.argv = {"sh", nyxtest::sourceDir() + "/tests/platform/make-test-pki.sh", pki_->path()};
    ChildProcess maker(make);
    ASSERT_EQ(maker.waitForExit(milliseconds(20000)), 0) << maker.output();

    ChildProcess::Options serve;
    serve.argv = {"python3", nyxtest::sourceDir() + "/tests/platform/tls_server.py",
                  pem("good") + ":" + pki_->path() + "/good.key",
                  pem("revoked") + ":" + pki_->path() + "/revoked.key"};
    server_ = new ChildProcess(serve);
    ASSERT_TRUE(server_->waitForLine("ready", milliseconds(10000))) << server_->output();
    for (const auto& line : server_->lines()) {
      char name[32] = {};
      int port = 0;
      if (std::sscanf(line.c_str(), "port %31s %d", name, &port) == 2) {
        (*ports_)[name] = port;
      }
    }
  }
  static void TearDownTestSuite() {
    delete server_;
    delete pki_;
    curl_global_cleanup();
  }

  static std::string pem(const std::string& name) { return pki_->path() + "/" + name + ".pem"; }

  // A GET through the callback, as the daemon's transport makes it.
  static CURLcode fetch(const std::string& server, const std::string& host) {
    const int port = ports_->at(server);
    std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> curl(curl_easy_init(), curl_easy_cleanup);
    const std::string resolve = host + ":" + std::to_string(port) + ":127.0.0.1";
    std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> resolveList(
        curl_slist_append(nullptr, resolve.c_str()), curl_slist_free_all);
    const std::string url = "https://" + host + ":" + std::to_string(port) + "/";
    curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl.get(), CURLOPT_RESOLVE, resolveList.get());
    curl_easy_setopt(curl.get(), CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT, 10L);
    curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, discard);
    curl_easy_setopt(curl.get(), CURLOPT_SSL_CTX_FUNCTION, getRevocationSslCxtCb());
    return curl_easy_perform(curl.get());
  }

  static nyxtest::TempDir* pki_;
  static ChildProcess* server_;
  static std::map<std::string, int>* ports_;
};

nyxtest::TempDir* TlsTest::pki_ = nullptr;
ChildProcess* TlsTest::server_ = nullptr;
std::map<std::string, int>* TlsTest::ports_ = new std::map<std::string, int>();

struct TlsCase {
  const char* what;
  const char* server;
  const char* host;
  bool caPem;
  bool crlPem;
  CURLcode expected;
};

// One root for all rows, so that each row also checks that the shared trust
// store follows the files as they change.
TEST_F(TlsTest, TrustsCaPemAndRefusesRevokedOrMisnamedServers) {
  nyxtest::NyxRoot root;
  const TlsCase cases[] = {
      {"trusted only through ca.pem", "good", "localhost", true, false, CURLE_OK},
      {"CA unknown without ca.pem", "good", "localhost", false, false,
       CURLE_PEER_FAILED_VERIFICATION},
      {"revoked, but no CRL", "revoked", "localhost", true, false, CURLE_OK},
      {"revoked with crl.pem", "revoked", "localhost", true, true, CURLE_PEER_FAILED_VERIFICATION},
      {"good with crl.pem", "good", "localhost", true, true, CURLE_OK},
      {"wrong host name", "good", "wrong.example", true, false, CURLE_PEER_FAILED_VERIFICATION},
      {"trusted again after the CRL goes", "revoked", "localhost", true, false, CURLE_OK},
  };
  for (const auto& row : cases) {
    const std::string ca = root.file("etc/nyx-host/tls/ca.pem");
    const std::string crl = root.file("etc/nyx-host/tls/crl.pem");
    std::remove(ca.c_str());
    std::remove(crl.c_str());
    if (row.caPem) {
      nyxtest::writeFile(ca, nyxtest::readFile(pem("ca")));
    }
    if (row.crlPem) {
      nyxtest::writeFile(crl, nyxtest::readFile(pki_->path() + "/crl.pem"));
    }
    EXPECT_EQ(fetch(row.server, row.host), row.expected) << row.what;
  }
}

TEST_F(TlsTest, SharesOneStoreUntilAFileChanges) {
  nyxtest::NyxRoot root;
  nyxtest::writeFile(root.file("etc/nyx-host/tls/ca.pem"), nyxtest::readFile(pem("ca")));
  auto storeFor = [](SSL_CTX* ctx) {
    EXPECT_EQ(getRevocationSslCxtCb()(nullptr, ctx, nullptr), CURLE_OK);
    return SSL_CTX_get_cert_store(ctx);
  };
  using Ctx = std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)>;
  Ctx first(SSL_CTX_new(TLS_client_method()), SSL_CTX_free);
  Ctx second(SSL_CTX_new(TLS_client_method()), SSL_CTX_free);
  Ctx third(SSL_CTX_new(TLS_client_method()), SSL_CTX_free);
  X509_STORE* shared = storeFor(first.get());
  EXPECT_EQ(storeFor(second.get()), shared);
  EXPECT_EQ(X509_VERIFY_PARAM_get_flags(SSL_CTX_get0_param(second.get())) & X509_V_FLAG_CRL_CHECK,
            0u);

  nyxtest::writeFile(root.file("etc/nyx-host/tls/crl.pem"),
                     nyxtest::readFile(pki_->path() + "/crl.pem"));
  EXPECT_NE(storeFor(third.get()), shared);
  EXPECT_EQ(X509_VERIFY_PARAM_get_flags(SSL_CTX_get0_param(third.get())) &
                (X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL),
            static_cast<unsigned long>(X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL));
}

TEST_F(TlsTest, UnreadableCrlFailsTheTransferInsteadOfSkippingRevocation) {
  nyxtest::NyxRoot root;
  nyxtest::writeFile(root.file("etc/nyx-host/tls/ca.pem"), nyxtest::readFile(pem("ca")));
  nyxtest::writeFile(root.file("etc/nyx-host/tls/crl.pem"), "not a CRL\n");
  EXPECT_NE(fetch("revoked", "localhost"), CURLE_OK);
}

}  // namespace
