#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <functional>
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
    const std::pair<const char*, const std::string*> fixed[] = {
        {"/empty", &empty_}, {"/big", &big_}, {"/text", &text_}};
    for (const auto& [path, body] : fixed)
      s.Get(path, [content = body](const httplib::Request&, httplib::Response& res) {
        res.set_content(*content, "text/plain");
      });
    s.Get("/(moved|found)", [](const httplib::Request& req, httplib::Response& res) {
      const bool moved = req.matches[1] == "moved";
      res.status = moved ? 301 : 302;
      res.set_header("Location", "/empty");
      res.set_content(moved ? "moved here" : "found there", "text/plain");
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
      std::string echo;
      for (const char* name : {"User-Agent", "X-One", "Accept", "Via"})
        echo += req.get_header_value(name) + "|";
      res.set_content(echo + std::to_string(req.remote_port), "text/plain");
    });
    s.Post("/echo", [](const httplib::Request& req, httplib::Response& res) {
      res.set_content(req.body + "|" + req.get_header_value("Content-Type"), "text/plain");
    });
    s.Get("/cut", [](const httplib::Request&, httplib::Response& res) {
      res.set_content_provider(
          100000, "application/octet-stream", [](size_t offset, size_t, httplib::DataSink& sink) {
            // At 3000 bytes the connection drops.
            return offset < 3000 && sink.write(std::string(1000, 'x').data(), 1000);
          });
    });
    s.Get("/chunked", [](const httplib::Request&, httplib::Response& res) {
      res.set_chunked_content_provider("text/plain", [](size_t offset, httplib::DataSink& sink) {
        if (offset >= 3000) return sink.done(), true;
        return sink.write(std::string(1000, 'x').data(), 1000);
      });
    });
    s.Get("/trickle", [](const httplib::Request&, httplib::Response& res) {
      res.set_content_provider(4u << 20, "application/octet-stream",
                               [](size_t, size_t, httplib::DataSink& sink) {
                                 std::this_thread::sleep_for(std::chrono::milliseconds(2));
                                 return sink.write(std::string(64 << 10, 't').data(), 64 << 10);
                               });
    });
    s.Get("/drip", [](const httplib::Request&, httplib::Response& res) {
      // One byte every 50 ms for 10 s: never idle long enough for a receive
      // time-out, so only the overall deadline can end it early.
      res.set_chunked_content_provider("text/plain", [](size_t offset, httplib::DataSink& sink) {
        if (offset >= 200) return sink.done(), true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        return sink.write("d", 1);
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
  // Sends a request to `object` after `edit` and checks its result.
  HttpRequest Fetch(const std::string& object, HResult expected = kOk,
                    const std::function<void(HttpRequest&)>& edit = {}) {
    HttpRequest r = Get(object);
    if (edit) edit(r);
    EXPECT_EQ(PerformHttpRequest(r), expected) << object;
    return r;
  }

  const std::string empty_, big_ = PatternBytes(10u << 20);
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
  const HttpRequest empty = Fetch("/empty");
  EXPECT_EQ(empty.status_code, 200u);
  EXPECT_TRUE(empty.response_body.empty());
  EXPECT_EQ(empty.response_headers.rfind("HTTP/1.1 200", 0), 0u);
  EXPECT_TRUE(empty.response_headers.ends_with("\r\n\r\n"));
  EXPECT_EQ(empty.sent_headers.rfind("GET /empty HTTP/1.1\r\n", 0), 0u);

  const HttpRequest big = Fetch("/big");
  EXPECT_EQ(big.status_code, 200u);
  EXPECT_TRUE(big.response_body == big_) << "size " << big.response_body.size();

  // Redirects reach the caller as they are, with their bodies.
  for (const auto& [path, status, body] :
       {std::tuple{"/moved", 301u, "moved here"}, std::tuple{"/found", 302u, "found there"}}) {
    const HttpRequest r = Fetch(path);
    EXPECT_EQ(r.status_code, status);
    EXPECT_EQ(r.response_body, body);
  }
}

TEST_F(HttpSessionTest, HeadersAgentAndPostBody) {
  const HttpRequest echo = Fetch("/headers", kOk, [](HttpRequest& r) {
    r.extra_headers = "X-One: first\r\nUser-Agent: replaced\r\n";
  });
  EXPECT_EQ(echo.response_body.substr(0, echo.response_body.rfind('|')), "replaced|first||");
  EXPECT_NE(echo.sent_headers.find("X-One: first\r\n"), std::string::npos);

  const HttpRequest post = Fetch("/echo", kOk, [](HttpRequest& r) {
    r.verb = "POST";
    r.body = "a=1&b=2";
    r.extra_headers = "Content-Type: application/x-test";
  });
  EXPECT_EQ(post.response_body, "a=1&b=2|application/x-test");
  Fetch("/empty\r\nX-Injected: 1", 12005u);
}

TEST_F(HttpSessionTest, DecodingAsksForAndUndoesCompression) {
  const HttpRequest plain = Fetch("/text");
  EXPECT_EQ(plain.response_body, text_);
  EXPECT_EQ(plain.sent_headers.find("Accept-Encoding"), std::string::npos);
  EXPECT_EQ(plain.response_headers.find("Content-Encoding"), std::string::npos);

  const HttpRequest decoded = Fetch("/text", kOk, [](HttpRequest& r) { r.decoding = true; });
  EXPECT_NE(decoded.sent_headers.find("Accept-Encoding: "), std::string::npos);
  EXPECT_NE(decoded.response_headers.find("Content-Encoding: "), std::string::npos)
      << decoded.response_headers;
  EXPECT_EQ(decoded.response_body, text_);
}

TEST_F(HttpSessionTest, ProgressReportsAndCancels) {
  uint64_t last = 0, expected = 0;
  bool ordered = true;
  Fetch("/big", kOk, [&](HttpRequest& r) {
    r.progress = [&](uint64_t received, uint64_t total) {
      ordered &= received >= last;
      last = received;
      expected = total;
      return true;
    };
  });
  EXPECT_TRUE(ordered);
  EXPECT_EQ(last, big_.size());
  EXPECT_EQ(expected, big_.size());

  const HttpRequest cancelled = Fetch("/trickle", 12017u, [](HttpRequest& r) {
    r.progress = [](uint64_t got, uint64_t) { return got < (256u << 10); };
  });
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
    const HttpRequest denied = Fetch("/auth", kOk, [&](HttpRequest& r) {
      if (with_prompt) r.prompt = [](HResult, uint32_t) { return kPromptContinue; };
    });
    EXPECT_EQ(denied.status_code, 401u);
    EXPECT_EQ(denied.response_body, "denied");
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
  const HttpRequest cancel = Fetch("/auth", kErrorCancelled, [](HttpRequest& r) {
    r.prompt = [](HResult, uint32_t) { return kPromptCancel; };
  });
  EXPECT_EQ(auth_hits_, 1);
  EXPECT_TRUE(cancel.response_body.empty());

  // Any other answer is the error.
  Fetch("/auth", 12017u,
        [](HttpRequest& r) { r.prompt = [](HResult, uint32_t) { return 12017u; }; });
}

TEST_F(HttpSessionTest, BrokenResponsesKeepWhatArrived) {
  HttpRequest cut = Get("/cut");
  const HResult error = PerformHttpRequest(cut);
  EXPECT_TRUE(error == 12030u || error == 12031u) << error;
  EXPECT_EQ(cut.status_code, 200u);
  EXPECT_EQ(cut.response_body, std::string(3000, 'x'));
  EXPECT_FALSE(cut.response_headers.empty());

  const HttpRequest stall = Fetch(
      "/stall", 12002u, [](HttpRequest& r) { r.receive_timeout = std::chrono::milliseconds(300); });
  EXPECT_EQ(stall.response_body, "abcd");

  const auto start = std::chrono::steady_clock::now();
  const HttpRequest drip = Fetch("/drip", 12002u, [](HttpRequest& r) {
    r.receive_timeout = std::chrono::milliseconds(2000);
    r.deadline = std::chrono::milliseconds(700);
  });
  const auto took = std::chrono::steady_clock::now() - start;
  EXPECT_GE(took, std::chrono::milliseconds(650));
  EXPECT_LT(took, std::chrono::milliseconds(2500));
  EXPECT_EQ(drip.status_code, 200u);
  EXPECT_FALSE(drip.response_body.empty());
  EXPECT_LT(drip.response_body.size(), 100u);

  // Announced beyond the limit, and grown beyond it.
  const HttpRequest limited =
      Fetch("/big", kHttpBodyTooLarge, [](HttpRequest& r) { r.max_body = 1 << 20; });
  EXPECT_LE(limited.response_body.size(), size_t{1} << 20);
  const HttpRequest grown =
      Fetch("/chunked", kHttpBodyTooLarge, [](HttpRequest& r) { r.max_body = 1500; });
  EXPECT_EQ(grown.response_body, std::string(1500, 'x'));
}

TEST_F(HttpSessionTest, ConnectionFailuresUseWinInetNumbers) {
  uint16_t closed_port = 0;
  {
    LoopbackHttpServer closed;
    ASSERT_TRUE(closed.Start());
    closed_port = static_cast<uint16_t>(closed.port());
  }
  Fetch("/", 12029u, [&](HttpRequest& r) { r.port = closed_port; });
  Fetch("/", 12007u, [](HttpRequest& r) { r.server = "no-such-host.invalid"; });
  Fetch("/", 12005u, [](HttpRequest& r) { r.server = "127.0.0.1/evil"; });
  Fetch("/", 87u, [](HttpRequest& r) { r.access_type = AccessType::kNamedProxy; });
}

// Sets (or clears) an environment variable for one scope.
struct ScopedEnv {
  ScopedEnv(const char* name, const char* value) : name(name) {
    if (const char* old_value = std::getenv(name)) old = old_value;
    value != nullptr ? setenv(name, value, 1) : unsetenv(name);
  }
  ~ScopedEnv() { old ? setenv(name, old->c_str(), 1) : unsetenv(name); }
  const char* name;
  std::optional<std::string> old;
};

TEST_F(HttpSessionTest, AccessTypesChooseTheProxy) {
  test::TinyproxyProcess proxy;
  ASSERT_TRUE(proxy.Start()) << proxy.error();
  const auto via = [&](const std::function<void(HttpRequest&)>& edit) {
    const HttpRequest r = Fetch("/headers", kOk, edit);
    return r.response_body.find(test::TinyproxyProcess::kViaName) != std::string::npos;
  };
  const auto named = [&](HttpRequest& r) {
    r.access_type = AccessType::kNamedProxy;
    r.proxy = proxy.address();
  };
  EXPECT_TRUE(via(named));
  // A bypassed host goes direct even with a named proxy.
  EXPECT_FALSE(via([&](HttpRequest& r) {
    named(r);
    r.proxy_bypass = "example.org; 127.0.0.1";
  }));

  // The environment's proxy counts for the system configuration only.
  ScopedEnv http_proxy("http_proxy", ("http://" + proxy.address()).c_str());
  ScopedEnv no_proxy("no_proxy", nullptr);
  ScopedEnv no_proxy_upper("NO_PROXY", nullptr);
  EXPECT_TRUE(via([](HttpRequest& r) { r.access_type = AccessType::kPreconfigured; }));
  EXPECT_FALSE(via({}));
}

}  // namespace
}  // namespace dischive
