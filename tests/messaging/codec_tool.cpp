// For each input line "<hex bytes> <base64 text>" prints "<CRC-32 of the
// bytes> <base64 of the bytes> <hex of the decoded text>", "-" standing for an
// empty field, so that crosscheck.py can hold the codec against Python's.
#include <cstdio>
#include <iostream>
#include <sstream>
#include <string>

#include "messaging/Base64.h"
#include "messaging/MessageCrc.h"

int main() {
  std::string line, hex, text;
  while (std::getline(std::cin, line)) {
    std::istringstream(line) >> hex >> text;
    std::string bytes;
    for (size_t i = 0; hex != "-" && i + 1 < hex.size(); i += 2) {
      bytes.push_back(static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    }
    const std::string encoded =
        encodeBase64(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
    int length = 0;
    const auto decoded = decodeBase64(text == "-" ? "" : text, length);
    std::printf("%08x %s ", static_cast<unsigned>(messageCrc32("", bytes)),
                encoded.empty() ? "-" : encoded.c_str());
    for (int i = 0; i < length; ++i) {
      std::printf("%02x", decoded[i]);
    }
    std::printf(length > 0 ? "\n" : "-\n");
  }
  return 0;
}
