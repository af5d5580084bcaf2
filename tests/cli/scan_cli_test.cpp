// dischive scan and dischive library, run as a user runs them, on the bundled
// sample music and the default catalogue of a fresh home.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "support/temp_dir.h"

namespace dischive {
namespace {

namespace fs = std::filesystem;
using test::RunCli;
using test::TempDir;

const fs::path kSamples = fs::path(DISCHIVE_SOURCE_DIR) / "examples" / "music";

nlohmann::json Json(const test::ProcessResult& r) {
  return nlohmann::json::parse(r.out, nullptr, false);
}

TEST(ScanCliTest, SampleMusicScannedOnceThenSkipped) {
  TempDir home;
  auto r = RunCli({"scan", kSamples.string(), "--json"}, home.path());
  ASSERT_EQ(r.exit_code, 0) << r.err;
  auto j = Json(r);
  EXPECT_EQ(j["added"], 4);
  EXPECT_EQ(j["excluded"], 1);
  EXPECT_EQ(j["failed"], 0);
  EXPECT_EQ(j["files"], 14);
  const fs::path log = j["log"].get<std::string>();
  EXPECT_EQ(log.filename(), "rikranan.log");
  EXPECT_NE(test::ReadFile(log).find("Folder excluded\n"), std::string::npos);

  r = RunCli({"scan", kSamples.string()}, home.path());
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_NE(r.out.find("0 added, 0 updated, 4 skipped, 1 excluded, 0 failed"), std::string::npos)
      << r.out;

  r = RunCli({"scan", kSamples.string(), "--force", "--json", "--no-log"}, home.path());
  ASSERT_EQ(r.exit_code, 0) << r.err;
  j = Json(r);
  EXPECT_EQ(j["updated"], 4) << "rescanned, not added again";
  EXPECT_EQ(j["added"], 1) << "--force ignores Exclude";
  EXPECT_EQ(j["log"], "");
}

TEST(ScanCliTest, LibraryFoldersAndErrors) {
  TempDir home;
  auto r = RunCli({"scan"}, home.path());
  EXPECT_EQ(r.exit_code, 2);
  EXPECT_NE(r.err.find("dischive library add"), std::string::npos) << r.err;

  r = RunCli({"scan", (home / "missing").string()}, home.path());
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("not a folder"), std::string::npos) << r.err;

  const fs::path one = kSamples / "Summer Sampler";
  const fs::path two = kSamples / "Night Sounds - Field Recordings";
  ASSERT_EQ(RunCli({"library", "add", one.string()}, home.path()).exit_code, 0);
  ASSERT_EQ(RunCli({"library", "add", two.string() + "/"}, home.path()).exit_code, 0);
  r = RunCli({"library", "add", one.string()}, home.path());
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_NE(r.err.find("already"), std::string::npos);
  r = RunCli({"library", "list"}, home.path());
  EXPECT_EQ(r.out, one.string() + "\n" + two.string() + "\n");

  r = RunCli({"scan", "--json"}, home.path());
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(Json(r)["added"], 2);

  ASSERT_EQ(RunCli({"library", "remove", one.string()}, home.path()).exit_code, 0);
  EXPECT_EQ(RunCli({"library", "remove", one.string()}, home.path()).exit_code, 1);
  r = RunCli({"library", "list", "--json"}, home.path());
  EXPECT_EQ(Json(r), nlohmann::json::parse("[{\"path\":\"" + two.string() + "\",\"number\":0}]"));
}

}  // namespace
}  // namespace dischive
