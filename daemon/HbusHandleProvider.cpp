#include "daemon/HbusHandleProvider.h"

#include <map>
#include <memory>
#include <stdexcept>

namespace {

void closeHandle(HbusHandleStruct* handle) {
  if (handle != nullptr) {
    HbusClose(handle);
  }
}

using HandleTable = std::map<std::string, std::shared_ptr<HbusHandleStruct>>;

// Destroyed at process exit, which closes every handle.
HandleTable handleTable;

}  // namespace

HbusHandleProvider::~HbusHandleProvider() = default;

HbusHandleStruct* HbusHandleProvider::getHandle(const std::string& serviceName) {
  auto found = handleTable.find(serviceName);
  if (found != handleTable.end()) {
    return found->second.get();
  }
  std::shared_ptr<HbusHandleStruct>& entry = handleTable[serviceName];
  int status;
  HbusHandleStruct* handle = HbusInitEx(serviceName.c_str(), &status);
  try {
    entry = std::shared_ptr<HbusHandleStruct>(handle, closeHandle);
  } catch (...) {
    closeHandle(handle);
    throw;
  }
  if (status != 0) {
    throw std::runtime_error("Hbus Initialization failure: " +
                             std::to_string(static_cast<unsigned int>(status)));
  }
  return handle;
}
