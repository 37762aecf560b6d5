#include "http/HttpErrors.h"

namespace {

// "Status Code: N\n", one "Name: value\n" line per header in header-map
// order, then the body exactly as received.
std::string describe(const WebResponse& response) {
  std::string message = "Status Code: " + std::to_string(response.getStatusCode()) + "\n";
  for (const auto& header : response.getHeaders()) {
    message += header.first + ": " + header.second + "\n";
  }
  return message + response.getBody();
}

}  // namespace

IOError::IOError(const std::string& message) : std::runtime_error(message) {}

IOError::~IOError() = default;

void IOError::raise() const { throw IOError(*this); }

ClientError::ClientError(const WebResponse& response)
    : std::runtime_error(describe(response)), response_(response) {}

ClientError::~ClientError() = default;

const WebResponse& ClientError::getResponse() const { return response_; }

void ClientError::raise() const { throw ClientError(*this); }

ServerError::ServerError(const WebResponse& response)
    : IOError(describe(response)), response_(response) {}

ServerError::~ServerError() = default;

void ServerError::raise() const { throw ServerError(*this); }

const WebResponse& ServerError::getResponse() const { return response_; }
