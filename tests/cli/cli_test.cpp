// The dischive program run as a user runs it: usage, config, http, tags, scan
// and library, each in a fresh home.
#include <gtest/gtest.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "support/loopback_http.h"
#include "support/temp_dir.h"

namespace dischive::test {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

const fs::path kSamples = fs::path(DISCHIVE_SOURCE_DIR) / "examples" / "music";
const std::string kData = std::string(DISCHIVE_TEST_DATA_DIR) + "/tags/";

class CliTest : public ::testing::Test {
 protected:
  ProcessResult Run(const std::vector<std::string>& args) { return RunCli(args, home.path()); }
  TempDir home;
};

TEST_F(CliTest, VersionHelpUsageErrorsAndConfig) {
  ProcessResult r = Run({"--version"});
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_EQ(r.out.rfind("dischive ", 0), 0u) << r.out;
  r = Run({"--help"});
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_NE(r.out.find("config"), std::string::npos);

  EXPECT_EQ(Run({}).exit_code, 2);
  EXPECT_EQ(Run({"config", "list", "--no-such-option"}).exit_code, 2);
  r = Run({"--set", "novalue", "config", "list"});
  EXPECT_EQ(r.exit_code, 2);
  EXPECT_NE(r.err.find("group.key=value"), std::string::npos) << r.err;
  EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;

  // config set, get, list and unset; --set overrides for one run.
  const std::string key = "internet2.http_proxy_port";
  const fs::path ini = home / "config" / "dischive" / "dischive.ini";
  EXPECT_EQ(Run({"config", "set", key, "8080"}).exit_code, 0);
  EXPECT_EQ(ReadFile(ini), "[internet2]\nhttp_proxy_port=8080\n");
  EXPECT_EQ(Run({"config", "get", key}).out, "8080\n");
  // The override is for one run only.
  EXPECT_EQ(Run({"--set", key + "=3128", "config", "get", key}).out, "3128\n");
  EXPECT_EQ(ReadFile(ini), "[internet2]\nhttp_proxy_port=8080\n");
  EXPECT_EQ(Run({"--json", "config", "list"}).out,
            "{\n  \"internet2\": {\n    \"http_proxy_port\": \"8080\"\n  }\n}\n");

  EXPECT_EQ(Run({"config", "unset", key}).exit_code, 0);
  r = Run({"config", "get", key});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("not set"), std::string::npos);
}

TEST_F(CliTest, HttpGetPrintsStatusBodyOrTranscript) {
  LoopbackHttpServer server;
  server.server().Get("/hello", [](const httplib::Request& req, httplib::Response& res) {
    res.set_content("hi " + req.get_header_value("X-Who"), "text/plain");
  });
  server.server().Get("/missing", [](const httplib::Request&, httplib::Response& res) {
    res.status = 404;
    res.set_content("no such page", "text/plain");
  });
  ASSERT_TRUE(server.Start());
  const std::string base = "http://127.0.0.1:" + std::to_string(server.port());
  const auto run = [&](std::vector<std::string> args) {
    args.insert(args.begin(), {"--set", "internet2.preconfig_http_proxy=0"});
    return Run(args);
  };

  ProcessResult r = run({"http", "get", base + "/hello", "--header", "X-Who: you"});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out, "HTTP/1.1 200 OK\nhi you");
  r = run({"http", "get", base + "/hello", "--transcript"});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_NE(r.out.find(">| GET /hello HTTP/1.1\r\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("<| hi \r\n"), std::string::npos);
  r = run({"--json", "http", "get", base + "/missing"});
  EXPECT_EQ(r.exit_code, 4);
  EXPECT_EQ(json::parse(r.out)["body"], "no such page");
  r = run({"http", "get", base + "/hello", "-o", (home / "body.txt").string()});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(ReadFile(home / "body.txt"), "hi ");

  // Several URLs go through the worker; each body lands in the folder under
  // its last path segment, a repeated name gets its position in front.
  r = run({"http", "get", "--jobs", "2", base + "/hello", base + "/missing", base + "/hello?x",
           "http://127.0.0.1:1/gone", "-o", (home / "out").string()});
  EXPECT_EQ(r.exit_code, 4) << r.err;
  EXPECT_EQ(ReadFile(home / "out" / "hello"), "hi ");
  EXPECT_EQ(ReadFile(home / "out" / "3-hello"), "hi ");
  EXPECT_EQ(ReadFile(home / "out" / "missing"), "no such page");
  EXPECT_NE(r.out.find(base + "/missing: HTTP/1.1 404 Not Found, 12 bytes"), std::string::npos)
      << r.out;
  EXPECT_NE(r.out.find("http://127.0.0.1:1/gone: The attempt to connect"), std::string::npos)
      << r.out;
  r = run({"--json", "http", "get", "--interval", "10", base + "/hello", base + "/hello"});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(json::parse(r.out)["downloads"][1]["length"], 3);
  EXPECT_EQ(run({"http", "get", base + "/hello", "ftp://host/"}).exit_code, 2);

  const std::pair<std::string, int> bad[] = {{"ftp://host/", 2},
                                             {"http://user@host/", 2},
                                             {"http://host:99999/", 2},
                                             {"https://host:8443/", 2},
                                             {"http://127.0.0.1:1/", 4}};
  for (const auto& [url, exit_code] : bad) {
    r = run({"http", "get", url});
    EXPECT_EQ(r.exit_code, exit_code) << url << ": " << r.err;
    EXPECT_NE(r.err.find("dischive: "), std::string::npos) << r.err;
  }
}

TEST_F(CliTest, TagsAsTextJsonAndPictures) {
  ProcessResult r = Run({"tags", kData + "cbr-id3v23.mp3"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  for (const char* line : {"  format: MP3 (id3v2)\n", "  title: CBR Song\n",
                           "  comment: ID3v1 Comment:\n    first note\n", "  trackNumber: 4\n"}) {
    EXPECT_NE(r.out.find(line), std::string::npos) << line << r.out;
  }
  r = Run({"tags", "--json", kData + "tagged.flac", kData + "tagged.wma"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  const json parsed = json::parse(r.out);
  ASSERT_EQ(parsed.size(), 2u);
  EXPECT_EQ(parsed[0]["picture"]["kind"], "jpeg");
  EXPECT_TRUE(parsed[1]["picture"].is_null());

  // Several files: one picture each, numbered; a missing file fails the run
  // but the others are still printed.
  r = Run({"tags", "--picture", (home / "c.img").string(), kData + "tagged.flac",
           (home / "missing.ogg").string(), kData + "vbr-id3v24.mp3"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("missing.ogg: no such file"), std::string::npos) << r.err;
  EXPECT_EQ(ReadFile(home / "c-1.img").substr(0, 2), "\xFF\xD8");
  EXPECT_EQ(ReadFile(home / "c-3.img").substr(1, 3), "PNG");
  EXPECT_NE(r.out.find("Vbr T"), std::string::npos);
  r = Run({"tags", "--picture", (home / "one.jpg").string(), kData + "tagged.flac"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(ReadFile(home / "one.jpg").substr(0, 2), "\xFF\xD8");

  WriteFile(home / "notes.txt", "plain text");
  r = Run({"tags", (home / "notes.txt").string()});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("not a music file"), std::string::npos);
}

TEST_F(CliTest, SampleMusicScannedThenForced) {
  ProcessResult r = Run({"scan", kSamples.string(), "--json"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  json j = json::parse(r.out);
  EXPECT_EQ(j["added"], 4);
  const fs::path log = j["log"].get<std::string>();
  EXPECT_EQ(log.filename(), "rikranan.log");
  EXPECT_NE(ReadFile(log).find("Folder excluded\n"), std::string::npos);

  // --force rescans and ignores Exclude; --no-log leaves the log alone.
  const std::string first_log = ReadFile(log);
  r = Run({"scan", kSamples.string(), "--force", "--no-log"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_NE(r.out.find(" 1 added, 4 updated, 0 skipped, 0 excluded, 0 failed\n"), std::string::npos)
      << r.out;
  EXPECT_EQ(ReadFile(log), first_log);
}

TEST_F(CliTest, LibraryFoldersAndScanErrors) {
  ProcessResult r = Run({"scan"});
  EXPECT_EQ(r.exit_code, 2);
  EXPECT_NE(r.err.find("dischive library add"), std::string::npos) << r.err;
  r = Run({"scan", (home / "missing").string()});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("not a folder"), std::string::npos) << r.err;

  const std::string one = (kSamples / "Summer Sampler").string();
  const std::string two = (kSamples / "Night Sounds - Field Recordings").string();
  ASSERT_EQ(Run({"library", "add", one}).exit_code, 0);
  ASSERT_EQ(Run({"library", "add", two + "/"}).exit_code, 0);
  r = Run({"library", "add", one});
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_NE(r.err.find("already"), std::string::npos);
  EXPECT_EQ(Run({"library", "list"}).out, one + "\n" + two + "\n");
  r = Run({"scan", "--json"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(json::parse(r.out)["added"], 2);

  ASSERT_EQ(Run({"library", "remove", one}).exit_code, 0);
  EXPECT_EQ(Run({"library", "remove", one}).exit_code, 1);
  EXPECT_EQ(json::parse(Run({"library", "list", "--json"}).out),
            json::parse("[{\"path\":\"" + two + "\",\"number\":0}]"));
}

}  // namespace
}  // namespace dischive::test
