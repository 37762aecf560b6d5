#include "HostFiles.h"

#include <glib.h>

#include <cstdlib>
#include <cstring>
#include <memory>

#include "HostOwners.h"

namespace nyxhost {

std::string hostFilePath(const std::string& name) {
  const char* root = std::getenv("NYX_ROOT");
  std::string prefix = root != nullptr ? root : "";
  while (!prefix.empty() && prefix.back() == '/') {
    prefix.pop_back();
  }
  return prefix + "/etc/nyx-host/" + name;
}

std::optional<std::string> readHostFile(const std::string& name) {
  gchar* raw = nullptr;
  gsize length = 0;
  if (!g_file_get_contents(hostFilePath(name).c_str(), &raw, &length, nullptr)) {
    return std::nullopt;
  }
  GFreeString content(raw);
  return std::string(content.get(), length);
}

std::optional<std::string> readFirstLine(const std::string& name) {
  std::optional<std::string> content = readHostFile(name);
  if (!content) {
    return std::nullopt;
  }
  GFreeString line(g_strndup(content->c_str(), content->find('\n') == std::string::npos
                                                   ? content->size()
                                                   : content->find('\n')));
  g_strstrip(line.get());
  if (*line == '\0') {
    return std::nullopt;
  }
  return std::string(line.get());
}

std::map<std::string, std::string> readKeyValues(const std::string& name) {
  std::map<std::string, std::string> values;
  std::optional<std::string> content = readHostFile(name);
  if (!content) {
    return values;
  }
  StrvOwner lines(g_strsplit(content->c_str(), "\n", -1));
  for (gchar** line = lines.get(); *line != nullptr; ++line) {
    g_strstrip(*line);
    if (**line == '\0' || **line == '#') {
      continue;
    }
    StrvOwner parts(g_strsplit(*line, "=", 2));
    if (parts.get()[0] == nullptr || parts.get()[1] == nullptr) {
      continue;
    }
    values[g_strstrip(parts.get()[0])] = g_strstrip(parts.get()[1]);
  }
  return values;
}

char* mallocCopy(const std::string& text) {
  char* copy = static_cast<char*>(std::malloc(text.size() + 1));
  if (copy != nullptr) {
    std::memcpy(copy, text.c_str(), text.size() + 1);
  }
  return copy;
}

}  // namespace nyxhost
