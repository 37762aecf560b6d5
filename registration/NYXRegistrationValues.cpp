#include "registration/NYXRegistrationValues.h"

const NYXRegistrationReason NYXRegistrationReason::AppInitiated("AppInitiated");
const NYXRegistrationReason NYXRegistrationReason::Unroutable("Unroutable");

const NYXRegistrationState NYXRegistrationState::Registered("Registered");
const NYXRegistrationState NYXRegistrationState::Unregistered("Unregistered");

const NYXRegistrationErrorCode NYXRegistrationErrorCode::AuthenticationFailed(
    "AuthenticationFailed");
const NYXRegistrationErrorCode NYXRegistrationErrorCode::ServiceNotAvailable("ServiceNotAvailable");
const NYXRegistrationErrorCode NYXRegistrationErrorCode::InvalidSender("InvalidSender");

const NYXRegistrationScope NYXRegistrationScope::Device("Device");
const NYXRegistrationScope NYXRegistrationScope::DeviceCustomer("DeviceCustomer");
