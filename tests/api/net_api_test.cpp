// The HTTP, transcript, settings and XML exports, called through the shared
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

uint32_t AnswerWithCredentials(void* context, ::HttpRequest* request, uint32_t error,
                               uint32_t status) {
  ++*static_cast<int*>(context);
  if (error != 0 || status != 401) return 1223;
  std::strcpy(request->user, "user");
  std::strcpy(request->password, "secret");
  return 12032;
}

TEST_F(NetApiTest, PerformHttpRequestFillsTheRecordAndAsksThePrompt) {
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
  EXPECT_EQ(perform(nullptr), 87u);

  auto* r = static_cast<::HttpRequest*>(std::calloc(1, sizeof(::HttpRequest)));
  int asked = 0;
  r->prompt = &AnswerWithCredentials;
  r->prompt_context = &asked;
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
}

TEST_F(NetApiTest, SettingsAndXml) {
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

}  // namespace
}  // namespace dischive
