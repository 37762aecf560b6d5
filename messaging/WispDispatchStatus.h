// What became of one dispatched message: the code reported to the server and
// whether the poll cycle should deliver it again.
//
// Made by the dispatcher, read by the poll cycle and the purger, on the
// worker thread. Values are always copies of the three constants.
#ifndef NYX_MESSAGING_WISP_DISPATCH_STATUS_H
#define NYX_MESSAGING_WISP_DISPATCH_STATUS_H

#include <cstdint>

class WispDispatchStatus {
 public:
  // The receiving service accepted the message: code 1, final.
  static const WispDispatchStatus Dispatched;
  // No such service or no such property; another try will not help: code
  // 103, final.
  static const WispDispatchStatus Unhandled;
  // The service exists but did not answer: code 200, try again.
  static const WispDispatchStatus Unresponsive;

  WispDispatchStatus(const WispDispatchStatus& other);

  virtual WispDispatchStatus& operator=(const WispDispatchStatus& other);
  virtual ~WispDispatchStatus();

  // Equal when both code and retry are equal.
  virtual bool operator==(const WispDispatchStatus& other) const;
  virtual bool operator!=(const WispDispatchStatus& other) const;

  virtual int32_t code() const;
  virtual bool retry() const;

 private:
  WispDispatchStatus(int32_t code, bool retry);

  int32_t code_;
  bool retry_;
};

#endif  // NYX_MESSAGING_WISP_DISPATCH_STATUS_H
