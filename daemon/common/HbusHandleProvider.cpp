#include "daemon/common/HbusHandleProvider.h"

#include <map>
#include <stdexcept>

namespace {

using HandleTable = std::map<std::string, HbusHandleStruct*>;

// Never destroyed: a bus callback still running while the process exits would
// otherwise find the table, and the handle it uses, half torn down, and
// closing a handle waits for that callback. The daemon closes its handles
// itself at shutdown (closeAll), while everything they use still exists.
HandleTable& handleTable() {
  static HandleTable* table = new HandleTable;
  return *table;
}

}  // namespace

HbusHandleProvider::~HbusHandleProvider() = default;

HbusHandleStruct* HbusHandleProvider::getHandle(const std::string& serviceName) {
  HandleTable& table = handleTable();
  auto found = table.find(serviceName);
  if (found != table.end()) {
    return found->second;
  }
  int status;
  HbusHandleStruct* handle = HbusInitEx(serviceName.c_str(), &status);
  try {
    table.emplace(serviceName, handle);
  } catch (...) {
    if (handle != nullptr) {
      HbusClose(handle);
    }
    throw;
  }
  if (status != HBUS_STATUS_OK) {
    throw std::runtime_error("Hbus Initialization failure: " +
                             std::to_string(static_cast<unsigned int>(status)));
  }
  return handle;
}

void HbusHandleProvider::closeAll() {
  HandleTable& table = handleTable();
  // Closing a handle stops its listener thread once the callback in progress
  // has returned, and that callback may still look a handle up: the table is
  // emptied only after every handle is closed.
  for (auto& entry : table) {
    if (entry.second != nullptr) {
      HbusClose(entry.second);
    }
  }
  table.clear();
}
