#include "daemon/common/IPCMessageSender.h"

#include "daemon/common/HbusHandleProvider.h"
#include "hbus.h"

IPCMessageSender::~IPCMessageSender() = default;

int IPCMessageSender::send(const std::string& service, const std::string& property,
                           const std::string& value) {
  HbusHandleStruct* handle = HbusHandleProvider::getHandle(kCobaltDeviceMessaging);
  return HbusSetStringProperty(handle, service.c_str(), property.c_str(), value.c_str());
}

bool isUnroutable(int status) {
  return status == HBUS_STATUS_NO_SUCH_SERVICE || status == HBUS_STATUS_NO_SUCH_PROPERTY;
}
