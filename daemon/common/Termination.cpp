#include "daemon/common/Termination.h"

std::atomic<bool> terminationRequested{false};
