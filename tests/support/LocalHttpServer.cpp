#include "tests/support/LocalHttpServer.h"

#include <strings.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "daemon/common/Json.h"

namespace nyxtest {

namespace {

const char kBase64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

std::string encodeBase64(const std::string& bytes) {
  std::string text;
  for (size_t i = 0; i < bytes.size(); i += 3) {
    const size_t left = bytes.size() - i;
    unsigned n = 0;
    for (size_t j = 0; j < 3; ++j) {
      n = n << 8 | (j < left ? static_cast<unsigned char>(bytes[i + j]) : 0u);
    }
    for (size_t j = 0; j < 4; ++j) {
      text += j <= left ? kBase64[(n >> (18 - 6 * j)) & 63] : '=';
    }
  }
  return text;
}

std::string decodeBase64(const std::string& text) {
  std::string bytes;
  unsigned n = 0;
  int bits = 0;
  for (char c : text) {
    const char* found = c == '\0' ? nullptr : strchr(kBase64, c);
    if (found != nullptr) {  // else padding
      n = n << 6 | static_cast<unsigned>(found - kBase64);
      if ((bits += 6) >= 8) {
        bits -= 8;
        bytes += static_cast<char>((n >> bits) & 0xff);
      }
    }
  }
  return bytes;
}

std::string scriptJson(const std::vector<HttpAnswer>& script) {
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  writer.StartArray();
  for (const auto& answer : script) {
    writer.StartObject();
    writer.Key("status");
    writer.Uint(answer.status);
    writer.Key("headers");
    writer.StartArray();
    for (const auto& line : answer.headerLines) {
      writer.String(line);
    }
    writer.EndArray();
    writer.Key("body_base64");
    writer.String(encodeBase64(answer.body));
    if (!answer.path.empty()) {
      writer.Key("path");
      writer.String(answer.path);
    }
    writer.Key("delay");
    writer.Double(answer.delaySeconds);
    writer.Key("close_mid_body");
    writer.Bool(answer.closeMidBody);
    writer.Key("repeat");
    writer.Bool(answer.repeat);
    writer.Key("hold");
    writer.Bool(answer.hold);
    writer.EndObject();
  }
  writer.EndArray();
  return buffer.GetString();
}

template <typename Headers>
auto findHeader(const Headers& headers, const std::string& name) {
  return std::find_if(headers.begin(), headers.end(), [&](const auto& entry) {
    return strcasecmp(entry.first.c_str(), name.c_str()) == 0;
  });
}

}  // namespace

std::string RecordedRequest::header(const std::string& name) const {
  auto found = findHeader(headers, name);
  return found == headers.end() ? "" : found->second;
}

bool RecordedRequest::hasHeader(const std::string& name) const {
  return findHeader(headers, name) != headers.end();
}

LocalHttpServer::LocalHttpServer(const std::vector<HttpAnswer>& script)
    : LocalHttpServer(script, Options()) {}

LocalHttpServer::LocalHttpServer(const std::vector<HttpAnswer>& script, const Options& options) {
  writeFile(dir_.path() + "/script.json", scriptJson(script));
  const std::string& d = dir_.path();
  ChildProcess::Options child{{"python3", "-u", sourceDir() + "/tests/support/http_test_server.py",
                               "--record", d + "/record.json", "--script", d + "/script.json"},
                              false,
                              true};
  if (!options.certificateFile.empty() && !options.keyFile.empty()) {
    child.argv.insert(child.argv.end(), {"--tls", options.certificateFile, options.keyFile});
    scheme_ = "https";
  }
  if (!options.signingSecret.empty()) {
    child.argv.insert(child.argv.end(), {"--signing-secret", options.signingSecret});
  }
  if (options.proxy) {
    child.argv.push_back("--proxy");
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

void LocalHttpServer::setScript(const std::vector<HttpAnswer>& script) {
  process_->writeInput(scriptJson(script) + "\n");
  if (!process_->waitForLine("script loaded " + std::to_string(++loads_), milliseconds(10000))) {
    throw std::runtime_error("the local HTTP server did not load the script: " +
                             process_->output());
  }
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
    if (entry.HasMember("signature")) {
      request.signature = entry["signature"].GetString();
    }
    for (const auto& pair : entry["headers"].GetArray()) {
      request.headers.emplace_back(pair[0].GetString(), pair[1].GetString());
    }
    requests.push_back(request);
  }
  return requests;
}

}  // namespace nyxtest
