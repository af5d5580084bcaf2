// dischive service, sync and notify against the fake collection service on
// 127.0.0.1 with a real catalogue file.
#include <gtest/gtest.h>

#include "dischive/sqlite_catalog.h"
#include "support/fake_collection_service.h"
#include "support/temp_dir.h"

namespace dischive::test {
namespace {

class ServiceCliTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(service.Start());
    auto cat = OpenSqliteCatalog(db, CatalogOpenMode::kCreate);
    ASSERT_TRUE(cat);
    for (int i = 0; i < 3; ++i) {
      AlbumRecord album;
      album.properties.Set(field::kTitle, "Album " + std::to_string(i));
      album.volumes.push_back({0x100u + static_cast<uint32_t>(i), "", 0, 0, 0, {}, {}});
      ASSERT_EQ(cat->WriteAlbum(album, WriteMode::kReplace), kOk);
      ids.push_back(album.id);
    }
  }
  ProcessResult Run(std::vector<std::string> args) {
    args.insert(args.end(), {"--db", db, "--set", "internet2.service_host=" + service.host(),
                             "--set", "internet2.preconfig_http_proxy=0"});
    return RunCli(args, home.path());
  }

  TempDir home;
  const std::string db = (home / "Music.dab").string();
  FakeCollectionService service;
  std::vector<std::string> ids;
};

TEST_F(ServiceCliTest, LoginSyncListAndUrl) {
  ProcessResult r = Run({"sync"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find(db + ": no collection service account"), std::string::npos) << r.err;

  r = Run({"service", "login", "listener", "0123ABCD", "--live-updates", "on"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  r = Run({"sync", "--dry-run"});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out, "Would send: 3 added, 0 updated, 0 covers, 0 removed\n");
  EXPECT_TRUE(service.albums().empty());
  r = Run({"sync"});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out, "3 added, 0 updated, 0 covers, 0 removed\n");
  EXPECT_NE(r.err.find("Sending 3 albums"), std::string::npos) << r.err;
  r = Run({"sync"});
  EXPECT_EQ(r.out, "0 added, 0 updated, 0 covers, 0 removed\n");

  r = Run({"service", "list"});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  for (const std::string& id : ids)
    EXPECT_NE(r.out.find(id + "  modified"), std::string::npos);
  r = Run({"service", "url", ids[0]});
  EXPECT_EQ(r.out,
            "http://" + service.host() + "/peek?u=listener&t=redir&a=" + ids[0] + "&d=0123ABCD\n");
  EXPECT_EQ(Run({"service", "url", "xyz"}).exit_code, 2);
}

TEST_F(ServiceCliTest, CallShowsParamsErrorsAndAMaskedTranscript) {
  ASSERT_EQ(Run({"service", "login", "listener", "0123ABCD"}).exit_code, 0);
  ProcessResult r = Run({"-vv", "service", "call", "hello", "--param", "x=1"});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out, "Albums=0\n");
  EXPECT_NE(r.err.find(">|    <Param><Name>password</Name><Value>********</Value></Param>"),
            std::string::npos)
      << r.err;
  EXPECT_EQ(r.err.find("0123ABCD"), std::string::npos);

  r = Run({"service", "call", "frobnicate"});
  EXPECT_EQ(r.exit_code, 4);
  EXPECT_NE(r.err.find("the service answered: Unknown command"), std::string::npos) << r.err;
  EXPECT_EQ(Run({"service", "call", "list", "--param", "novalue"}).exit_code, 2);
  EXPECT_EQ(Run({"service", "call", "put"}).exit_code, 2);
  r = Run({"service", "call", "put", "--payload", (home / "missing.xml").string()});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("missing.xml: No such file or directory"), std::string::npos) << r.err;

  service.Fail(ServiceFailure::kDescription);
  r = Run({"sync"});
  EXPECT_EQ(r.exit_code, 4);
  EXPECT_NE(r.err.find("the service answered: Database locked"), std::string::npos) << r.err;
}

TEST_F(ServiceCliTest, NotifySendsEachAlbumInOrderAndRefusesUnknownOnes) {
  ASSERT_EQ(Run({"service", "login", "listener", "0123ABCD"}).exit_code, 0);
  ProcessResult r = Run({"notify", "play", ids[0]});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("live updates are off"), std::string::npos) << r.err;
  ASSERT_EQ(Run({"service", "login", "listener", "0123ABCD", "--live-updates", "on"}).exit_code, 0);
  r = Run({"notify", "play", ids[0]});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find(ids[0] + ": the service does not know this album yet"), std::string::npos);
  ASSERT_EQ(Run({"sync"}).exit_code, 0);

  r = Run({"notify", "rate", ids[2], ids[0], "--rating", "0"});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out, "2 rate notices sent to " + service.host() + "\n");
  const auto peeks = service.peeks();
  ASSERT_EQ(peeks.size(), 2u);
  EXPECT_EQ(peeks[0].target, "/peek?u=listener&t=rate&a=" + ids[2] + "&d=0123ABCD&r=0&s=0");
  EXPECT_EQ(peeks[1].target, "/peek?u=listener&t=rate&a=" + ids[0] + "&d=0123ABCD&r=0&s=0");
  EXPECT_EQ(Run({"notify", "rate", ids[0]}).exit_code, 2);
  EXPECT_EQ(Run({"notify", "play", "0000000000000000"}).exit_code, 1);
}

}  // namespace
}  // namespace dischive::test
