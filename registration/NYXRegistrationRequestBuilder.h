// Builds the signed request that registers an application with the
// messaging server. The registrar fills one builder per registration and
// builds once, on the worker thread.
#ifndef NYX_REGISTRATION_NYX_REGISTRATION_REQUEST_BUILDER_H
#define NYX_REGISTRATION_NYX_REGISTRATION_REQUEST_BUILDER_H

#include <memory>
#include <string>

#include "http/RequestSigner.h"
#include "http/WebRequest.h"
#include "registration/AppDescription.h"
#include "registration/NYXRegistrationValues.h"

class NYXRegistrationRequestBuilder {
 public:
  // No platform, senders or app info; scope "Device".
  NYXRegistrationRequestBuilder();
  virtual ~NYXRegistrationRequestBuilder();
  NYXRegistrationRequestBuilder(const NYXRegistrationRequestBuilder&) = delete;
  NYXRegistrationRequestBuilder& operator=(const NYXRegistrationRequestBuilder&) = delete;

  void setPlatformName(const std::string& platformName);
  void setSenders(const SenderList& senders);
  void setAppInfo(const AppInfoMap& appInfo);
  void setAppInstanceInfo(const AppInfoMap& appInstanceInfo);
  void setScope(const NYXRegistrationScope& scope);

  // A POST to the URL configured under "url.devicemessaging.registration"
  // with the compact JSON body {"platform", "allowedSenders", "appInfo",
  // "appInstanceInfo" (left out when empty), "target"}, signed by signer as
  // the last step. Throws std::runtime_error "PlatformName must be
  // provided", "Senders must not be empty", "AppInfo must not be empty",
  // "Failed to get device messaging URL from dynconfig." or the signer's
  // error; none of them is an IOError.
  WebRequest build(const NYXRegistrationReason& reason, RequestSigner& signer) const;

 private:
  struct Record;
  std::unique_ptr<Record> record_;
};

#endif  // NYX_REGISTRATION_NYX_REGISTRATION_REQUEST_BUILDER_H
