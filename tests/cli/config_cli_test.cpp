#include <gtest/gtest.h>

#include <algorithm>

#include "support/temp_dir.h"

namespace dischive::test {
namespace {

TEST(CliTest, VersionHelpAndUsageErrors) {
  TempDir home;
  ProcessResult r = RunCli({"--version"}, home.path());
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_EQ(r.out.rfind("dischive ", 0), 0u) << r.out;

  r = RunCli({"--help"}, home.path());
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_NE(r.out.find("config"), std::string::npos);

  r = RunCli({}, home.path());
  EXPECT_EQ(r.exit_code, 2);
  r = RunCli({"config", "list", "--no-such-option"}, home.path());
  EXPECT_EQ(r.exit_code, 2);

  r = RunCli({"--set", "novalue", "config", "list"}, home.path());
  EXPECT_EQ(r.exit_code, 2);
  EXPECT_NE(r.err.find("group.key=value"), std::string::npos) << r.err;
  EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
}

TEST(CliTest, ConfigSetGetListUnsetAndOneRunOverrides) {
  TempDir home;
  EXPECT_EQ(RunCli({"config", "set", "internet2.http_proxy_port", "8080"}, home.path()).exit_code,
            0);
  EXPECT_EQ(ReadFile(home / "config" / "dischive" / "dischive.ini"),
            "[internet2]\nhttp_proxy_port=8080\n");

  ProcessResult r = RunCli({"config", "get", "internet2.http_proxy_port"}, home.path());
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_EQ(r.out, "8080\n");

  r = RunCli(
      {"--set", "internet2.http_proxy_port=3128", "config", "get", "internet2.http_proxy_port"},
      home.path());
  EXPECT_EQ(r.out, "3128\n");
  // The override was for one run only.
  EXPECT_EQ(ReadFile(home / "config" / "dischive" / "dischive.ini"),
            "[internet2]\nhttp_proxy_port=8080\n");

  r = RunCli({"--json", "config", "list"}, home.path());
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_EQ(r.out, "{\n  \"internet2\": {\n    \"http_proxy_port\": \"8080\"\n  }\n}\n");

  EXPECT_EQ(RunCli({"config", "unset", "internet2.http_proxy_port"}, home.path()).exit_code, 0);
  r = RunCli({"config", "get", "internet2.http_proxy_port"}, home.path());
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("not set"), std::string::npos);
}

}  // namespace
}  // namespace dischive::test
