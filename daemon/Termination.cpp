#include "daemon/Termination.h"

std::atomic<bool> terminationRequested{false};
