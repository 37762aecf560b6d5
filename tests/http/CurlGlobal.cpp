// libcurl's global set-up, done once before any test starts a transfer, as
// the daemon does at start-up before its threads exist.
#include <curl/curl.h>
#include <gtest/gtest.h>

namespace {

class CurlGlobal : public testing::Environment {
 public:
  void SetUp() override { ASSERT_EQ(curl_global_init(CURL_GLOBAL_DEFAULT), CURLE_OK); }
  void TearDown() override { curl_global_cleanup(); }
};

testing::Environment* const curlGlobal = testing::AddGlobalTestEnvironment(new CurlGlobal);

}  // namespace
