// Builds the signed request that revokes one registration at the messaging
// server. The registrar fills one builder per unregistration and builds
// once, on the worker thread.
#ifndef NYX_REGISTRATION_NYX_UNREGISTRATION_REQUEST_BUILDER_H
#define NYX_REGISTRATION_NYX_UNREGISTRATION_REQUEST_BUILDER_H

#include <memory>
#include <string>

#include "http/RequestSigner.h"
#include "http/WebRequest.h"
#include "registration/NYXRegistrationValues.h"

class NYXUnregistrationRequestBuilder {
 public:
  NYXUnregistrationRequestBuilder();
  virtual ~NYXUnregistrationRequestBuilder();
  NYXUnregistrationRequestBuilder(const NYXUnregistrationRequestBuilder&) = delete;
  NYXUnregistrationRequestBuilder& operator=(const NYXUnregistrationRequestBuilder&) = delete;

  void setRegistrationId(const std::string& registrationId);

  // A POST to the URL configured under "url.devicemessaging.unregistration"
  // with the body {"registrationId":"<id>"}, signed by signer as the last
  // step. Throws std::runtime_error "RegistrationId must be provided",
  // "Failed to get device messaging URL from dynconfig." or the signer's
  // error.
  WebRequest build(const NYXRegistrationReason& reason, RequestSigner& signer) const;

 private:
  struct Record;
  std::unique_ptr<Record> record_;
};

#endif  // NYX_REGISTRATION_NYX_UNREGISTRATION_REQUEST_BUILDER_H
