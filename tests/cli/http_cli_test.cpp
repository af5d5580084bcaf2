#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "support/loopback_http.h"
#include "support/temp_dir.h"

namespace dischive::test {
namespace {

TEST(HttpCliTest, GetPrintsStatusBodyOrTranscript) {
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
  TempDir home;
  const auto run = [&](std::vector<std::string> args) {
    args.insert(args.begin(), {"--set", "internet2.preconfig_http_proxy=0"});
    return RunCli(args, home.path());
  };

  ProcessResult r = run({"http", "get", base + "/hello", "--header", "X-Who: you"});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out, "HTTP/1.1 200 OK\nhi you");

  r = run({"http", "get", base + "/hello", "--transcript"});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_NE(r.out.find(">| GET /hello HTTP/1.1\r\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("<| HTTP/1.1 200 OK\r\n"), std::string::npos);
  EXPECT_NE(r.out.find("<| hi \r\n"), std::string::npos);

  r = run({"--json", "http", "get", base + "/missing"});
  EXPECT_EQ(r.exit_code, 4);
  const auto json = nlohmann::json::parse(r.out);
  EXPECT_EQ(json["status"], 404);
  EXPECT_EQ(json["body"], "no such page");
  EXPECT_NE(r.err.find("404"), std::string::npos);

  r = run({"http", "get", base + "/hello", "-o", (home / "body.txt").string()});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(ReadFile(home / "body.txt"), "hi ");

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

}  // namespace
}  // namespace dischive::test
