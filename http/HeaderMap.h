// HTTP headers: names compare without regard to letter case, as HTTP says.
//
// Storing a name that exists under another casing overwrites the value and
// keeps the first-stored spelling; iteration is in case-insensitive
// alphabetical order of the names, which is also the order headers go on the
// wire and into error messages.
#ifndef NYX_HTTP_HEADER_MAP_H
#define NYX_HTTP_HEADER_MAP_H

#include <strings.h>

#include <map>
#include <string>

struct CaseInsensitiveLess {
  bool operator()(const std::string& a, const std::string& b) const {
    return strcasecmp(a.c_str(), b.c_str()) < 0;
  }
};

using HeaderMap = std::map<std::string, std::string, CaseInsensitiveLess>;

#endif  // NYX_HTTP_HEADER_MAP_H
