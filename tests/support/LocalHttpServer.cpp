#include "tests/support/LocalHttpServer.h"

#include <signal.h>
#include <strings.h>

#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "daemon/Json.h"

namespace nyxtest {

namespace {

const char kBase64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

std::string encodeBase64(const std::string& bytes) {
  std::string text;
  size_t i = 0;
  for (; i + 2 < bytes.size(); i += 3) {
    unsigned n = static_cast<unsigned char>(bytes[i]) << 16 |
                 static_cast<unsigned char>(bytes[i + 1]) << 8 |
                 static_cast<unsigned char>(bytes[i + 2]);
    text += {kBase64[n >> 18], kBase64[(n >> 12) & 63], kBase64[(n >> 6) & 63], kBase64[n & 63]};
  }
  if (i + 1 == bytes.size()) {
    unsigned n = static_cast<unsigned char>(bytes[i]) << 16;
    text += {kBase64[n >> 18], kBase64[(n >> 12) & 63], '=', '='};
  } else if (i + 2 == bytes.size()) {
    unsigned n =
        static_cast<unsigned char>(bytes[i]) << 16 | static_cast<unsigned char>(bytes[i + 1]) << 8;
    text += {kBase64[n >> 18], kBase64[(n >> 12) & 63], kBase64[(n >> 6) & 63], '='};
  }
  return text;
}

std::string decodeBase64(const std::string& text) {
  std::string bytes;
  unsigned n = 0;
  int bits = 0;
  for (char c : text) {
    const char* found = c == '\0' ? nullptr : strchr(kBase64, c);
    if (found == nullptr) {
      continue;  // padding
    }
    n = n << 6 | static_cast<unsigned>(found - kBase64);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      bytes += static_cast<char>((n >> bits) & 0xff);
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
    writer.EndObject();
  }
  writer.EndArray();
  return buffer.GetString();
}

std::string stringMember(const rapidjson::Value& object, const char* name) {
  auto member = object.FindMember(name);
  return member != object.MemberEnd() && member->value.IsString() ? member->value.GetString() : "";
}

}  // namespace

std::string RecordedRequest::header(const std::string& name) const {
  for (const auto& entry : headers) {
    if (strcasecmp(entry.first.c_str(), name.c_str()) == 0) {
      return entry.second;
    }
  }
  return "";
}

bool RecordedRequest::hasHeader(const std::string& name) const {
  for (const auto& entry : headers) {
    if (strcasecmp(entry.first.c_str(), name.c_str()) == 0) {
      return true;
    }
  }
  return false;
}

LocalHttpServer::LocalHttpServer(const std::vector<HttpAnswer>& script)
    : LocalHttpServer(script, Options()) {}

LocalHttpServer::LocalHttpServer(const std::vector<HttpAnswer>& script, const Options& options) {
  writeFile(dir_.path() + "/script.json", scriptJson(script));
  ChildProcess::Options child;
  child.argv = {"python3",
                "-u",
                sourceDir() + "/tests/support/http_test_server.py",
                "--record",
                dir_.path() + "/record.json",
                "--script",
                dir_.path() + "/script.json"};
  scheme_ = "http";
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
  child.inputPipe = true;
  process_ = std::make_unique<ChildProcess>(child);
  const bool listening = waitUntil(
      [this] {
        auto lines = process_->lines();
        return !lines.empty() || !process_->running();
      },
      milliseconds(10000));
  const auto lines = process_->lines();
  if (!listening || lines.empty() || (port_ = atoi(lines.front().c_str())) <= 0) {
    throw std::runtime_error("the local HTTP server did not start: " + process_->output());
  }
}

LocalHttpServer::~LocalHttpServer() {
  process_->signal(SIGTERM);
  process_->waitForExit(milliseconds(5000));
}

std::string LocalHttpServer::url(const std::string& pathAndQuery) const {
  return scheme_ + "://127.0.0.1:" + std::to_string(port_) + pathAndQuery;
}

void LocalHttpServer::setScript(const std::vector<HttpAnswer>& script) {
  process_->writeInput(scriptJson(script) + "\n");
  ++loads_;
  if (!process_->waitForLine("script loaded " + std::to_string(loads_), milliseconds(10000))) {
    throw std::runtime_error("the local HTTP server did not load the script: " +
                             process_->output());
  }
}

std::vector<RecordedRequest> LocalHttpServer::requests() const {
  rapidjson::Document record;
  record.Parse(readFile(dir_.path() + "/record.json"));
  if (record.HasParseError() || !record.IsArray()) {
    throw std::runtime_error("unreadable request record of the local HTTP server");
  }
  std::vector<RecordedRequest> requests;
  for (const auto& entry : record.GetArray()) {
    if (!entry.IsObject()) {
      continue;
    }
    RecordedRequest request;
    request.method = stringMember(entry, "method");
    request.target = stringMember(entry, "target");
    request.body = decodeBase64(stringMember(entry, "body_base64"));
    request.signature = stringMember(entry, "signature");
    auto headers = entry.FindMember("headers");
    if (headers != entry.MemberEnd() && headers->value.IsArray()) {
      for (const auto& pair : headers->value.GetArray()) {
        if (pair.IsArray() && pair.Size() == 2 && pair[0].IsString() && pair[1].IsString()) {
          request.headers.emplace_back(pair[0].GetString(), pair[1].GetString());
        }
      }
    }
    requests.push_back(request);
  }
  return requests;
}

}  // namespace nyxtest
