#include "http/RequestSigner.h"

RequestSigner::~RequestSigner() = default;
