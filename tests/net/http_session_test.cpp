#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <optional>
#include <string>
#include <thread>

#include "dischive/http.h"
#include "support/loopback_http.h"
#include "support/tinyproxy.h"

namespace dischive {
namespace {

using test::LoopbackHttpServer;

std::string PatternBytes(size_t size) {
  std::string out(size, '\0');
  for (size_t i = 0; i < size; ++i)
    out[i] = static_cast<char>((i * 131 + i / 251) & 0xFF);
  return out;
}

class HttpSessionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    auto& s = server_.server();
    s.Get("/empty", [](const httplib::Request&, httplib::Response& res) {
      res.set_content("", "text/plain");
    });
    s.Get("/big", [this](const httplib::Request&, httplib::Response& res) {
      res.set_content(big_, "application/octet-stream");
    });
    s.Get("/moved", [](const httplib::Request&, httplib::Response& res) {
      res.status = 301;
      res.set_header("Location", "/empty");
      res.set_content("moved here", "text/plain");
    });
    s.Get("/found", [](const httplib::Request&, httplib::Response& res) {
      res.status = 302;
      res.set_header("Location", "/empty");
      res.set_content("found there", "text/plain");
    });
    s.Get("/auth", [this](const httplib::Request& req, httplib::Response& res) {
      ++auth_hits_;
      if (req.get_header_value("Authorization") == "Basic dXNlcjpzZWNyZXQ=") {
        res.set_content("welcome", "text/plain");
        return;
      }
      res.status = 401;
      res.set_header("WWW-Authenticate", "Basic realm=\"test\"");
      res.set_content("denied", "text/plain");
    });
    s.Get("/headers", [](const httplib::Request& req, httplib::Response& res) {
      res.set_content(req.get_header_value("User-Agent") + "|" + req.get_header_value("X-One") +
                          "|" + req.get_header_value("Accept") + "|" +
                          std::to_string(req.remote_port),
                      "text/plain");
    });
    s.Get("/via", [](const httplib::Request& req, httplib::Response& res) {
      res.set_content(req.get_header_value("Via"), "text/plain");
    });
    s.Get("/text", [this](const httplib::Request&, httplib::Response& res) {
      res.set_content(text_, "text/plain");
    });
    s.Post("/echo", [](const httplib::Request& req, httplib::Response& res) {
      res.set_content(req.body + "|" + req.get_header_value("Content-Type"), "text/plain");
    });
    s.Get("/cut", [](const httplib::Request&, httplib::Response& res) {
      res.set_content_provider(100000, "application/octet-stream",
                               [](size_t offset, size_t, httplib::DataSink& sink) {
                                 if (offset >= 3000) return false;  // drop the connection
                                 sink.write(std::string(1000, 'x').data(), 1000);
                                 return true;
                               });
    });
    s.Get("/chunked", [](const httplib::Request&, httplib::Response& res) {
      res.set_chunked_content_provider("text/plain", [](size_t offset, httplib::DataSink& sink) {
        if (offset >= 3000) {
          sink.done();
        } else {
          sink.write(std::string(1000, 'x').data(), 1000);
        }
        return true;
      });
    });
    s.Get("/trickle", [](const httplib::Request&, httplib::Response& res) {
      res.set_content_provider(4u << 20, "application/octet-stream",
                               [](size_t, size_t, httplib::DataSink& sink) {
                                 std::this_thread::sleep_for(std::chrono::milliseconds(2));
                                 return sink.write(std::string(64 << 10, 't').data(), 64 << 10);
                               });
    });
    s.Get("/stall", [](const httplib::Request&, httplib::Response& res) {
      res.set_content_provider(100000, "application/octet-stream",
                               [](size_t offset, size_t, httplib::DataSink& sink) {
                                 if (offset > 0) {
                                   std::this_thread::sleep_for(std::chrono::milliseconds(2500));
                                   return false;
                                 }
                                 sink.write("abcd", 4);
                                 return true;
                               });
    });
    ASSERT_TRUE(server_.Start());
  }

  HttpRequest Get(const std::string& object) {
    HttpRequest r;
    r.access_type = AccessType::kDirect;
    r.agent = "DiscHive 1.0";
    r.server = "127.0.0.1";
    r.port = static_cast<uint16_t>(server_.port());
    r.object = object;
    return r;
  }

  const std::string big_ = PatternBytes(10u << 20);
  const std::string text_ = [] {
    std::string t;
    for (int i = 0; i < 2000; ++i)
      t += "line " + std::to_string(i) + " of the text body\n";
    return t;
  }();
  std::atomic<int> auth_hits_{0};
  LoopbackHttpServer server_;
};

TEST_F(HttpSessionTest, BodiesAndStatusesComeBackAsSent) {
  HttpRequest empty = Get("/empty");
  ASSERT_EQ(PerformHttpRequest(empty), kOk);
  EXPECT_EQ(empty.status_code, 200u);
  EXPECT_EQ(empty.response_body.size(), 0u);
  EXPECT_EQ(empty.response_body.c_str()[0], '\0');
  EXPECT_EQ(empty.response_headers.rfind("HTTP/1.1 200", 0), 0u);
  EXPECT_TRUE(empty.response_headers.ends_with("\r\n\r\n"));
  EXPECT_EQ(empty.sent_headers.rfind("GET /empty HTTP/1.1\r\n", 0), 0u);

  HttpRequest big = Get("/big");
  ASSERT_EQ(PerformHttpRequest(big), kOk);
  EXPECT_EQ(big.status_code, 200u);
  EXPECT_TRUE(big.response_body == big_) << "size " << big.response_body.size();

  // Redirects reach the caller as they are, with their bodies.
  for (const auto& [path, status, body] :
       {std::tuple{"/moved", 301u, "moved here"}, std::tuple{"/found", 302u, "found there"}}) {
    HttpRequest r = Get(path);
    ASSERT_EQ(PerformHttpRequest(r), kOk) << path;
    EXPECT_EQ(r.status_code, status);
    EXPECT_EQ(r.response_body, body);
  }
}

TEST_F(HttpSessionTest, HeadersAgentAndPostBody) {
  HttpRequest r = Get("/headers");
  r.extra_headers = "X-One: first\r\nUser-Agent: replaced\r\n";
  ASSERT_EQ(PerformHttpRequest(r), kOk);
  EXPECT_EQ(r.response_body.substr(0, r.response_body.rfind('|')), "replaced|first|");
  EXPECT_NE(r.sent_headers.find("X-One: first\r\n"), std::string::npos);

  HttpRequest post = Get("/echo");
  post.verb = "POST";
  post.body = "a=1&b=2";
  post.extra_headers = "Content-Type: application/x-test";
  ASSERT_EQ(PerformHttpRequest(post), kOk);
  EXPECT_EQ(post.response_body, "a=1&b=2|application/x-test");

  HttpRequest bad = Get("/empty\r\nX-Injected: 1");
  EXPECT_EQ(PerformHttpRequest(bad), 12005u);
}

TEST_F(HttpSessionTest, DecodingAsksForAndUndoesCompression) {
  HttpRequest plain = Get("/text");
  ASSERT_EQ(PerformHttpRequest(plain), kOk);
  EXPECT_EQ(plain.response_body, text_);
  EXPECT_EQ(plain.sent_headers.find("Accept-Encoding"), std::string::npos);
  EXPECT_EQ(plain.response_headers.find("Content-Encoding"), std::string::npos);

  HttpRequest decoded = Get("/text");
  decoded.decoding = true;
  ASSERT_EQ(PerformHttpRequest(decoded), kOk);
  EXPECT_NE(decoded.sent_headers.find("Accept-Encoding: "), std::string::npos);
  EXPECT_NE(decoded.response_headers.find("Content-Encoding: "), std::string::npos)
      << decoded.response_headers;
  EXPECT_EQ(decoded.response_body, text_);
}

TEST_F(HttpSessionTest, ProgressReportsAndCancels) {
  HttpRequest r = Get("/big");
  uint64_t last = 0, expected = 0;
  bool ordered = true;
  r.progress = [&](uint64_t received, uint64_t total) {
    ordered &= received >= last;
    last = received;
    expected = total;
    return true;
  };
  ASSERT_EQ(PerformHttpRequest(r), kOk);
  EXPECT_TRUE(ordered);
  EXPECT_EQ(last, big_.size());
  EXPECT_EQ(expected, big_.size());

  HttpRequest cancelled = Get("/trickle");
  cancelled.progress = [](uint64_t received, uint64_t) { return received < (256u << 10); };
  EXPECT_EQ(PerformHttpRequest(cancelled), 12017u);
  EXPECT_EQ(cancelled.status_code, 200u);
  EXPECT_GE(cancelled.response_body.size(), size_t{256} << 10);
  EXPECT_LT(cancelled.response_body.size(), size_t{4} << 20);
}

TEST_F(HttpSessionTest, SessionKeepsItsConnection) {
  HttpSession session;
  HttpRequest first = Get("/headers");
  ASSERT_EQ(ExecuteHttpRequest(first, session), kOk);
  EXPECT_TRUE(session.is_open());
  HttpRequest second = Get("/headers");
  ASSERT_EQ(ExecuteHttpRequest(second, session), kOk);
  const auto port_of = [](const std::string& body) { return body.substr(body.rfind('|') + 1); };
  EXPECT_EQ(port_of(first.response_body), port_of(second.response_body));
  CloseHttpSession(session);
  EXPECT_FALSE(session.is_open());
  HttpRequest third = Get("/headers");
  ASSERT_EQ(ExecuteHttpRequest(third, session), kOk);
  EXPECT_NE(port_of(first.response_body), port_of(third.response_body));
}

TEST_F(HttpSessionTest, PromptOutcomesDriveTheSendLoop) {
  // No prompt and "continue": the 401 comes back as it is, sent once.
  for (const bool with_prompt : {false, true}) {
    auth_hits_ = 0;
    HttpRequest r = Get("/auth");
    if (with_prompt) r.prompt = [](HResult, uint32_t) { return kPromptContinue; };
    ASSERT_EQ(PerformHttpRequest(r), kOk);
    EXPECT_EQ(r.status_code, 401u);
    EXPECT_EQ(r.response_body, "denied");
    EXPECT_EQ(auth_hits_, 1);
  }

  // Retry: the prompt supplies credentials and the request goes again.
  auth_hits_ = 0;
  HttpRequest retry = Get("/auth");
  int asked = 0;
  retry.prompt = [&](HResult error, uint32_t status) {
    EXPECT_EQ(error, kOk);
    EXPECT_EQ(status, 401u);
    ++asked;
    retry.user = "user";
    retry.password = "secret";
    return kPromptRetry;
  };
  ASSERT_EQ(PerformHttpRequest(retry), kOk);
  EXPECT_EQ(retry.status_code, 200u);
  EXPECT_EQ(retry.response_body, "welcome");
  EXPECT_EQ(asked, 1);
  EXPECT_EQ(auth_hits_, 2);

  // Cancel ends the request with 1223 and no response.
  auth_hits_ = 0;
  HttpRequest cancel = Get("/auth");
  cancel.prompt = [](HResult, uint32_t) { return kPromptCancel; };
  EXPECT_EQ(PerformHttpRequest(cancel), kErrorCancelled);
  EXPECT_EQ(auth_hits_, 1);
  EXPECT_TRUE(cancel.response_body.empty());

  // Any other answer is the error.
  HttpRequest other = Get("/auth");
  other.prompt = [](HResult, uint32_t) { return 12017u; };
  EXPECT_EQ(PerformHttpRequest(other), 12017u);
}

TEST_F(HttpSessionTest, BrokenResponsesKeepWhatArrived) {
  HttpRequest cut = Get("/cut");
  const HResult error = PerformHttpRequest(cut);
  EXPECT_TRUE(error == 12030u || error == 12031u) << error;
  EXPECT_EQ(cut.status_code, 200u);
  EXPECT_EQ(cut.response_body, std::string(3000, 'x'));
  EXPECT_FALSE(cut.response_headers.empty());

  HttpRequest stall = Get("/stall");
  stall.receive_timeout = std::chrono::milliseconds(300);
  EXPECT_EQ(PerformHttpRequest(stall), 12002u);
  EXPECT_EQ(stall.response_body, "abcd");

  // Announced beyond the limit, and grown beyond it.
  HttpRequest limited = Get("/big");
  limited.max_body = 1 << 20;
  EXPECT_EQ(PerformHttpRequest(limited), kHttpBodyTooLarge);
  EXPECT_LE(limited.response_body.size(), size_t{1} << 20);
  HttpRequest grown = Get("/chunked");
  grown.max_body = 1500;
  EXPECT_EQ(PerformHttpRequest(grown), kHttpBodyTooLarge);
  EXPECT_EQ(grown.response_body, std::string(1500, 'x'));
}

TEST_F(HttpSessionTest, ConnectionFailuresUseWinInetNumbers) {
  HttpRequest refused = Get("/");
  {
    LoopbackHttpServer closed;
    ASSERT_TRUE(closed.Start());
    refused.port = static_cast<uint16_t>(closed.port());
  }
  EXPECT_EQ(PerformHttpRequest(refused), 12029u);

  HttpRequest unresolved = Get("/");
  unresolved.server = "no-such-host.invalid";
  EXPECT_EQ(PerformHttpRequest(unresolved), 12007u);

  HttpRequest bad_server = Get("/");
  bad_server.server = "127.0.0.1/evil";
  EXPECT_EQ(PerformHttpRequest(bad_server), 12005u);

  HttpRequest no_proxy_name = Get("/");
  no_proxy_name.access_type = AccessType::kNamedProxy;
  EXPECT_EQ(PerformHttpRequest(no_proxy_name), 87u);
}

// Sets (or clears) environment variables for one scope.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value) : name_(name) {
    if (const char* old = std::getenv(name)) old_ = old;
    if (value != nullptr) {
      setenv(name, value, 1);
    } else {
      unsetenv(name);
    }
  }
  ~ScopedEnv() {
    if (old_) {
      setenv(name_, old_->c_str(), 1);
    } else {
      unsetenv(name_);
    }
  }

 private:
  const char* name_;
  std::optional<std::string> old_;
};

TEST_F(HttpSessionTest, AccessTypesChooseTheProxy) {
  test::TinyproxyProcess proxy;
  ASSERT_TRUE(proxy.Start()) << proxy.error();
  const std::string via = test::TinyproxyProcess::kViaName;

  HttpRequest named = Get("/via");
  named.access_type = AccessType::kNamedProxy;
  named.proxy = proxy.address();
  ASSERT_EQ(PerformHttpRequest(named), kOk);
  EXPECT_EQ(named.status_code, 200u);
  EXPECT_NE(named.response_body.find(via), std::string::npos) << named.response_body;

  // The environment's proxy counts for the system configuration only.
  ScopedEnv http_proxy("http_proxy", ("http://" + proxy.address()).c_str());
  ScopedEnv no_proxy("no_proxy", nullptr);
  ScopedEnv no_proxy_upper("NO_PROXY", nullptr);
  HttpRequest preconfigured = Get("/via");
  preconfigured.access_type = AccessType::kPreconfigured;
  ASSERT_EQ(PerformHttpRequest(preconfigured), kOk);
  EXPECT_NE(preconfigured.response_body.find(via), std::string::npos);

  HttpRequest direct = Get("/via");
  ASSERT_EQ(PerformHttpRequest(direct), kOk);
  EXPECT_EQ(direct.response_body.find(via), std::string::npos) << direct.response_body;

  // A bypassed host goes direct even with a named proxy.
  HttpRequest bypassed = Get("/via");
  bypassed.access_type = AccessType::kNamedProxy;
  bypassed.proxy = proxy.address();
  bypassed.proxy_bypass = "example.org; 127.0.0.1";
  ASSERT_EQ(PerformHttpRequest(bypassed), kOk);
  EXPECT_EQ(bypassed.response_body.find(via), std::string::npos);
}

}  // namespace
}  // namespace dischive
