// TLS on port 443 against a real TLS server with a self-signed certificate:
// the certificate problem goes to the prompt, whose answer decides.
#include <gtest/gtest.h>
#include <httplib.h>

#include <cstdlib>
#include <thread>

#include "dischive/http.h"
#include "support/temp_dir.h"

namespace dischive {
namespace {

class HttpTlsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string command =
        "openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=localhost "
        "-addext subjectAltName=DNS:localhost,IP:127.0.0.1 -keyout '" +
        (dir_ / "key.pem").string() + "' -out '" + (dir_ / "cert.pem").string() +
        "' >/dev/null 2>&1";
    if (std::system(command.c_str()) != 0) GTEST_SKIP() << "openssl cannot make a certificate";
    server_ = std::make_unique<httplib::SSLServer>((dir_ / "cert.pem").c_str(),
                                                   (dir_ / "key.pem").c_str());
    server_->Get("/", [](const httplib::Request&, httplib::Response& res) {
      res.set_content("secure", "text/plain");
    });
    // The transport speaks TLS on port 443 only, which takes privileges.
    if (!server_->bind_to_port("127.0.0.1", 443)) GTEST_SKIP() << "cannot listen on port 443";
    thread_ = std::thread([this] { server_->listen_after_bind(); });
    while (!server_->is_running())
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  void TearDown() override {
    if (server_) server_->stop();
    if (thread_.joinable()) thread_.join();
  }

  static HttpRequest Get() {
    HttpRequest r;
    r.access_type = AccessType::kDirect;
    r.server = "127.0.0.1";
    r.port = 443;
    r.object = "/";
    return r;
  }

  test::TempDir dir_;
  std::unique_ptr<httplib::SSLServer> server_;
  std::thread thread_;
};

TEST_F(HttpTlsTest, UntrustedCertificateGoesToThePrompt) {
  HttpRequest unasked = Get();
  EXPECT_EQ(PerformHttpRequest(unasked), 12045u);
  EXPECT_TRUE(unasked.response_body.empty());

  HttpRequest cancelled = Get();
  cancelled.prompt = [](HResult, uint32_t) { return kPromptCancel; };
  EXPECT_EQ(PerformHttpRequest(cancelled), kErrorCancelled);

  HttpRequest accepted = Get();
  std::vector<HResult> asked;
  accepted.prompt = [&](HResult error, uint32_t) {
    asked.push_back(error);
    return kPromptRetry;
  };
  ASSERT_EQ(PerformHttpRequest(accepted), kOk);
  EXPECT_EQ(accepted.status_code, 200u);
  EXPECT_EQ(accepted.response_body, "secure");
  EXPECT_EQ(asked, std::vector<HResult>{12045u});
}

}  // namespace
}  // namespace dischive
