#include "daemon/common/RootedPath.h"

#include <cstdlib>

std::string rootedPath(const std::string& devicePath) {
  const char* root = std::getenv("NYX_ROOT");
  if (root == nullptr) {
    return devicePath;
  }
  std::string prefix(root);
  while (!prefix.empty() && prefix.back() == '/') {
    prefix.pop_back();
  }
  return prefix + devicePath;
}
