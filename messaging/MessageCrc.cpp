#include "messaging/MessageCrc.h"

#include <boost/crc.hpp>

uint32_t messageCrc32(const std::string& topic, const std::string& payload) {
  boost::crc_32_type crc;
  crc.process_bytes(topic.data(), topic.size());
  crc.process_bytes(payload.data(), payload.size());
  return crc.checksum();
}
