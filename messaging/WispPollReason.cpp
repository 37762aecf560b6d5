#include "messaging/WispPollReason.h"

const WispPollReason WispPollReason::ManualSync("ManualSync");
const WispPollReason WispPollReason::NetworkStartup("NetworkStartup");
const WispPollReason WispPollReason::AntiEntropy("AntiEntropy");
const WispPollReason WispPollReason::NUDGE("NUDGE");
