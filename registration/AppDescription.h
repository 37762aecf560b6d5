// How the registration subsystem describes an application: its senders and
// its two ordered string maps, and the one text form of each that the logs,
// the cache columns and the cache look-ups share.
//
// Used on the worker thread by the registrar and the cache.
#ifndef NYX_REGISTRATION_APP_DESCRIPTION_H
#define NYX_REGISTRATION_APP_DESCRIPTION_H

#include <map>
#include <string>
#include <vector>

// appInfo identifies the application ("service.name" -> its bus service);
// appInstanceInfo identifies the running instance and may be empty. Both are
// ordered by key, so one application always renders to the same text.
using AppInfoMap = std::map<std::string, std::string>;

// The senders an application accepts messages from, in the order given.
using SenderList = std::vector<std::string>;

// "key=>value" per entry in key order, joined by ", "; "" for an empty map.
std::string renderAppInfo(const AppInfoMap& info);

// The senders in list order joined by ", ".
std::string joinSenders(const SenderList& senders);

#endif  // NYX_REGISTRATION_APP_DESCRIPTION_H
