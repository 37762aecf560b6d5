#include "registration/NYXRegistrationCache.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <new>
#include <stdexcept>

#include "daemon/common/COwners.h"

namespace {

const int kBusyTimeoutMilliseconds = 5000;
const char kReadVersion[] = "PRAGMA user_version;";
const char kBegin[] = "BEGIN TRANSACTION;";
const char kSetVersion[] = "PRAGMA user_version = 1;";
const char kCommit[] = "COMMIT TRANSACTION;";

// The column list ends with ", " and the constraint is appended with a blank
// of its own; the two blanks before UNIQUE are part of the stored schema
// text and are kept as they are.
const std::string kCreateTable =
    "CREATE TABLE registration_ids (registration_id TEXT NOT NULL, app_info TEXT NOT NULL, "
    "app_instance_info TEXT NOT NULL, senders TEXT NOT NULL, scope TEXT NOT NULL, "
    "directed_id TEXT NOT NULL, " +
    std::string(" UNIQUE (app_info, app_instance_info, scope, directed_id) ON CONFLICT REPLACE);");

const char kFindForUnregistration[] =
    "SELECT registration_id FROM registration_ids WHERE app_info = ? AND app_instance_info = ? "
    "AND scope = ? AND directed_id = ?;";
const char kFindForRegistration[] =
    "SELECT registration_id FROM registration_ids WHERE app_info = ? AND app_instance_info = ? "
    "AND senders = ? AND scope = ? AND directed_id = ?;";
const char kStore[] =
    "INSERT INTO registration_ids (registration_id, senders, app_info, app_instance_info, scope, "
    "directed_id) VALUES (?, ?, ?, ?, ?, ?);";
const char kRemove[] = "DELETE FROM registration_ids WHERE registration_id = ?;";

// Only an account-scoped registration is tied to the account.
std::string directedIdFor(const NYXRegistrationScope& scope, const std::string& accountId) {
  return scope == NYXRegistrationScope::DeviceCustomer ? accountId : std::string();
}

using Statement = std::shared_ptr<sqlite3_stmt>;

Statement prepare(sqlite3* db, const std::string& text) {
  sqlite3_stmt* raw = nullptr;
  int rc = sqlite3_prepare_v2(db, text.c_str(), static_cast<int>(text.size() + 1), &raw, nullptr);
  Statement statement(raw, CRelease<sqlite3_finalize>());
  if (rc != SQLITE_OK) {
    throw std::runtime_error("Failed to execute SQL statement: " + text + "\n" +
                             sqlite3_errmsg(db));
  }
  return statement;
}

// The value is handed over in a heap copy that SQLite frees with free(),
// also when the bind fails.
void bindText(sqlite3_stmt* statement, int index, const std::string& value) {
  char* copy = static_cast<char*>(std::malloc(value.size() + 1));
  if (copy == nullptr) {
    throw std::bad_alloc();
  }
  std::memcpy(copy, value.data(), value.size());
  copy[value.size()] = '\0';
  if (sqlite3_bind_text(statement, index, copy, static_cast<int>(value.size()), std::free) !=
      SQLITE_OK) {
    throw std::runtime_error(sqlite3_errmsg(sqlite3_db_handle(statement)));
  }
}

std::string columnText(sqlite3_stmt* statement, int column) {
  const unsigned char* text = sqlite3_column_text(statement, column);
  if (text == nullptr) {
    return std::string();
  }
  return std::string(reinterpret_cast<const char*>(text),
                     static_cast<size_t>(sqlite3_column_bytes(statement, column)));
}

}  // namespace

NYXRegistrationCache::NYXRegistrationCache(const std::string& path) {
  // The cache holds registration and customer identifiers: a new file is
  // its owner's alone, whatever the umask (SQLite gives its journal the
  // database's mode). An empty file is an empty database to SQLite.
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  if (fd >= 0) {
    close(fd);
  }
  sqlite3* raw = nullptr;
  int rc = sqlite3_open(path.c_str(), &raw);
  // SQLite hands back a connection even when opening fails; it carries the
  // error text and must be closed all the same.
  db_.reset(raw, CRelease<sqlite3_close>());
  if (rc != SQLITE_OK) {
    throw std::runtime_error("Failed to open " + path + ": " +
                             (raw != nullptr ? sqlite3_errmsg(raw) : "out of memory"));
  }
  // Two connections share the file: a bus callback opens the cache for the
  // next task while the running task may be writing it. Without a wait,
  // SQLite answers "database is locked" at once: the open would fail and
  // end the daemon, and a write, whose failure the operations ignore, would
  // be lost. A write holds the lock for milliseconds; five seconds is ample
  // even on slow flash and still well inside the bus's call time-out.
  sqlite3_busy_timeout(db_.get(), kBusyTimeoutMilliseconds);

  // SQLite opens any file lazily and finds out that it is not a database
  // only when the first statement reads it, at this prepare or at its step.
  // The operations below ignore step failures, but here one would make a
  // foreign file look like a database of an unknown version and every later
  // statement fail with a misleading text, so the step is checked.
  Statement readVersion = prepare(db_.get(), kReadVersion);
  rc = sqlite3_step(readVersion.get());
  if (rc != SQLITE_ROW) {
    throw std::runtime_error("Failed to read the schema version of " + path + ": " +
                             sqlite3_errmsg(db_.get()));
  }
  std::string version = columnText(readVersion.get(), 0);
  readVersion.reset();

  if (version == "0") {
    run(kBegin, {});
    run(kCreateTable, {});
    run(kSetVersion, {});
    run(kCommit, {});
  }
}

NYXRegistrationCache::~NYXRegistrationCache() = default;

std::string NYXRegistrationCache::findForUnregistration(const AppInfoMap& appInfo,
                                                        const AppInfoMap& appInstanceInfo,
                                                        const NYXRegistrationScope& scope,
                                                        const std::string& accountId) {
  return firstRegistrationId(
      run(kFindForUnregistration, {renderAppInfo(appInfo), renderAppInfo(appInstanceInfo),
                                   scope.name(), directedIdFor(scope, accountId)}));
}

std::string NYXRegistrationCache::findForRegistration(const SenderList& senders,
                                                      const AppInfoMap& appInfo,
                                                      const AppInfoMap& appInstanceInfo,
                                                      const NYXRegistrationScope& scope,
                                                      const std::string& accountId) {
  return firstRegistrationId(run(
      kFindForRegistration, {renderAppInfo(appInfo), renderAppInfo(appInstanceInfo),
                             joinSenders(senders), scope.name(), directedIdFor(scope, accountId)}));
}

void NYXRegistrationCache::store(const std::string& registrationId, const SenderList& senders,
                                 const AppInfoMap& appInfo, const AppInfoMap& appInstanceInfo,
                                 const NYXRegistrationScope& scope, const std::string& accountId) {
  run(kStore, {registrationId, joinSenders(senders), renderAppInfo(appInfo),
               renderAppInfo(appInstanceInfo), scope.name(), directedIdFor(scope, accountId)});
}

void NYXRegistrationCache::remove(const std::string& registrationId) {
  run(kRemove, {registrationId});
}

std::vector<NYXRegistrationCache::Row> NYXRegistrationCache::run(
    const std::string& statementText, const std::vector<std::string>& parameters) {
  Statement statement = prepare(db_.get(), statementText);
  for (size_t i = 0; i < parameters.size(); ++i) {
    bindText(statement.get(), static_cast<int>(i + 1), parameters[i]);
  }

  std::vector<Row> rows;
  // Any result other than a row ends the statement, errors included: a
  // failed look-up reads as "not cached", a failed write is lost.
  while (sqlite3_step(statement.get()) == SQLITE_ROW) {
    Row row;
    int columns = sqlite3_column_count(statement.get());
    for (int column = 0; column < columns; ++column) {
      const char* name = sqlite3_column_name(statement.get(), column);
      // emplace keeps the first column of a repeated name.
      row.emplace(name != nullptr ? name : "(null)", columnText(statement.get(), column));
    }
    rows.push_back(std::move(row));
  }
  return rows;
}

std::string NYXRegistrationCache::firstRegistrationId(const std::vector<Row>& rows) const {
  if (rows.empty()) {
    return std::string();
  }
  auto found = rows.front().find("registration_id");
  return found != rows.front().end() ? found->second : std::string();
}
