// The HTTP, transcript, error-text and XML exports, called through the shared
// library as a host would.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "dhvapi.h"
#include "support/loopback_http.h"
#include "support/temp_dir.h"

namespace dischive {
namespace {

class NetApiTest : public ::testing::Test {
 protected:
  void SetUp() override {
    library_ = ::dlopen(DHVAPI_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library_, nullptr) << ::dlerror();
  }
  void TearDown() override {
    if (library_ != nullptr) ::dlclose(library_);
  }
  template <typename F>
  F* Get(const char* name) {
    return reinterpret_cast<F*>(::dlsym(library_, name));
  }
  void* library_ = nullptr;
};

uint32_t AnswerWithCredentials(void* context, ::HttpRequest* request, uint32_t error,
                               uint32_t status) {
  ++*static_cast<int*>(context);
  if (error != 0 || status != 401) return 1223;
  std::strcpy(request->user, "user");
  std::strcpy(request->password, "secret");
  return 12032;
}

TEST_F(NetApiTest, PerformHttpRequestFillsTheRecord) {
  test::LoopbackHttpServer server;
  server.server().Post("/echo", [](const httplib::Request& req, httplib::Response& res) {
    res.set_content(req.body + "|" + req.get_header_value("X-Extra"), "text/plain");
  });
  server.server().Get("/auth", [](const httplib::Request& req, httplib::Response& res) {
    if (req.get_header_value("Authorization") == "Basic dXNlcjpzZWNyZXQ=") {
      res.set_content("welcome", "text/plain");
    } else {
      res.status = 401;
      res.set_header("WWW-Authenticate", "Basic realm=\"r\"");
    }
  });
  ASSERT_TRUE(server.Start());
  auto* perform = Get<DHV_RESULT(::HttpRequest*)>("PerformHttpRequest");
  auto* transcript = Get<DHV_RESULT(char**, const ::HttpRequest*)>("FormatHttpTranscript");
  ASSERT_NE(perform, nullptr);
  ASSERT_NE(transcript, nullptr);

  auto* r = static_cast<::HttpRequest*>(std::calloc(1, sizeof(::HttpRequest)));
  r->access_type = 1;
  std::strcpy(r->agent, "DiscHive 1.0");
  r->server = "127.0.0.1";
  r->port = static_cast<uint32_t>(server.port());
  r->object = "/echo";
  r->verb = "POST";
  r->extra_headers = "X-Extra: yes\r\n";
  const char body[] = "<Param><Name>password</Name><Value>pw</Value></Param>";
  r->body = body;
  r->body_length = sizeof body - 1;
  ASSERT_EQ(perform(r), 0u);
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

  // The prompt fills the credentials and asks for a retry.
  std::memset(r, 0, sizeof *r);
  int asked = 0;
  r->access_type = 1;
  r->server = "127.0.0.1";
  r->port = static_cast<uint32_t>(server.port());
  r->object = "/auth";
  r->prompt = &AnswerWithCredentials;
  r->prompt_context = &asked;
  ASSERT_EQ(perform(r), 0u);
  EXPECT_EQ(r->status_code, 200u);
  EXPECT_EQ(asked, 1);
  std::free(r->sent_headers);
  std::free(r->response_headers);
  std::free(r->response_body);

  // Bad records are refused without a crash.
  std::memset(r, 0, sizeof *r);
  EXPECT_EQ(perform(r), 87u);  // no server
  EXPECT_EQ(perform(nullptr), 87u);
  std::free(r);
}

TEST_F(NetApiTest, TextsSettingsAndXml) {
  auto* append = Get<DHV_RESULT(char**, const char*, int)>("AppendTranscriptLines");
  auto* format_error = Get<char*(DHV_RESULT)>("FormatErrorMessage");
  auto* load_settings = Get<DHV_RESULT(::InternetSettings*)>("LoadInternetSettings");
  auto* create = Get<::XmlResponseReader*(const char*)>("CreateXmlResponseReader");
  auto* destroy = Get<void(::XmlResponseReader*)>("DestroyXmlResponseReader");
  auto* load_xml = Get<DHV_RESULT(::XmlResponseReader*, const char*, _xmlDoc**)>("LoadXmlResponse");
  ASSERT_TRUE(append && format_error && load_settings && create && destroy && load_xml);

  char* text = nullptr;
  ASSERT_EQ(append(&text, "a\nb", 2), 0u);
  ASSERT_EQ(append(&text, "c\r\n", 1), 0u);
  ASSERT_EQ(append(&text, "note", 0), 0u);
  EXPECT_STREQ(text, ">| a\r\n>| b<| c\r\nnote");
  std::free(text);

  char* message = format_error(12002);
  EXPECT_STREQ(message, "The operation timed out.");
  std::free(message);

  // The library's settings file, in a private configuration folder.
  test::TempDir home;
  test::WriteFile(home / "dischive" / "dischive.ini",
                  "[internet2]\npreconfig_http_proxy=0\nuse_http_proxy=1\n"
                  "http_proxy_address=proxy.lan\nhttp_proxy_port=8080\n");
  const char* old_home = std::getenv("XDG_CONFIG_HOME");
  const std::string saved = old_home != nullptr ? old_home : "";
  setenv("XDG_CONFIG_HOME", home.path().c_str(), 1);
  ::InternetSettings settings;
  std::memset(&settings, 0x55, sizeof settings);
  const DHV_RESULT loaded = load_settings(&settings);
  if (old_home != nullptr) {
    setenv("XDG_CONFIG_HOME", saved.c_str(), 1);
  } else {
    unsetenv("XDG_CONFIG_HOME");
  }
  ASSERT_EQ(loaded, 0u);
  EXPECT_EQ(settings.preconfigured, 0);
  EXPECT_EQ(settings.use_proxy, 1);
  EXPECT_STREQ(settings.proxy_address, "proxy.lan:8080");
  EXPECT_EQ(std::strncmp(settings.agent, "DiscHive ", 9), 0);

  ::XmlResponseReader* reader = create("xmlns:z='urn:z'");
  ASSERT_NE(reader, nullptr);
  _xmlDoc* doc = nullptr;
  EXPECT_EQ(load_xml(reader, "<a xmlns='urn:z'><b>x</b></a>", &doc), 0u);
  EXPECT_NE(doc, nullptr);
  auto* free_doc = reinterpret_cast<void (*)(_xmlDoc*)>(::dlsym(RTLD_DEFAULT, "xmlFreeDoc"));
  ASSERT_NE(free_doc, nullptr);
  free_doc(doc);
  EXPECT_EQ(load_xml(reader, "<a>", &doc), 0x80004005u);
  EXPECT_EQ(doc, nullptr);
  EXPECT_EQ(load_xml(reader, nullptr, &doc), 0x80070057u);
  destroy(reader);
}

}  // namespace
}  // namespace dischive
