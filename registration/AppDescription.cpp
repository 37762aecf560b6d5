#include "registration/AppDescription.h"

#include <boost/algorithm/string/join.hpp>

std::string renderAppInfo(const AppInfoMap& info) {
  std::vector<std::string> entries;
  entries.reserve(info.size());
  for (const auto& entry : info) {
    entries.push_back(entry.first + "=>" + entry.second);
  }
  return boost::algorithm::join(entries, ", ");
}

std::string joinSenders(const SenderList& senders) { return boost::algorithm::join(senders, ", "); }
