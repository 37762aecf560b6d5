// Shared set-up of the messaging fuzz targets: a silent logger and a device
// root whose dynamic configuration names the fetch URL.
#ifndef NYX_TESTS_FUZZ_FUZZ_SUPPORT_H
#define NYX_TESTS_FUZZ_FUZZ_SUPPORT_H

namespace nyxfuzz {

constexpr char kFetchUrl[] = "https://messaging.fuzz/messages";

// Call once from LLVMFuzzerInitialize.
void setUpProcess();

}  // namespace nyxfuzz

#endif  // NYX_TESTS_FUZZ_FUZZ_SUPPORT_H
