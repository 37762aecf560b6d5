// The pattern of every closed set of values in the daemon: a small
// polymorphic value that carries its own wire and log text and compares by
// that text.
//
// A class of the pattern derives from NamedStringEnum<Itself>, declares its
// constants as static members named after their values and defines them in
// its source file. Values elsewhere are always copies of a constant; nothing
// turns a free string into a value. Constants exist from static
// initialisation on, so no static initialiser in another file may copy one.
#ifndef NYX_DAEMON_COMMON_NAMED_STRING_ENUM_H
#define NYX_DAEMON_COMMON_NAMED_STRING_ENUM_H

#include <string>

template <typename Derived>
class NamedStringEnum {
 public:
  NamedStringEnum(const NamedStringEnum& other) : name_(other.name_) {}

  virtual NamedStringEnum& operator=(const NamedStringEnum& other) {
    name_ = other.name_;
    return *this;
  }
  virtual ~NamedStringEnum() = default;

  // Byte-for-byte equality of the names: no case folding, no trimming.
  virtual bool operator==(const NamedStringEnum& other) const {
    return this == &other || name_ == other.name_;
  }
  // Negates the virtual operator==, so an override of equality changes both.
  virtual bool operator!=(const NamedStringEnum& other) const { return !(*this == other); }

  // The value's wire and log text.
  virtual const std::string& name() const { return name_; }

 protected:
  explicit NamedStringEnum(const std::string& name) : name_(name) {}

 private:
  std::string name_;
};

#endif  // NYX_DAEMON_COMMON_NAMED_STRING_ENUM_H
