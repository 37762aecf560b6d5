#include "daemon/Task.h"

#include "daemon_monitor.h"

Task::Task() { incrementProcessActivity(); }

Task::~Task() { decrementProcessActivity(); }
