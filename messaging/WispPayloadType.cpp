#include "messaging/WispPayloadType.h"

const WispPayloadType WispPayloadType::Raw("Raw");
const WispPayloadType WispPayloadType::NYX("NYX");
