// The checksum the messaging server puts in "crc" of every message: the
// standard reflected CRC-32 (zlib's and PNG's) of the topic bytes followed by
// the decoded payload bytes, as one running checksum.
#ifndef NYX_MESSAGING_MESSAGE_CRC_H
#define NYX_MESSAGING_MESSAGE_CRC_H

#include <cstdint>
#include <string>

uint32_t messageCrc32(const std::string& topic, const std::string& payload);

#endif  // NYX_MESSAGING_MESSAGE_CRC_H
