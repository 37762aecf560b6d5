// Why a poll cycle runs; the name goes to the server in the "x-zvo-reason"
// header of every page request of the cycle and has no other effect.
#ifndef NYX_MESSAGING_WISP_POLL_REASON_H
#define NYX_MESSAGING_WISP_POLL_REASON_H

#include "daemon/common/NamedStringEnum.h"

class WispPollReason : public NamedStringEnum<WispPollReason> {
 public:
  static const WispPollReason ManualSync;
  static const WispPollReason NetworkStartup;
  static const WispPollReason AntiEntropy;
  static const WispPollReason NUDGE;

 private:
  using NamedStringEnum::NamedStringEnum;
};

#endif  // NYX_MESSAGING_WISP_POLL_REASON_H
