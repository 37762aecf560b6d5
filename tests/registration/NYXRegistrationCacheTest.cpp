// The registration cache against real SQLite files, read back with the
// sqlite3 command-line shell so that the test does not trust the code under
// test to tell what is on disk.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include "registration/NYXRegistrationCache.h"
#include "tests/support/TestSupport.h"

namespace {

const char kCreateTable[] =
    "CREATE TABLE registration_ids (registration_id TEXT NOT NULL, app_info TEXT NOT NULL, "
    "app_instance_info TEXT NOT NULL, senders TEXT NOT NULL, scope TEXT NOT NULL, directed_id "
    "TEXT NOT NULL,  UNIQUE (app_info, app_instance_info, scope, directed_id) ON CONFLICT "
    "REPLACE);";

std::string shellQuote(const std::string& text) {
  std::string quoted = "'";
  for (char c : text) {
    quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  }
  return quoted + "'";
}

// Runs the sqlite3 shell on file and returns what it printed.
std::string sqliteShell(const std::string& file, const std::string& command) {
  std::string line = "sqlite3 " + shellQuote(file) + " " + shellQuote(command) + " 2>&1";
  std::unique_ptr<FILE, int (*)(FILE*)> shell(popen(line.c_str(), "r"), pclose);
  if (shell == nullptr) {
    throw std::runtime_error("Cannot run " + line);
  }
  std::string output;
  char buffer[4096];
  size_t n;
  while ((n = fread(buffer, 1, sizeof buffer, shell.get())) > 0) {
    output.append(buffer, n);
  }
  EXPECT_EQ(pclose(shell.release()), 0) << output;
  return output;
}

std::string messageOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "(nothing thrown)";
}

const AppInfoMap kApp = {{"service.name", "com.example.app"}};
const AppInfoMap kNoInstance;

class NYXRegistrationCacheTest : public ::testing::Test {
 protected:
  std::string file() const { return dir_.path() + "/cache.db"; }

  nyxtest::TempDir dir_;
};

TEST_F(NYXRegistrationCacheTest, NewFileGetsTheTableAndSchemaVersionOne) {
  { NYXRegistrationCache cache(file()); }

  EXPECT_EQ(sqliteShell(file(), "PRAGMA user_version;"), "1\n");
  EXPECT_EQ(sqliteShell(file(), ".schema"), std::string(kCreateTable) + "\n");
}

TEST_F(NYXRegistrationCacheTest, ReopenedFileKeepsItsRegistrations) {
  NYXRegistrationCache(file()).store("reg-1", {"s1"}, kApp, kNoInstance,
                                     NYXRegistrationScope::Device, "");
  NYXRegistrationCache reopened(file());

  EXPECT_EQ(reopened.findForUnregistration(kApp, kNoInstance, NYXRegistrationScope::Device, ""),
            "reg-1");
  EXPECT_EQ(sqliteShell(file(), "SELECT count(*) FROM registration_ids;"), "1\n");
}

TEST_F(NYXRegistrationCacheTest, StoresColumnsInTheirRenderedForm) {
  NYXRegistrationCache cache(file());
  AppInfoMap appInfo;
  appInfo["z.key"] = "last";
  appInfo["a.key"] = "first";
  cache.store("reg-1", {"s2", "s1"}, appInfo, {{"pid", "7"}, {"instance", "x"}},
              NYXRegistrationScope::DeviceCustomer, "amzn1.account");

  EXPECT_EQ(sqliteShell(file(), "SELECT * FROM registration_ids;"),
            "reg-1|a.key=>first, z.key=>last|instance=>x, pid=>7|s2, s1|DeviceCustomer|"
            "amzn1.account\n");
}

TEST_F(NYXRegistrationCacheTest, SecondRegistrationOfTheSameAppReplacesTheFirst) {
  NYXRegistrationCache cache(file());
  cache.store("reg-old", {"s1"}, kApp, kNoInstance, NYXRegistrationScope::DeviceCustomer, "acc");
  cache.store("reg-new", {"s2", "s3"}, kApp, kNoInstance, NYXRegistrationScope::DeviceCustomer,
              "acc");

  EXPECT_EQ(sqliteShell(file(), "SELECT registration_id, senders FROM registration_ids;"),
            "reg-new|s2, s3\n");
  EXPECT_EQ(cache.findForRegistration({"s1"}, kApp, kNoInstance,
                                      NYXRegistrationScope::DeviceCustomer, "acc"),
            "");
  EXPECT_EQ(cache.findForRegistration({"s2", "s3"}, kApp, kNoInstance,
                                      NYXRegistrationScope::DeviceCustomer, "acc"),
            "reg-new");
}

TEST_F(NYXRegistrationCacheTest, LookUpsMatchScopeAccountAndSendersAsStored) {
  NYXRegistrationCache cache(file());
  cache.store("reg-device", {"s1", "s2"}, kApp, kNoInstance, NYXRegistrationScope::Device,
              "account-at-store");
  cache.store("reg-customer", {"s1", "s2"}, kApp, kNoInstance, NYXRegistrationScope::DeviceCustomer,
              "account-at-store");

  // Unregistration ignores the senders, so it finds what registration finds
  // with the stored senders.
  struct Case {
    const char* name;
    SenderList senders;
    const NYXRegistrationScope& scope;
    std::string accountId;
    std::string forRegistration;
    std::string forUnregistration;
  };
  const Case cases[] = {
      {"device scope after an account change",
       {"s1", "s2"},
       NYXRegistrationScope::Device,
       "another-account",
       "reg-device",
       "reg-device"},
      {"device scope without an account",
       {"s1", "s2"},
       NYXRegistrationScope::Device,
       "",
       "reg-device",
       "reg-device"},
      {"customer scope, same account",
       {"s1", "s2"},
       NYXRegistrationScope::DeviceCustomer,
       "account-at-store",
       "reg-customer",
       "reg-customer"},
      {"customer scope, other account",
       {"s1", "s2"},
       NYXRegistrationScope::DeviceCustomer,
       "another-account",
       "",
       ""},
      {"senders in another order",
       {"s2", "s1"},
       NYXRegistrationScope::Device,
       "",
       "",
       "reg-device"},
      {"senders spelt otherwise", {"S1", "s2"}, NYXRegistrationScope::Device, "", "", "reg-device"},
      {"fewer senders", {"s1"}, NYXRegistrationScope::Device, "", "", "reg-device"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(cache.findForRegistration(c.senders, kApp, kNoInstance, c.scope, c.accountId),
              c.forRegistration);
    EXPECT_EQ(cache.findForUnregistration(kApp, kNoInstance, c.scope, c.accountId),
              c.forUnregistration);
  }
  EXPECT_EQ(sqliteShell(file(), "SELECT scope, directed_id FROM registration_ids ORDER BY scope;"),
            "Device|\nDeviceCustomer|account-at-store\n");
}

TEST_F(NYXRegistrationCacheTest, RemoveDeletesOnlyThatRegistration) {
  NYXRegistrationCache cache(file());
  const AppInfoMap otherApp = {{"service.name", "com.example.other"}};
  cache.store("reg-1", {"s1"}, kApp, kNoInstance, NYXRegistrationScope::Device, "");
  cache.store("reg-2", {"s1"}, otherApp, kNoInstance, NYXRegistrationScope::Device, "");

  cache.remove("reg-1");
  cache.remove("reg-unknown");

  EXPECT_EQ(cache.findForUnregistration(kApp, kNoInstance, NYXRegistrationScope::Device, ""), "");
  EXPECT_EQ(cache.findForUnregistration(otherApp, kNoInstance, NYXRegistrationScope::Device, ""),
            "reg-2");
}

// Every value reaches SQLite as a bound parameter, so no text can change a
// statement, and every byte comes back as it went in.
TEST_F(NYXRegistrationCacheTest, HostileAndUnusualTextIsStoredAndFoundByteForByte) {
  const std::string texts[] = {
      "x'); DROP TABLE registration_ids;--",
      "it's \"quoted\" and \\escaped\\",
      " \t leading and trailing blanks \n",
      "Grüße, 日本語, emoji \xF0\x9F\x98\x80",
      "%s %d %n ?",
  };
  NYXRegistrationCache cache(file());
  int n = 0;
  for (const auto& text : texts) {
    SCOPED_TRACE(text);
    const std::string id = "reg-" + std::to_string(n++) + text;
    const AppInfoMap appInfo = {{"service.name", text}, {text, text}};
    const AppInfoMap instance = {{"instance", text}};
    cache.store(id, {text, "plain"}, appInfo, instance, NYXRegistrationScope::DeviceCustomer, text);

    EXPECT_EQ(cache.findForRegistration({text, "plain"}, appInfo, instance,
                                        NYXRegistrationScope::DeviceCustomer, text),
              id);
    EXPECT_EQ(
        cache.findForUnregistration(appInfo, instance, NYXRegistrationScope::DeviceCustomer, text),
        id);
  }
  EXPECT_EQ(sqliteShell(file(), "SELECT count(*) FROM registration_ids;"),
            std::to_string(n) + "\n");

  cache.remove("reg-0" + texts[0]);
  EXPECT_EQ(sqliteShell(file(), "SELECT count(*) FROM registration_ids;"),
            std::to_string(n - 1) + "\n");
}

TEST_F(NYXRegistrationCacheTest, VersionOneFileWithoutTheTableFailsEveryStatement) {
  sqliteShell(file(), "PRAGMA user_version = 1;");
  NYXRegistrationCache cache(file());
  const std::string noTable = "\nno such table: registration_ids";

  struct Case {
    std::function<void()> operation;
    std::string statement;
  };
  const Case cases[] = {
      {[&] { cache.findForUnregistration(kApp, kNoInstance, NYXRegistrationScope::Device, ""); },
       "SELECT registration_id FROM registration_ids WHERE app_info = ? AND app_instance_info = "
       "? AND scope = ? AND directed_id = ?;"},
      {[&] {
         cache.findForRegistration({"s"}, kApp, kNoInstance, NYXRegistrationScope::Device, "");
       },
       "SELECT registration_id FROM registration_ids WHERE app_info = ? AND app_instance_info = "
       "? AND senders = ? AND scope = ? AND directed_id = ?;"},
      {[&] { cache.store("r", {"s"}, kApp, kNoInstance, NYXRegistrationScope::Device, ""); },
       "INSERT INTO registration_ids (registration_id, senders, app_info, app_instance_info, "
       "scope, directed_id) VALUES (?, ?, ?, ?, ?, ?);"},
      {[&] { cache.remove("r"); }, "DELETE FROM registration_ids WHERE registration_id = ?;"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(messageOf(c.operation), "Failed to execute SQL statement: " + c.statement + noTable);
  }
}

// A bus callback opens the cache for the next task while the running task
// writes it, and the other way round. Each waits for the other's lock: the
// open must not fail with "database is locked" (that ended the daemon) and a
// write must not be dropped.
TEST_F(NYXRegistrationCacheTest, DatabaseIsLockedByAnotherConnectionWaitsInsteadOfFailing) {
  struct Case {
    const char* name;
    const char* otherConnectionHolds;
    std::function<void(const std::string& file)> operation;
  };
  const Case cases[] = {
      {"open while another connection writes", "BEGIN EXCLUSIVE;",
       [](const std::string& path) { NYXRegistrationCache cache(path); }},
      {"store while another connection reads", "BEGIN; SELECT COUNT(*) FROM registration_ids;",
       [](const std::string& path) {
         NYXRegistrationCache cache(path);
         cache.store("r-locked", {"s"}, kApp, kNoInstance, NYXRegistrationScope::Device, "");
       }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    nyxtest::TempDir dir;
    const std::string path = dir.path() + "/cache.db";
    { NYXRegistrationCache create(path); }

    sqlite3* other = nullptr;
    ASSERT_EQ(sqlite3_open(path.c_str(), &other), SQLITE_OK);
    std::unique_ptr<sqlite3, int (*)(sqlite3*)> closeOther(other, sqlite3_close);
    ASSERT_EQ(sqlite3_exec(other, c.otherConnectionHolds, nullptr, nullptr, nullptr), SQLITE_OK);
    std::thread release([&] {
      std::this_thread::sleep_for(std::chrono::milliseconds(300));
      sqlite3_exec(other, "COMMIT;", nullptr, nullptr, nullptr);
    });

    EXPECT_EQ(messageOf([&] { c.operation(path); }), "(nothing thrown)");
    release.join();
    if (std::string(c.name).find("store") == 0) {
      EXPECT_EQ(sqliteShell(path, "SELECT registration_id FROM registration_ids;"), "r-locked\n");
    }
  }
}

TEST_F(NYXRegistrationCacheTest, FileThatIsNotADatabaseFailsToOpenWithSqlitesReason) {
  nyxtest::writeFile(file(), std::string(4096, 'x'));

  std::string message = messageOf([&] { NYXRegistrationCache cache(file()); });

  EXPECT_NE(message.find("file is not a database"), std::string::npos) << message;
  EXPECT_NE(message.find(file()), std::string::npos) << message;
  EXPECT_EQ(nyxtest::readFile(file()), std::string(4096, 'x'));
}

TEST_F(NYXRegistrationCacheTest, MissingDirectoryFailsToOpenWithThePath) {
  const std::string path = dir_.path() + "/missing/cache.db";

  EXPECT_EQ(messageOf([&] { NYXRegistrationCache cache(path); }),
            "Failed to open " + path + ": unable to open database file");
}

}  // namespace
