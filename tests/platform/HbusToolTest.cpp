// The hbus tool end to end, against the private bus of this binary.
#include <gtest/gtest.h>
#include <signal.h>

#include <string>
#include <vector>

#include "tests/support/TestSupport.h"

namespace {

using nyxtest::ChildProcess;
using nyxtest::milliseconds;

std::unique_ptr<ChildProcess> startHbus(const std::vector<std::string>& args) {
  ChildProcess::Options options;
  options.argv = {nyxtest::binaryDir() + "/tools/hbus/hbus"};
  options.argv.insert(options.argv.end(), args.begin(), args.end());
  options.projectBinary = true;
  return std::make_unique<ChildProcess>(options);
}

int runHbus(const std::vector<std::string>& args, std::string* output = nullptr) {
  auto child = startHbus(args);
  const auto status = child->waitForExit(milliseconds(15000));
  if (output != nullptr) {
    *output = child->output();
  }
  return status.value_or(-1000);
}

TEST(HbusToolTest, ServePrintsEveryWriteAndAnswersReads) {
  auto server = startHbus({"serve", "nyx.tool.demo", "--string", "greeting", "--int", "level=3"});
  ASSERT_TRUE(server->waitForLine("serving nyx.tool.demo as :", milliseconds(10000)))
      << server->output();

  EXPECT_EQ(runHbus({"set", "nyx.tool.demo", "greeting", "hello world"}), 0);
  EXPECT_TRUE(server->waitForLine("write greeting \"hello world\" from :", milliseconds(5000)))
      << server->output();
  EXPECT_EQ(runHbus({"set-int", "nyx.tool.demo", "level", "-9"}), 0);
  EXPECT_TRUE(server->waitForLine("write level -9 from :", milliseconds(5000))) << server->output();

  std::string output;
  EXPECT_EQ(runHbus({"get", "nyx.tool.demo", "greeting"}, &output), 0);
  EXPECT_EQ(output, "hello world\n");
  EXPECT_EQ(runHbus({"get-int", "nyx.tool.demo", "level"}, &output), 0);
  EXPECT_EQ(output, "-9\n");

  // A second server cannot take the name.
  EXPECT_NE(runHbus({"serve", "nyx.tool.demo"}), 0);

  server->signal(SIGTERM);
  EXPECT_EQ(server->waitForExit(milliseconds(5000)), 0);
}

struct ExitCase {
  const char* what;
  std::vector<std::string> args;
  int expected;
};

TEST(HbusToolTest, ExitStatusIsTheBusStatusOrTwoForBadArguments) {
  const ExitCase cases[] = {
      {"missing service", {"set", "no.such.service", "x", "y"}, 3},
      {"invalid service name", {"get", "no..such", "x"}, 3},
      {"no command", {}, 2},
      {"unknown command", {"frob", "a", "b"}, 2},
      {"set without a value", {"set", "no.such.service", "x"}, 2},
      {"set-int with text", {"set-int", "no.such.service", "x", "ten"}, 2},
      {"get with a value", {"get", "no.such.service", "x", "y"}, 2},
      {"serve without a name", {"serve"}, 2},
      {"serve --int without a value", {"serve", "nyx.tool.x", "--int", "n"}, 2},
      {"serve with an unknown option", {"serve", "nyx.tool.x", "--float", "n=1"}, 2},
      {"help", {"--help"}, 0},
  };
  for (const auto& row : cases) {
    std::string output;
    EXPECT_EQ(runHbus(row.args, &output), row.expected) << row.what << "\n" << output;
  }
}

}  // namespace
