// The C exports of the shared library, loaded and called as a host would:
// the ordinal table, HTTP, settings, XML, freedb lookup and backup.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "api/ordinal_table.h"
#include "dhvapi.h"
#include "dischive/fields.h"
#include "dischive/sqlite_catalog.h"
#include "support/fake_freedb.h"
#include "support/loopback_http.h"
#include "support/temp_dir.h"

namespace dischive {
namespace {

class ApiTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_NE(library_, nullptr) << ::dlerror(); }
  void TearDown() override {
    if (library_ != nullptr) ::dlclose(library_);
  }
  template <typename F>
  F* Get(const char* name) {
    return reinterpret_cast<F*>(::dlsym(library_, name));
  }
  void* library_ = ::dlopen(DHVAPI_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
};

TEST_F(ApiTest, OrdinalsAndNamesAreUniqueAndEveryNameIsExported) {
  std::set<int> ordinals;
  std::set<std::string> names;
  for (const api::OrdinalEntry& entry : api::OrdinalTable()) {
    EXPECT_TRUE(ordinals.insert(entry.ordinal).second) << "duplicate ordinal " << entry.ordinal;
    EXPECT_TRUE(names.insert(entry.name).second) << "duplicate name " << entry.name;
    EXPECT_GT(entry.ordinal, 0);
    EXPECT_NE(::dlsym(library_, entry.name), nullptr) << entry.name << " is not exported";
  }
  // Nothing but the table is exported: an internal C++ symbol stays hidden.
  EXPECT_EQ(::dlsym(library_, "_ZN8dischive19NewRandomIdentifierEv"), nullptr);
}

uint32_t AnswerWithCredentials(void* context, ::HttpRequest* request, uint32_t error,
                               uint32_t status) {
  ++*static_cast<int*>(context);
  if (error != 0 || status != 401) return 1223;
  std::strcpy(request->user, "user");
  std::strcpy(request->password, "secret");
  return 12032;
}

TEST_F(ApiTest, HttpSettingsAndXmlExports) {
  test::LoopbackHttpServer server;
  server.server().Post("/echo", [](const httplib::Request& req, httplib::Response& res) {
    if (req.get_header_value("Authorization") == "Basic dXNlcjpzZWNyZXQ=") {
      res.set_content(req.body + "|" + req.get_header_value("X-Extra"), "text/plain");
    } else {
      res.status = 401;
      res.set_header("WWW-Authenticate", "Basic realm=\"r\"");
    }
  });
  ASSERT_TRUE(server.Start());
  auto* perform = Get<DHV_RESULT(::HttpRequest*)>("PerformHttpRequest");
  auto* transcript = Get<DHV_RESULT(char**, const ::HttpRequest*)>("FormatHttpTranscript");
  ASSERT_TRUE(perform && transcript);

  int asked = 0;
  const char body[] = "<Param><Name>password</Name><Value>pw</Value></Param>";
  auto* r = static_cast<::HttpRequest*>(std::calloc(1, sizeof(::HttpRequest)));
  r->prompt = &AnswerWithCredentials;
  r->prompt_context = &asked;
  r->access_type = 1;
  r->server = "127.0.0.1";
  r->port = static_cast<uint32_t>(server.port());
  r->object = "/echo";
  r->verb = "POST";
  r->extra_headers = "X-Extra: yes\r\n";
  r->body = body;
  r->body_length = sizeof body - 1;
  std::strcpy(r->agent, "DiscHive 1.0");
  ASSERT_EQ(perform(r), 0u);
  EXPECT_EQ(asked, 1);  // the prompt filled the credentials and asked for a retry
  EXPECT_EQ(r->status_code, 200u);
  ASSERT_NE(r->response_body, nullptr);
  EXPECT_EQ(std::string(r->response_body, r->response_length), std::string(body) + "|yes");
  ASSERT_NE(r->sent_headers, nullptr);
  EXPECT_EQ(std::strncmp(r->sent_headers, "POST /echo HTTP/1.1\r\n", 21), 0);
  char* text = nullptr;
  ASSERT_EQ(transcript(&text, r), 0u);
  ASSERT_NE(text, nullptr);
  EXPECT_NE(std::strstr(text, ">| <Param><Name>password</Name><Value>********</Value>"), nullptr);
  EXPECT_NE(std::strstr(text, "<| HTTP/1.1 200 OK\r\n"), nullptr);
  std::free(text);
  std::free(r->sent_headers);
  std::free(r->response_headers);
  std::free(r->response_body);
  std::free(r);

  auto* load_settings = Get<DHV_RESULT(::InternetSettings*)>("LoadInternetSettings");
  auto* create = Get<::XmlResponseReader*(const char*)>("CreateXmlResponseReader");
  auto* destroy = Get<void(::XmlResponseReader*)>("DestroyXmlResponseReader");
  auto* load_xml = Get<DHV_RESULT(::XmlResponseReader*, const char*, _xmlDoc**)>("LoadXmlResponse");
  auto* free_doc = reinterpret_cast<void (*)(_xmlDoc*)>(::dlsym(RTLD_DEFAULT, "xmlFreeDoc"));
  ASSERT_TRUE(load_settings && create && destroy && load_xml && free_doc);

  // The library's settings file, in a private configuration folder.
  test::TempDir home;
  test::WriteFile(home / "dischive" / "dischive.ini",
                  "[internet2]\npreconfig_http_proxy=0\nuse_http_proxy=1\n"
                  "http_proxy_address=proxy.lan\nhttp_proxy_port=8080\n");
  ::InternetSettings settings;
  std::memset(&settings, 0x55, sizeof settings);
  {
    const test::ScopedEnv config("XDG_CONFIG_HOME", home.path().string());
    ASSERT_EQ(load_settings(&settings), 0u);
  }
  EXPECT_EQ(settings.preconfigured, 0);
  EXPECT_EQ(settings.use_proxy, 1);
  EXPECT_STREQ(settings.proxy_address, "proxy.lan:8080");
  EXPECT_EQ(std::strncmp(settings.agent, "DiscHive ", 9), 0);

  ::XmlResponseReader* reader = create("xmlns:z='urn:z'");
  ASSERT_NE(reader, nullptr);
  _xmlDoc* doc = nullptr;
  EXPECT_EQ(load_xml(reader, "<a xmlns='urn:z'><b>x</b></a>", &doc), 0u);
  ASSERT_NE(doc, nullptr);
  free_doc(doc);
  EXPECT_EQ(load_xml(reader, "<a>", &doc), 0x80004005u);
  EXPECT_EQ(doc, nullptr);
  EXPECT_EQ(load_xml(reader, nullptr, &doc), 0x80070057u);
  destroy(reader);
}

struct Host {
  std::mutex mutex;
  std::vector<std::string> progress;
  int choices = 0;
  bool abandon_on_choice = false;
  DhvDiscRecord records[2] = {};
  DhvDiscLookupRequest request = {};
  static void Lock(void* context) { static_cast<Host*>(context)->mutex.lock(); }
  static void Unlock(void* context) { static_cast<Host*>(context)->mutex.unlock(); }
  ~Host() {
    for (DhvDiscRecord& r : records) {
      for (uint32_t i = 0; i < r.metadata.count; ++i)
        std::free(r.metadata.entries[i].text);
      std::free(r.metadata.entries);
    }
  }
};

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
  for (const DhvMetadataEntry& e : std::span(m.entries, m.count))
    if (e.fieldId == field && e.index == index && e.type == DHV_VALUE_TEXT) return e.text;
  return "";
}

TEST_F(ApiTest, BothLookupExportsWorkThroughTheHostsCallbacks) {
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
  for (const char* name : {"LookupDiscsFreedb", "LookupDiscsCddbp"}) {
    auto* lookup = Get<DHV_RESULT(DhvDiscLookupRequest*)>(name);
    ASSERT_NE(lookup, nullptr) << name;
    for (const bool abandon : {false, true}) {
      Host host;
      host.abandon_on_choice = abandon;
      host.records[0].toc = {0x0a0b0c03, 0, 3, {150, 15150, 30150}, 602};
      host.records[1].toc = {0x1000a002, 0, 2, {150, 15150}, 402};
      host.request = {&Host::Lock, &Host::Unlock, &host,   host.records, 2, &host,
                      &Post,       &Send,         0x8001u, 0x8002u,      0};
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
}

struct SubmitHost {
  std::mutex mutex;
  std::vector<std::string> progress;
  DhvSubmissionRecord records[2] = {};
  DhvSubmitRequest request = {};
  static void Lock(void* context) { static_cast<SubmitHost*>(context)->mutex.lock(); }
  static void Unlock(void* context) { static_cast<SubmitHost*>(context)->mutex.unlock(); }
  static void Post(void* owner, uint32_t, uintptr_t, char* text) {
    static_cast<SubmitHost*>(owner)->progress.push_back(text);
    std::free(text);
  }
};

TEST_F(ApiTest, SubmitExportsStoreEachEntrysResult) {
  test::LoopbackHttpServer http;
  std::string received;
  http.server().Post("/submit.cgi", [&](const httplib::Request& req, httplib::Response& res) {
    received = req.body;
    res.set_content("200 OK\n", "text/plain");
  });
  ASSERT_TRUE(http.Start());
  test::TempDir home;
  test::WriteFile(home / "dischive" / "dischive.ini",
                  "[internet2]\npreconfig_http_proxy=0\nsubmit_url=http://127.0.0.1:" +
                      std::to_string(http.port()) +
                      "/submit.cgi\nemail_address=me@example.org\nsmtp_server=127.0.0.1\n"
                      "smtp_server_port=1\n");
  const test::ScopedEnv config("XDG_CONFIG_HOME", home.path().string());
  auto* by_http = Get<DHV_RESULT(DhvSubmitRequest*)>("SubmitByHttp");
  auto* by_mail = Get<DHV_RESULT(DhvSubmitRequest*)>("SubmitByMail");
  ASSERT_NE(by_http, nullptr);
  ASSERT_NE(by_mail, nullptr);
  EXPECT_EQ(by_http(nullptr), 0x80070057u);

  SubmitHost host;
  for (DhvSubmissionRecord& r : host.records) {
    r.entry.category = "rock";
    r.entry.discId = 0x0a0b0c02;
    r.entry.trackCount = 2;
    r.entry.artist = "The Band";
    r.entry.title = "Songs";
    r.entry.trackTitle[0] = "One";
    r.entry.trackTitle[1] = "Two";
    r.entry.frameOffsets[0] = 150;
    r.entry.frameOffsets[1] = 15150;
    r.entry.frameOffsets[2] = 30150;
    r.result = 0xFFFFFFFF;
  }
  host.records[1].entry.category = nullptr;  // an incomplete record
  host.request = {&SubmitHost::Lock,
                  &SubmitHost::Unlock,
                  &host,
                  host.records,
                  2,
                  &host,
                  &SubmitHost::Post,
                  0x8001u};
  EXPECT_EQ(by_http(&host.request), 0u);
  EXPECT_EQ(host.records[0].result, 0u);
  EXPECT_EQ(host.records[1].result, 0x8111000Cu);
  EXPECT_NE(received.find("DTITLE=The Band / Songs\r\n"), std::string::npos);
  EXPECT_EQ(host.progress.size(), 2u);

  // Port 1 refuses the connection: the first SMTP step fails.
  EXPECT_EQ(by_mail(&host.request), 0u);
  EXPECT_EQ(host.records[0].result, 0x81110007u);
  host.request.submissions = nullptr;
  EXPECT_EQ(by_mail(&host.request), 0x80004004u);
}

TEST_F(ApiTest, BackupWrittenAndReadBack) {
  auto* write = Get<decltype(::WriteBackupFile)>("WriteBackupFile");
  auto* read = Get<decltype(::ReadBackupInfo)>("ReadBackupInfo");
  ASSERT_TRUE(write && read);

  test::TempDir dir;
  test::WriteFile(dir / "Music.dab", "database bytes");
  test::WriteFile(dir / "covers" / "a.jpg", "jpeg");
  const std::string db = (dir / "Music.dab").string();
  const std::string covers = (dir / "covers").string() + "/";
  const std::string out = (dir / "out.dhb").string();

  EXPECT_EQ(write("", covers.c_str(), out.c_str(), 1), 0);
  EXPECT_EQ(write(nullptr, covers.c_str(), out.c_str(), 1), 0);
  EXPECT_FALSE(std::filesystem::exists(out));
  ASSERT_EQ(write(db.c_str(), covers.c_str(), out.c_str(), 1), 1);
  EXPECT_NE(test::ReadFile(out).find(std::string("\x05#FILE\x05") + "a.jpg"), std::string::npos);
  EXPECT_EQ(write(db.c_str(), covers.c_str(), out.c_str(), 1), 0);  // never overwrites

  DHV_BACKUP_INFO info;
  std::memset(&info, 0, sizeof(info));
  EXPECT_EQ(read(out.c_str(), nullptr), 1);
  ASSERT_EQ(read(out.c_str(), &info), 1);
  EXPECT_EQ(info.version, 256u);
  EXPECT_STREQ(info.database_name, "Music.dab");

  std::memset(&info, 0, sizeof(info));
  EXPECT_EQ(read(db.c_str(), &info), 0);
  EXPECT_EQ(info.version, 0u);

  // A real catalogue: refused while a writer has it open, then backed up.
  const std::string catalogue = (dir / "Real.dab").string();
  const std::string second = (dir / "real.dhb").string();
  std::unique_ptr<CatalogEngine> writer = OpenSqliteCatalog(catalogue, CatalogOpenMode::kCreate);
  ASSERT_NE(writer, nullptr);
  ASSERT_EQ(writer->SetDatabaseProperty("db_opts", "k", "v"), kOk);
  EXPECT_EQ(write(catalogue.c_str(), nullptr, second.c_str(), 0), 0);
  EXPECT_FALSE(std::filesystem::exists(second));
  writer.reset();
  EXPECT_EQ(write(catalogue.c_str(), nullptr, second.c_str(), 0), 1);
  EXPECT_NE(test::ReadFile(second).find("\x05#INCR\x05#META"), std::string::npos);
}

}  // namespace
}  // namespace dischive
