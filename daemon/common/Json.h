// The one way the daemon includes RapidJSON.
//
// Server answers and message envelopes are untrusted. RapidJSON's assertions
// (a wrong-typed read, a missing member) are turned into a JsonError
// exception, so a hostile document is an error the caller sees, never
// undefined behaviour. Code should still check a member's type before reading
// it; the exception is the safety net.
#ifndef NYX_DAEMON_COMMON_JSON_H
#define NYX_DAEMON_COMMON_JSON_H

#include <stdexcept>
#include <string>

class JsonError : public std::runtime_error {
 public:
  explicit JsonError(const std::string& what) : std::runtime_error(what) {}
};

#ifdef RAPIDJSON_ASSERT
#error "Include RapidJSON only through daemon/common/Json.h"
#endif
#define RAPIDJSON_HAS_STDSTRING 1
#define RAPIDJSON_ASSERT(condition)   \
  ((condition) ? static_cast<void>(0) \
               : throw JsonError(std::string("Invalid JSON access: ") + #condition))

#include <rapidjson/document.h>
#include <rapidjson/error/en.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

// Parses an untrusted text into document. Iteratively: the depth of nesting
// costs heap, never the worker thread's stack, so a document nested a
// hundred thousand levels deep is read (or rejected) like any other. The
// result is checked by the caller (HasParseError, then the types).
template <typename Document>
void parseUntrusted(Document& document, const std::string& text) {
  document.template Parse<rapidjson::kParseIterativeFlag>(text.data(), text.size());
}

using JsonWriter = rapidjson::Writer<rapidjson::StringBuffer>;

// The member's value, or nullptr when it is absent or JSON null: servers
// write null for an optional member they leave out, and both read alike.
// object must be an object.
inline const rapidjson::Value* jsonMember(const rapidjson::Value& object, const char* name) {
  auto found = object.FindMember(name);
  if (found == object.MemberEnd() || found->value.IsNull()) {
    return nullptr;
  }
  return &found->value;
}

// A string value's text, with any NUL bytes it holds. value must be a string.
inline std::string jsonString(const rapidjson::Value& value) {
  return std::string(value.GetString(), value.GetStringLength());
}

// Writes text as a string value, with any NUL bytes it holds.
inline void writeJsonString(JsonWriter& writer, const std::string& text) {
  writer.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
}

// Writes the member name with the string value text.
inline void writeJsonMember(JsonWriter& writer, const std::string& name, const std::string& text) {
  writer.Key(name.data(), static_cast<rapidjson::SizeType>(name.size()));
  writeJsonString(writer, text);
}

// The text written into buffer.
inline std::string jsonText(const rapidjson::StringBuffer& buffer) {
  return std::string(buffer.GetString(), buffer.GetSize());
}

#endif  // NYX_DAEMON_COMMON_JSON_H
