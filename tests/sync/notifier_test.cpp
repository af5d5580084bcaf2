// The play and rating notifier against the fake service's "/peek" on 127.0.0.1.
#include "dischive/notifier.h"

#include <gtest/gtest.h>

#include "dischive/fields.h"
#include "dischive/sqlite_catalog.h"
#include "support/fake_collection_service.h"
#include "support/temp_dir.h"

namespace dischive {
namespace {

using namespace std::chrono_literals;

class NotifierTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(service.Start());
    catalog = OpenSqliteCatalog(dir / "music.dab", CatalogOpenMode::kCreate);
    ASSERT_NE(catalog, nullptr);
    Account("listener", "0123ABCD", true);
  }
  void Account(const std::string& login, const std::string& key, bool live) {
    catalog->SetDatabaseProperty("db_opts", "sync_login", login);
    catalog->SetDatabaseProperty("db_opts", "sync_dbkey", key);
    catalog->SetDatabaseProperty("db_opts", "sync_live_updates", live ? "1" : "0");
  }
  std::unique_ptr<PlayRatingNotifier> Start(std::chrono::milliseconds interval = 5ms) {
    return StartNotifier(*catalog, Settings(interval), owner);
  }
  NotifierSettings Settings(std::chrono::milliseconds interval) {
    NotifierSettings s;
    s.host = service.host();
    s.internet.preconfigured = false;
    s.interval = interval;
    return s;
  }
  std::vector<std::string> Targets() {
    std::vector<std::string> out;
    for (const auto& p : service.peeks())
      out.push_back(p.target);
    return out;
  }
  test::TempDir dir;
  test::FakeCollectionService service;
  std::unique_ptr<CatalogEngine> catalog;
  std::shared_ptr<MessageLoop> owner =
      std::make_shared<MessageLoop>([](const HostMessage&) { return intptr_t{0}; });
};

AlbumRecord Album(std::string service_id, int32_t rating, int32_t rating_time, int32_t played) {
  AlbumRecord album;
  if (!service_id.empty()) album.properties.Set(field::kServiceId, service_id);
  album.properties.Set(field::kRating, rating);
  album.properties.Set(field::kRatingTime, rating_time);
  album.properties.Set(field::kLastPlayed, played);
  return album;
}

TEST_F(NotifierTest, NotifierSendsEachNoticeInItsLayout) {
  Account("a&b c", "0123ABCD", true);
  auto notifier = Start();
  ASSERT_NE(notifier, nullptr);
  struct Case {
    AlbumRecord album;
    bool rate;
    bool live;
    bool posted;
    const char* target;
  };
  const std::vector<Case> cases = {
      {Album("0123456789ABCDEF", 4, 1000, 7), true, true, true,
       "/peek?u=a%26b%20c&t=rate&a=0123456789ABCDEF&d=0123ABCD&r=4&s=1000"},
      {Album("0123456789ABCDEF", 0, 1000, 7), true, true, true,
       "/peek?u=a%26b%20c&t=rate&a=0123456789ABCDEF&d=0123ABCD&r=0&s=0"},
      {Album("0123456789ABCDEF", 3, 1000, -1), false, true, true,
       "/peek?u=a%26b%20c&t=play&a=0123456789ABCDEF&d=0123ABCD&s=4294967295"},
      {Album("", 4, 1000, 7), true, true, false, nullptr},
      {Album("", 4, 1000, 7), false, true, false, nullptr},
      {Album("0123456789ABCDEF", 4, 1000, 7), true, false, false, nullptr},
  };
  std::vector<std::string> expected;
  for (const Case& c : cases) {
    catalog->SetDatabaseProperty("db_opts", "sync_live_updates", c.live ? "on" : "");
    const bool posted = c.rate ? notifier->NotifyRated(c.album) : notifier->NotifyPlayed(c.album);
    EXPECT_EQ(posted, c.posted);
    if (c.target != nullptr) expected.push_back(c.target);
  }
  EXPECT_FALSE(notifier->Post({"", NotifyKind::kPlay, 0, 1}));  // no identifier: dropped
  notifier->WaitUntilIdle();
  EXPECT_EQ(Targets(), expected);
  EXPECT_EQ(notifier->sent(), expected.size());
}

TEST_F(NotifierTest, NotifierStartsOnlyWithLoginKeyAndOwner) {
  Account("", "0123ABCD", true);
  EXPECT_EQ(Start(), nullptr);
  Account("listener", "", true);
  EXPECT_EQ(Start(), nullptr);
  Account("listener", "0123ABCD", true);
  EXPECT_EQ(StartNotifier(*catalog, Settings(5ms), nullptr), nullptr);
  // The account is read from the catalogue, not taken from the settings.
  NotifierSettings settings = Settings(5ms);
  settings.login = "someone else";
  auto notifier = StartNotifier(*catalog, settings, owner);
  ASSERT_NE(notifier, nullptr);
  ASSERT_TRUE(notifier->Post({"0123456789ABCDEF", NotifyKind::kPlay, 0, 5}));
  notifier->WaitUntilIdle();
  EXPECT_EQ(Targets(),
            std::vector<std::string>{"/peek?u=listener&t=play&a=0123456789ABCDEF&d=0123ABCD&s=5"});
}

TEST_F(NotifierTest, NotifierSendsNothingForAnAlbumWithoutServiceId) {
  auto notifier = Start();
  ASSERT_NE(notifier, nullptr);
  EXPECT_FALSE(notifier->NotifyPlayed(Album("", 0, 0, 100)));
  EXPECT_FALSE(notifier->NotifyRated(Album("", 5, 100, 100)));
  notifier->WaitUntilIdle();
  notifier->Quit();
  EXPECT_TRUE(service.peeks().empty());
  EXPECT_EQ(notifier->sent(), 0u);
}

TEST_F(NotifierTest, NotifierBurstIsSpreadOneSecondApartInOrder) {
  auto notifier = Start(1000ms);
  ASSERT_NE(notifier, nullptr);
  for (uint32_t i = 0; i < 10; ++i)
    notifier->Post({"0123456789ABCDEF", NotifyKind::kPlay, 0, i});
  notifier->WaitUntilIdle();
  const auto peeks = service.peeks();
  ASSERT_EQ(peeks.size(), 10u);
  for (uint32_t i = 0; i < 10; ++i) {
    EXPECT_EQ(peeks[i].target,
              "/peek?u=listener&t=play&a=0123456789ABCDEF&d=0123ABCD&s=" + std::to_string(i));
  }
  EXPECT_GE(peeks.back().at - peeks.front().at, 9s);
}

TEST_F(NotifierTest, NotifierQuitDiscardsQueuedNotices) {
  auto notifier = Start(10s);
  ASSERT_NE(notifier, nullptr);
  for (uint32_t i = 0; i < 5; ++i)
    notifier->Post({"0123456789ABCDEF", NotifyKind::kPlay, 0, i});
  // The first notice goes out; the rest wait behind the pause.
  for (int i = 0; i < 200 && service.peeks().empty(); ++i)
    std::this_thread::sleep_for(10ms);
  const auto start = std::chrono::steady_clock::now();
  notifier->Quit();
  EXPECT_LT(std::chrono::steady_clock::now() - start, 2s) << "the pause does not delay quitting";
  EXPECT_FALSE(notifier->Post({"0123456789ABCDEF", NotifyKind::kPlay, 0, 9}));
  EXPECT_EQ(service.peeks().size(), 1u);
  EXPECT_EQ(notifier->sent(), 1u);
}

TEST_F(NotifierTest, NotifierSendsNothingAfterItsOwnerIsGone) {
  auto notifier = Start(300ms);
  ASSERT_NE(notifier, nullptr);
  for (uint32_t i = 0; i < 4; ++i)
    notifier->Post({"0123456789ABCDEF", NotifyKind::kPlay, 0, i});
  for (int i = 0; i < 200 && service.peeks().empty(); ++i)
    std::this_thread::sleep_for(10ms);
  owner->close();
  notifier->Post({"0123456789ABCDEF", NotifyKind::kPlay, 0, 9});
  notifier->WaitUntilIdle();
  EXPECT_EQ(Targets(),
            std::vector<std::string>{"/peek?u=listener&t=play&a=0123456789ABCDEF&d=0123ABCD&s=0"});
}

TEST(NotifierPageUrl, NeedsLoginAlbumAndKey) {
  EXPECT_EQ(BuildAlbumPageUrl("h.example", "me", "0123456789ABCDEF", "K1"),
            "http://h.example/peek?u=me&t=redir&a=0123456789ABCDEF&d=K1");
  EXPECT_EQ(BuildAlbumPageUrl("h.example:81", "m e", "A", "K/1"),
            "http://h.example:81/peek?u=m%20e&t=redir&a=A&d=K%2F1");
  EXPECT_EQ(BuildAlbumPageUrl("h", "", "A", "K"), std::nullopt);
  EXPECT_EQ(BuildAlbumPageUrl("h", "me", "", "K"), std::nullopt);
  EXPECT_EQ(BuildAlbumPageUrl("h", "me", "A", ""), std::nullopt);
}

}  // namespace
}  // namespace dischive
