#include "http/RequestMethod.h"

const RequestMethod RequestMethod::GET("GET");
const RequestMethod RequestMethod::POST("POST");
