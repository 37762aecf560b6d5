#include "tests/support/LocalHttpServer.h"

#include <glib.h>

#include <cstdlib>
#include <stdexcept>

#include "daemon/common/COwners.h"
#include "daemon/common/Json.h"

namespace nyxtest {

namespace {

std::string encodeBase64(const std::string& bytes) {
  const COwner<gchar, g_free> text(
      g_base64_encode(reinterpret_cast<const guchar*>(bytes.data()), bytes.size()));
  return text.get();
}

std::string decodeBase64(const char* text) {
  gsize length = 0;
  const COwner<guchar, g_free> bytes(g_base64_decode(text, &length));
  return std::string(reinterpret_cast<const char*>(bytes.get()), length);
}

}  // namespace

LocalHttpServer::LocalHttpServer(const std::vector<HttpAnswer>& script, const std::string& tls) {
  ChildProcess::Options child{{"python3", "-u", sourceDir() + "/tests/support/http_test_server.py",
                               "--record", dir_.path() + "/record.json"},
                              false,
                              true};
  for (const auto& answer : script) {
    child.argv.insert(child.argv.end(),
                      {"--answer", std::to_string(answer.status), answer.hold ? "hold" : "-",
                       std::to_string(answer.delaySeconds), encodeBase64(answer.body)});
    child.argv.insert(child.argv.end(), answer.headerLines.begin(), answer.headerLines.end());
  }
  if (!tls.empty()) {
    child.argv.insert(child.argv.end(), {"--tls", tls + ".pem", tls + ".key"});
    scheme_ = "https";
  }
  process_ = std::make_unique<ChildProcess>(child);
  // The server prints its port alone on its first line.
  waitUntil([this] { return !process_->lines().empty() || !process_->running(); },
            milliseconds(10000));
  const auto lines = process_->lines();
  if (lines.empty() || (port_ = atoi(lines.front().c_str())) <= 0) {
    throw std::runtime_error("the local HTTP server did not start: " + process_->output());
  }
}

std::string LocalHttpServer::url(const std::string& pathAndQuery) const {
  return scheme_ + "://127.0.0.1:" + std::to_string(port_) + pathAndQuery;
}

void LocalHttpServer::release() {
  process_->writeInput("release\n");
  if (!process_->waitForLine("released", milliseconds(10000))) {
    throw std::runtime_error("the local HTTP server did not release: " + process_->output());
  }
}

std::vector<RecordedRequest> LocalHttpServer::requests() const {
  rapidjson::Document record;
  record.Parse(readFile(dir_.path() + "/record.json"));
  std::vector<RecordedRequest> requests;
  // A malformed record throws JsonError (see daemon/common/Json.h).
  for (const auto& entry : record.GetArray()) {
    RecordedRequest request;
    request.method = entry["method"].GetString();
    request.target = entry["target"].GetString();
    request.body = decodeBase64(entry["body_base64"].GetString());
    for (const auto& pair : entry["headers"].GetArray()) {
      request.headers.emplace_back(pair[0].GetString(), pair[1].GetString());
    }
    requests.push_back(request);
  }
  return requests;
}

}  // namespace nyxtest
