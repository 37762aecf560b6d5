#include "registration/NYXRegistrationError.h"

NYXRegistrationError::NYXRegistrationError(const NYXRegistrationErrorCode& errorCode,
                                           const std::string& description)
    : IOError(errorCode.name() + ": " + description),
      errorCode_(errorCode),
      description_(description) {}

NYXRegistrationError::NYXRegistrationError(const NYXRegistrationError& other) = default;

NYXRegistrationError::~NYXRegistrationError() = default;

void NYXRegistrationError::raise() const { throw NYXRegistrationError(*this); }

bool NYXRegistrationError::operator==(const NYXRegistrationError& other) const {
  return this == &other || (errorCode_ == other.errorCode_ && description_ == other.description_);
}

bool NYXRegistrationError::operator!=(const NYXRegistrationError& other) const {
  return !(*this == other);
}

const NYXRegistrationErrorCode& NYXRegistrationError::getErrorCode() const { return errorCode_; }

const std::string& NYXRegistrationError::getDescription() const { return description_; }
