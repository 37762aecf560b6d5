// Prints, for each input line "<hex bytes> <base64 text>", the line
// "<crc32 of the bytes, 8 hex digits> <base64 of the bytes> <hex of the
// decoded base64 text>", so that crosscheck.py can hold the daemon's codec
// and checksum against Python's own. An empty field is written as "-".
#include <cstdio>
#include <iostream>
#include <sstream>
#include <string>

#include "messaging/Base64.h"
#include "messaging/MessageCrc.h"

namespace {

std::string field(const std::string& text) { return text == "-" ? "" : text; }

std::string fromHex(const std::string& hex) {
  std::string bytes;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) {
    bytes.push_back(static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
  }
  return bytes;
}

std::string toHex(const unsigned char* data, size_t length) {
  static const char digits[] = "0123456789abcdef";
  std::string hex;
  for (size_t i = 0; i < length; ++i) {
    hex.push_back(digits[data[i] >> 4]);
    hex.push_back(digits[data[i] & 15]);
  }
  return hex;
}

}  // namespace

int main() {
  std::string line;
  while (std::getline(std::cin, line)) {
    std::istringstream fields(line);
    std::string hex;
    std::string text;
    fields >> hex >> text;
    const std::string bytes = fromHex(field(hex));
    char crc[9];
    snprintf(crc, sizeof crc, "%08x", messageCrc32("", bytes));
    const std::string encoded =
        encodeBase64(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
    int length = 0;
    auto decoded = decodeBase64(field(text), length);
    const std::string decodedHex =
        length > 0 ? toHex(decoded.get(), static_cast<size_t>(length)) : std::string();
    std::cout << crc << " " << (encoded.empty() ? "-" : encoded) << " "
              << (decodedHex.empty() ? "-" : decodedHex) << "\n";
  }
  return 0;
}
