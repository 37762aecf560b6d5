// The device transport on the host platform: the proxy of the active
// interface and the trust anchors of the TLS-context callback, against local
// servers and a local proxy.
#include <curl/curl.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "http/HttpErrors.h"
#include "http/TesselCurlHttpClient.h"
#include "tests/support/LocalHttpServer.h"

namespace {

using nyxtest::HttpAnswer;
using nyxtest::LocalHttpServer;
using nyxtest::milliseconds;

// A 200 with this body for every request.
HttpAnswer always(const std::string& body) {
  HttpAnswer answer(200, {}, body);
  answer.repeat = true;
  return answer;
}

void run(const std::vector<std::string>& argv) {
  nyxtest::ChildProcess::Options options;
  options.argv = argv;
  nyxtest::ChildProcess process(options);
  ASSERT_EQ(process.waitForExit(milliseconds(60000)), 0) << process.output();
}

// A CA and a server certificate for 127.0.0.1 that it signed, made once for
// the suite with the openssl command.
class TestCertificates {
 public:
  TestCertificates() {
    const std::string d = dir_.path();
    const std::vector<std::string> ecKey = {"-newkey", "ec", "-pkeyopt",
                                            "ec_paramgen_curve:prime256v1", "-nodes"};
    std::vector<std::string> ca = {"openssl",     "req",   "-x509",           "-days",
                                   "2",           "-subj", "/CN=Nyx Test CA", "-keyout",
                                   d + "/ca.key", "-out",  caFile()};
    ca.insert(ca.end(), ecKey.begin(), ecKey.end());
    run(ca);
    std::vector<std::string> request = {"openssl", "req",           "-new",
                                        "-subj",   "/CN=127.0.0.1", "-keyout",
                                        keyFile(), "-out",          d + "/server.csr"};
    request.insert(request.end(), ecKey.begin(), ecKey.end());
    run(request);
    nyxtest::writeFile(d + "/server.ext",
                       "subjectAltName=IP:127.0.0.1\nbasicConstraints=CA:FALSE\n");
    run({"openssl", "x509", "-req", "-days", "2", "-in", d + "/server.csr", "-CA", caFile(),
         "-CAkey", d + "/ca.key", "-CAcreateserial", "-extfile", d + "/server.ext", "-out",
         certificateFile()});
  }
  std::string caFile() const { return dir_.path() + "/ca.pem"; }
  std::string certificateFile() const { return dir_.path() + "/server.pem"; }
  std::string keyFile() const { return dir_.path() + "/server.key"; }

 private:
  nyxtest::TempDir dir_;
};

class TesselCurlHttpClientTest : public testing::Test {
 protected:
  static void SetUpTestSuite() { certificates_ = new TestCertificates; }
  static void TearDownTestSuite() {
    delete certificates_;
    certificates_ = nullptr;
  }

  LocalHttpServer::Options https() const {
    LocalHttpServer::Options options;
    options.certificateFile = certificates_->certificateFile();
    options.keyFile = certificates_->keyFile();
    return options;
  }
  void trustTestCa() const {
    root_.writePlatformFile("tls/ca.pem", nyxtest::readFile(certificates_->caFile()));
  }

  static TestCertificates* certificates_;
  // Proxies from the environment would hide whether the client chose one.
  nyxtest::ScopedEnv noHttpProxy_{"http_proxy", std::nullopt};
  nyxtest::ScopedEnv noHttpsProxy_{"https_proxy", std::nullopt};
  nyxtest::ScopedEnv noHttpsProxyUpper_{"HTTPS_PROXY", std::nullopt};
  nyxtest::ScopedEnv noAllProxy_{"all_proxy", std::nullopt};
  nyxtest::ScopedEnv noAllProxyUpper_{"ALL_PROXY", std::nullopt};
  nyxtest::ScopedEnv noNoProxy_{"no_proxy", std::nullopt};
  nyxtest::ScopedEnv noNoProxyUpper_{"NO_PROXY", std::nullopt};
  nyxtest::NyxRoot root_;
};

TestCertificates* TesselCurlHttpClientTest::certificates_ = nullptr;

TEST_F(TesselCurlHttpClientTest, TrustsServersThroughTheDeviceTrustAnchors) {
  LocalHttpServer server({always("secure")}, https());
  struct Case {
    const char* name;
    bool caInstalled;
    bool deviceClient;
    bool succeeds;
  };
  const Case cases[] = {
      {"device client without the CA", false, true, false},
      {"device client with the CA", true, true, true},
      {"plain client ignores the device CA", true, false, false},
  };
  for (const auto& c : cases) {
    if (c.caInstalled) {
      trustTestCa();
    }
    std::unique_ptr<CurlHttpClient> client(c.deviceClient ? new TesselCurlHttpClient
                                                          : new CurlHttpClient);
    WebRequest request;
    request.setUrl(server.url("/secure"));
    try {
      WebResponse response = client->perform(request);
      EXPECT_TRUE(c.succeeds) << c.name;
      EXPECT_EQ(response.getBody(), "secure") << c.name;
    } catch (const IOError& error) {
      EXPECT_FALSE(c.succeeds) << c.name << ": " << error.what();
      const std::string prefix = std::string(curl_easy_strerror(CURLE_PEER_FAILED_VERIFICATION));
      EXPECT_EQ(std::string(error.what()).substr(0, prefix.size()), prefix) << c.name;
    }
  }
}

TEST_F(TesselCurlHttpClientTest, UsesTheProxyOnlyForTheProxiedInterfaceWithHostAndPort) {
  LocalHttpServer origin({always("hello")});
  LocalHttpServer secureOrigin({always("hello")}, https());
  LocalHttpServer::Options proxyOptions;
  proxyOptions.proxy = true;
  LocalHttpServer proxy({}, proxyOptions);
  trustTestCa();
  const std::string proxyLine = "proxy=127.0.0.1:" + std::to_string(proxy.port()) + "\n";

  struct Case {
    const char* name;
    std::optional<std::string> network;
    bool secure;
    // What the proxy sees: "" for a direct request.
    std::string proxyTarget;
  };
  const std::string plainUrl = origin.url("/poll?x=1");
  const std::string secureAuthority = "127.0.0.1:" + std::to_string(secureOrigin.port());
  const Case cases[] = {
      {"proxied interface, HTTP", "interface=2\n" + proxyLine, false, plainUrl},
      {"proxied interface, HTTPS", "interface=2\n" + proxyLine, true, secureAuthority},
      {"direct interface", "interface=1\n" + proxyLine, false, ""},
      {"proxy without a port", "interface=2\nproxy=127.0.0.1\n", false, ""},
      {"proxied interface without a proxy", "interface=2\n", false, ""},
      {"no network file", std::nullopt, false, ""},
  };
  // One client for every case: the proxy is looked up anew for each attempt.
  TesselCurlHttpClient client;
  for (const auto& c : cases) {
    if (c.network) {
      root_.writePlatformFile("network", *c.network);
    } else {
      std::remove(root_.file("etc/nyx-host/network").c_str());
    }
    const size_t proxied = proxy.requests().size();
    LocalHttpServer& target = c.secure ? secureOrigin : origin;
    const size_t received = target.requests().size();
    WebRequest request;
    request.setUrl(target.url("/poll?x=1"));
    EXPECT_EQ(client.perform(request).getBody(), "hello") << c.name;

    ASSERT_EQ(target.requests().size(), received + 1) << c.name;
    EXPECT_EQ(target.requests().back().target, "/poll?x=1") << c.name;
    const auto seenByProxy = proxy.requests();
    if (c.proxyTarget.empty()) {
      EXPECT_EQ(seenByProxy.size(), proxied) << c.name;
    } else {
      ASSERT_EQ(seenByProxy.size(), proxied + 1) << c.name;
      EXPECT_EQ(seenByProxy.back().method, c.secure ? "CONNECT" : "GET") << c.name;
      EXPECT_EQ(seenByProxy.back().target, c.proxyTarget) << c.name;
    }
  }
}

}  // namespace
