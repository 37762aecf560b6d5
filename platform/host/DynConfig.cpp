// Dynamic configuration from $NYX_ROOT/etc/nyx-host/dynconfig.
#include "dynconfig.h"
#include "HostFiles.h"

int getDynamicConfigValue(const char* key, char** value) {
  if (key == nullptr || value == nullptr) {
    return 1;
  }
  const auto values = nyxhost::readKeyValues("dynconfig");
  const auto found = values.find(key);
  if (found == values.end()) {
    return 1;
  }
  char* copy = nyxhost::mallocCopy(found->second);
  if (copy == nullptr) {
    return 1;
  }
  *value = copy;
  return 0;
}
