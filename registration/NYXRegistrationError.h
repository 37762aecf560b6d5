// The one failure of registering or unregistering an application: a
// registration error code and a free-text description, which the request
// handler hands to the application as "error" and "error_description".
//
// Thrown by the registrar on the worker thread; caught only by
// NYXRegistrationRequestHandler.
#ifndef NYX_REGISTRATION_NYX_REGISTRATION_ERROR_H
#define NYX_REGISTRATION_NYX_REGISTRATION_ERROR_H

#include <string>

#include "http/HttpErrors.h"
#include "registration/NYXRegistrationValues.h"

class NYXRegistrationError : public IOError {
 public:
  // what() is "<code name>: <description>", composed here once.
  NYXRegistrationError(const NYXRegistrationErrorCode& errorCode, const std::string& description);
  NYXRegistrationError(const NYXRegistrationError& other);
  ~NYXRegistrationError() override;

  // Throws a copy with its full type, also when held as an IOError.
  [[noreturn]] void raise() const override;

  // Equal when the codes are equal and the descriptions match byte for byte.
  virtual bool operator==(const NYXRegistrationError& other) const;
  virtual bool operator!=(const NYXRegistrationError& other) const;

  virtual const NYXRegistrationErrorCode& getErrorCode() const;
  virtual const std::string& getDescription() const;

 private:
  NYXRegistrationErrorCode errorCode_;
  std::string description_;
};

#endif  // NYX_REGISTRATION_NYX_REGISTRATION_ERROR_H
