// The freedb lookup exports, called through the shared library as a host
// would: its own lock, records, callbacks and settings file.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "dhvapi.h"
#include "dischive/fields.h"
#include "support/fake_freedb.h"
#include "support/temp_dir.h"

namespace dischive {
namespace {

struct Host {
  std::mutex mutex;
  std::vector<std::string> progress;
  int choices = 0;
  bool abandon_on_choice = false;
  DhvDiscRecord records[2] = {};
  DhvDiscLookupRequest request = {};
  ~Host() {
    for (DhvDiscRecord& r : records) {
      for (uint32_t i = 0; i < r.metadata.count; ++i)
        std::free(r.metadata.entries[i].text);
      std::free(r.metadata.entries);
    }
  }
};

void LockHost(void* context) {
  static_cast<Host*>(context)->mutex.lock();
}
void UnlockHost(void* context) {
  static_cast<Host*>(context)->mutex.unlock();
}
void Post(void* owner, uint32_t message, uintptr_t, char* text) {
  EXPECT_EQ(message, 0x8001u);
  static_cast<Host*>(owner)->progress.push_back(text);
  std::free(text);
}
intptr_t Send(void* owner, uint32_t message, uintptr_t, DhvMatchChoice* choice) {
  Host* host = static_cast<Host*>(owner);
  EXPECT_EQ(message, 0x8002u);
  ++host->choices;
  EXPECT_EQ(choice->count, 2u);
  EXPECT_STREQ(choice->matches[1].artist, "Other");
  if (host->abandon_on_choice) {
    std::lock_guard<std::mutex> guard(host->mutex);
    host->request.discs = nullptr;
  }
  choice->chosen = 1;
  return 1;
}

const char* Text(const DhvDiscMetadata& m, uint32_t field, uint32_t index) {
  for (uint32_t i = 0; i < m.count; ++i) {
    if (m.entries[i].fieldId == field && m.entries[i].index == index &&
        m.entries[i].type == DHV_VALUE_TEXT) {
      return m.entries[i].text;
    }
  }
  return "";
}

TEST(CddbApiTest, BothExportsLookUpThroughTheHostsCallbacks) {
  auto db = std::make_shared<test::FakeFreedbDatabase>();
  test::AddSampleDiscs(*db);
  test::FakeFreedbHttpServer http(db);
  test::FakeCddbpServer cddbp(db);
  test::TempDir home;
  test::WriteFile(home / "dischive" / "dischive.ini",
                  "[internet2]\npreconfig_http_proxy=0\nacquire_url=" + http.url() +
                      "\ncddb_server=127.0.0.1\ncddb_port=" + std::to_string(cddbp.port()) +
                      "\nemail_address=me@example.org\n");
  const test::ScopedEnv config("XDG_CONFIG_HOME", home.path().string());
  void* library = ::dlopen(DHVAPI_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(library, nullptr) << ::dlerror();

  for (const char* name : {"LookupDiscsFreedb", "LookupDiscsCddbp"}) {
    auto* lookup = reinterpret_cast<DHV_RESULT (*)(DhvDiscLookupRequest*)>(::dlsym(library, name));
    ASSERT_NE(lookup, nullptr) << name;
    for (const bool abandon : {false, true}) {
      Host host;
      host.abandon_on_choice = abandon;
      host.records[0].toc = {0x0a0b0c03, 0, 3, {150, 15150, 30150}, 602};
      host.records[1].toc = {0x1000a002, 0, 2, {150, 15150}, 402};
      host.request = {&LockHost, &UnlockHost, &host,   host.records, 2, &host,
                      &Post,     &Send,       0x8001u, 0x8002u,      0};
      const DHV_RESULT result = lookup(&host.request);
      EXPECT_EQ(host.choices, 1) << name;
      if (abandon) {
        // Nothing written once the host has let go of its records.
        EXPECT_EQ(result, 0x80004004u) << name;
        EXPECT_EQ(host.records[0].metadata.count, 0u) << name;
        continue;
      }
      EXPECT_EQ(result, 0u) << name;
      EXPECT_STREQ(Text(host.records[0].metadata, field::kTitle, 0), "First Album") << name;
      EXPECT_STREQ(Text(host.records[0].metadata, field::kTrackTitle, 3), "Three") << name;
      EXPECT_EQ(host.records[1].result, 0u) << name;
      EXPECT_STREQ(Text(host.records[1].metadata, field::kArtist, 0), "Other") << name;
      EXPECT_GE(host.progress.size(), 3u) << name;
    }
  }
  ::dlclose(library);
}

}  // namespace
}  // namespace dischive
