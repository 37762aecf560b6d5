// The registrations the server has granted, kept in a SQLite file so that a
// repeated registration costs no server call and an unregistration finds the
// identifier to revoke.
//
// Opened by NYXRegistrationRequestHandler for each task and used only by the
// registrar, on the worker thread. Each operation prepares, runs and
// finalises its own statement; nothing is cached between calls.
#ifndef NYX_REGISTRATION_NYX_REGISTRATION_CACHE_H
#define NYX_REGISTRATION_NYX_REGISTRATION_CACHE_H

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "registration/AppDescription.h"
#include "registration/NYXRegistrationValues.h"

struct sqlite3;

// Rows are keyed by (app_info, app_instance_info, scope, directed_id); the
// senders are left out of that key, so registering the same application
// instance again with other senders replaces its row. directed_id holds the
// account identifier only for the scope "DeviceCustomer" and is empty for
// every other scope, so a device-scoped registration survives an account
// change.
//
// Failures of opening, preparing and binding throw std::runtime_error. A
// failing step (locked database, full disk) is not reported: a look-up then
// finds nothing and a store or remove is lost. The cache is an optimisation;
// the server stays the authority on registrations.
class NYXRegistrationCache {
 public:
  // Opens or creates the file (its directory must exist) and, for a new
  // database (user_version 0), creates the table and sets user_version 1.
  // Any other version is used as it is. Throws "Failed to open <path>:
  // <SQLite's text>", and a runtime error naming SQLite's text (for example
  // "file is not a database") when the schema version cannot be read.
  explicit NYXRegistrationCache(const std::string& path);
  virtual ~NYXRegistrationCache();
  NYXRegistrationCache(const NYXRegistrationCache&) = delete;
  NYXRegistrationCache& operator=(const NYXRegistrationCache&) = delete;

  // The identifier stored for the application instance in that scope and
  // account, or "" when there is none.
  virtual std::string findForUnregistration(const AppInfoMap& appInfo,
                                            const AppInfoMap& appInstanceInfo,
                                            const NYXRegistrationScope& scope,
                                            const std::string& accountId);

  // Like findForUnregistration, but matches only when the senders are the
  // same texts in the same order.
  virtual std::string findForRegistration(const SenderList& senders, const AppInfoMap& appInfo,
                                          const AppInfoMap& appInstanceInfo,
                                          const NYXRegistrationScope& scope,
                                          const std::string& accountId);

  // Records a registration, replacing any row of the same application
  // instance, scope and account.
  virtual void store(const std::string& registrationId, const SenderList& senders,
                     const AppInfoMap& appInfo, const AppInfoMap& appInstanceInfo,
                     const NYXRegistrationScope& scope, const std::string& accountId);

  // Removes every row holding that identifier; none is not an error.
  virtual void remove(const std::string& registrationId);

 private:
  using Row = std::map<std::string, std::string>;

  // Prepares statement, binds parameters as text (from 1) and collects the
  // rows until the first step result that is not a row.
  std::vector<Row> run(const std::string& statement, const std::vector<std::string>& parameters);
  std::string firstRegistrationId(const std::vector<Row>& rows) const;

  std::shared_ptr<sqlite3> db_;
};

#endif  // NYX_REGISTRATION_NYX_REGISTRATION_CACHE_H
