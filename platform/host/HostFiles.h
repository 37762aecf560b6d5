// The device files of the host platform, all under $NYX_ROOT/etc/nyx-host.
//
// Every read goes to the file system again, so an edited file takes effect at
// the next call without a restart. Safe from any thread.
#ifndef NYX_PLATFORM_HOST_HOST_FILES_H
#define NYX_PLATFORM_HOST_HOST_FILES_H

#include <map>
#include <optional>
#include <string>

namespace nyxhost {

// $NYX_ROOT/etc/nyx-host/<name>; NYX_ROOT unset, empty or "/" means the
// device's own /etc/nyx-host.
std::string hostFilePath(const std::string& name);

// The whole file, or nullopt when it cannot be read.
std::optional<std::string> readHostFile(const std::string& name);

// The first line with surrounding white space removed, or nullopt when the
// file is missing or that line is empty.
std::optional<std::string> readFirstLine(const std::string& name);

// The key=value lines of a file: split at the first '=', key and value
// trimmed, empty lines, '#' comments and lines without '=' skipped, a later
// line for a key winning. Empty when the file is missing.
std::map<std::string, std::string> readKeyValues(const std::string& name);

// A malloc'ed copy, for results the caller releases with free.
char* mallocCopy(const std::string& text);

}  // namespace nyxhost

#endif  // NYX_PLATFORM_HOST_HOST_FILES_H
