// The HTTP method of a WebRequest; its name is the method token on the wire
// and the method that request signing covers.
#ifndef NYX_HTTP_REQUEST_METHOD_H
#define NYX_HTTP_REQUEST_METHOD_H

#include "daemon/common/NamedStringEnum.h"

class RequestMethod : public NamedStringEnum<RequestMethod> {
 public:
  static const RequestMethod GET;
  static const RequestMethod POST;

 private:
  using NamedStringEnum::NamedStringEnum;
};

#endif  // NYX_HTTP_REQUEST_METHOD_H
