#include "messaging/WispDispatchStatus.h"

const WispDispatchStatus WispDispatchStatus::Dispatched(1, false);
const WispDispatchStatus WispDispatchStatus::Unhandled(103, false);
const WispDispatchStatus WispDispatchStatus::Unresponsive(200, true);

WispDispatchStatus::WispDispatchStatus(int32_t code, bool retry) : code_(code), retry_(retry) {}

WispDispatchStatus::WispDispatchStatus(const WispDispatchStatus& other)
    : code_(other.code_), retry_(other.retry_) {}

WispDispatchStatus& WispDispatchStatus::operator=(const WispDispatchStatus& other) {
  code_ = other.code_;
  retry_ = other.retry_;
  return *this;
}

WispDispatchStatus::~WispDispatchStatus() = default;

bool WispDispatchStatus::operator==(const WispDispatchStatus& other) const {
  return this == &other || (code_ == other.code_ && retry_ == other.retry_);
}

bool WispDispatchStatus::operator!=(const WispDispatchStatus& other) const {
  return !(*this == other);
}

int32_t WispDispatchStatus::code() const { return code_; }
bool WispDispatchStatus::retry() const { return retry_; }
