// How a server message's payload is read: Raw payloads go as they are to the
// bus service named by the topic; NYX payloads are the JSON envelope of an
// application message. Values are only compared, never printed.
#ifndef NYX_MESSAGING_WISP_PAYLOAD_TYPE_H
#define NYX_MESSAGING_WISP_PAYLOAD_TYPE_H

#include "daemon/common/NamedStringEnum.h"

class WispPayloadType : public NamedStringEnum<WispPayloadType> {
 public:
  static const WispPayloadType Raw;
  static const WispPayloadType NYX;

 private:
  using NamedStringEnum::name;
  using NamedStringEnum::NamedStringEnum;
};

#endif  // NYX_MESSAGING_WISP_PAYLOAD_TYPE_H
