// nyxd: the device's push-messaging daemon. It takes no arguments.
#include "daemon/Daemon.h"

int main() { return runDaemon(); }
