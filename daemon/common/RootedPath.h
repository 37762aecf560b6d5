// Fixed file-system paths of the daemon, taken under NYX_ROOT.
//
// On the device NYX_ROOT is unset and every path is used exactly as given; a
// development machine or a test points NYX_ROOT at a prepared directory tree.
#ifndef NYX_DAEMON_COMMON_ROOTED_PATH_H
#define NYX_DAEMON_COMMON_ROOTED_PATH_H

#include <string>

// devicePath is absolute ("/var/run/nyx.pid"). Returns it unchanged when
// NYX_ROOT is unset, empty or "/", and otherwise NYX_ROOT (without a trailing
// slash) followed by devicePath.
std::string rootedPath(const std::string& devicePath);

#endif  // NYX_DAEMON_COMMON_ROOTED_PATH_H
