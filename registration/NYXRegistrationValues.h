// The closed sets of values that describe a registration. Each value's name
// is the text that goes to the server, the application, the cache or the log.
#ifndef NYX_REGISTRATION_NYX_REGISTRATION_VALUES_H
#define NYX_REGISTRATION_NYX_REGISTRATION_VALUES_H

#include "daemon/common/NamedStringEnum.h"

// Why a registration or unregistration was asked for; sent to the server in
// the "x-zvo-reason" header. Both reasons are treated alike.
class NYXRegistrationReason : public NamedStringEnum<NYXRegistrationReason> {
 public:
  static const NYXRegistrationReason AppInitiated;
  static const NYXRegistrationReason Unroutable;

 private:
  using NamedStringEnum::NamedStringEnum;
};

// The outcome the application is told about.
class NYXRegistrationState : public NamedStringEnum<NYXRegistrationState> {
 public:
  static const NYXRegistrationState Registered;
  static const NYXRegistrationState Unregistered;

 private:
  using NamedStringEnum::NamedStringEnum;
};

// Why a registration failed; the application receives the name as "error".
class NYXRegistrationErrorCode : public NamedStringEnum<NYXRegistrationErrorCode> {
 public:
  // The device has no account identity for a scope that needs one.
  static const NYXRegistrationErrorCode AuthenticationFailed;
  // The server could not be reached or failed.
  static const NYXRegistrationErrorCode ServiceNotAvailable;
  // No senders, an empty sender, or a sender the server rejected.
  static const NYXRegistrationErrorCode InvalidSender;

 private:
  using NamedStringEnum::NamedStringEnum;
};

// Whom a registration belongs to: the device alone, or the device and its
// signed-in account (which then needs the account's identifier).
class NYXRegistrationScope : public NamedStringEnum<NYXRegistrationScope> {
 public:
  static const NYXRegistrationScope Device;
  static const NYXRegistrationScope DeviceCustomer;

 private:
  using NamedStringEnum::NamedStringEnum;
};

#endif  // NYX_REGISTRATION_NYX_REGISTRATION_VALUES_H
