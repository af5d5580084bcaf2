#include <gtest/gtest.h>

#include <thread>

#include "dischive/disc_lookup_driver.h"
#include "dischive/lookup_worker.h"
#include "support/fake_freedb.h"
#include "support/lookup_harness.h"

namespace dischive::test {
namespace {

class LookupWorkerBatchTest : public ::testing::Test {
 protected:
  LookupWorkerBatchTest() {
    AddSampleDiscs(*db);
    settings.SetString("internet2", "acquire_url", http.url());
    settings.SetInt("internet2", "preconfig_http_proxy", 0);
  }
  ~LookupWorkerBatchTest() override {
    EXPECT_TRUE(LookupWorker::WaitForThreads(std::chrono::seconds(10)));
  }

  std::vector<BatchDisc> Discs(const std::vector<uint32_t>& ids) {
    std::vector<BatchDisc> discs;
    for (const uint32_t id : ids)
      discs.push_back(BatchDisc{MakeToc(id, 2), {}, kOk, {}});
    return discs;
  }

  std::shared_ptr<FakeFreedbDatabase> db = std::make_shared<FakeFreedbDatabase>();
  FakeFreedbHttpServer http{db};
  MemorySettingsStore settings;
};

TEST_F(LookupWorkerBatchTest, EachDiscGetsItsOutcomeWithoutAsking) {
  std::vector<BatchDisc> discs = Discs({0x0a0b0c03, 0x1000a002, 0x2000b002, 0x12345678});
  discs[0].toc = MakeToc(0x0a0b0c03, 3);
  std::vector<size_t> progress;
  BatchLookupOptions options;
  options.jobs = 3;
  options.progress = [&](size_t done, size_t total) {
    EXPECT_EQ(total, 4u);
    progress.push_back(done);
  };
  ASSERT_EQ(LookupDiscBatch(discs, settings, options), kOk);
  EXPECT_EQ(progress, (std::vector<size_t>{1, 2, 3, 4}));

  EXPECT_EQ(discs[0].result, kOk);
  EXPECT_EQ(discs[0].metadata.Text(field::kTitle, 0), "First Album");
  EXPECT_EQ(discs[0].metadata.Text(field::kTrackTitle, 3), "Three");
  EXPECT_EQ(discs[1].result, kTooManyMatches) << "inexact matches stay open";
  ASSERT_EQ(discs[1].matches.size(), 2u);
  EXPECT_EQ(discs[1].matches[1].category, "folk");
  EXPECT_EQ(discs[2].result, kOk) << "the first of the exact matches";
  EXPECT_EQ(discs[2].metadata.Text(field::kCategory, 0), "rock");
  EXPECT_EQ(discs[3].result, kNoFreedbMatch);
  EXPECT_EQ(http.requests().size(), 6u) << "four queries, two reads";
}

TEST_F(LookupWorkerBatchTest, ServiceAndAddressFailuresStayWithTheirDisc) {
  struct Case {
    const char* acquire_url;
    int status;
    const char* body;  // nullptr: the database answers
    HResult expected;
  };
  const Case cases[] = {
      {nullptr, 500, nullptr, kHttpStatusNotOk},
      {nullptr, 0, "451 not today\n", kFreedbServiceError},
      {"ftp://127.0.0.1/~cddb/cddb.cgi", 0, nullptr, kNotHttpAddress},
      {"http://127.0.0.1:1/~cddb/cddb.cgi", 0, nullptr, 12029},
  };
  for (const Case& c : cases) {
    if (c.acquire_url != nullptr) settings.SetString("internet2", "acquire_url", c.acquire_url);
    http.SetStatus(c.status);
    const std::string body = c.body != nullptr ? c.body : "";
    http.SetOverride([&](const std::string&) -> std::optional<std::string> {
      if (body.empty()) return std::nullopt;
      return body;
    });
    std::vector<BatchDisc> discs = Discs({0x0a0b0c03, 0x12345678});
    EXPECT_EQ(LookupDiscBatch(discs, settings, {}), kOk);
    for (const BatchDisc& disc : discs)
      EXPECT_EQ(disc.result, c.expected) << (c.body ? c.body : c.acquire_url ? c.acquire_url : "");
    settings.SetString("internet2", "acquire_url", http.url());
  }
}

TEST_F(LookupWorkerBatchTest, CancelStopsTheBatchAndMarksTheRest) {
  http.SetOverride([](const std::string&) -> std::optional<std::string> {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    return std::nullopt;
  });
  std::vector<uint32_t> ids(30, 0x12345678);
  std::vector<BatchDisc> discs = Discs(ids);
  size_t finished = 0;
  BatchLookupOptions options;
  options.jobs = 2;
  options.progress = [&](size_t done, size_t) { finished = done; };
  options.cancelled = [&] { return finished >= 3; };
  EXPECT_EQ(LookupDiscBatch(discs, settings, options), kAborted);
  size_t aborted = 0;
  for (const BatchDisc& disc : discs) {
    EXPECT_TRUE(disc.result == kAborted || disc.result == kNoFreedbMatch) << disc.result;
    aborted += disc.result == kAborted;
  }
  EXPECT_EQ(aborted, discs.size() - finished);
  EXPECT_GE(finished, 3u);
  EXPECT_LT(finished, 10u);
}

}  // namespace
}  // namespace dischive::test
