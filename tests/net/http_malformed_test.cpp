// Servers that answer badly: every reply gets a WinINet-numbered result and
// whatever body arrived, never a crash or a hang.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include "dischive/http.h"

namespace dischive {
namespace {

// Accepts one connection at a time on 127.0.0.1, reads the request headers,
// writes a canned reply and closes.
class CannedServer {
 public:
  explicit CannedServer(std::string reply) : reply_(std::move(reply)) {
    listen_fd_ = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof addr;
    if (bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        listen(listen_fd_, 4) != 0 ||
        getsockname(listen_fd_, reinterpret_cast<sockaddr*>(&addr), &length) != 0) {
      return;
    }
    port_ = ntohs(addr.sin_port);
    thread_ = std::thread([this] { Serve(); });
  }
  ~CannedServer() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
    close(listen_fd_);
  }
  uint16_t port() const { return port_; }

 private:
  void Serve() {
    while (!stop_) {
      pollfd p{listen_fd_, POLLIN, 0};
      if (poll(&p, 1, 50) <= 0) continue;
      const int fd = accept(listen_fd_, nullptr, nullptr);
      if (fd < 0) continue;
      std::string request;
      char buffer[4096];
      while (request.find("\r\n\r\n") == std::string::npos) {
        const ssize_t n = recv(fd, buffer, sizeof buffer, 0);
        if (n <= 0) break;
        request.append(buffer, static_cast<size_t>(n));
      }
      size_t sent = 0;
      while (sent < reply_.size()) {
        const ssize_t n = send(fd, reply_.data() + sent, reply_.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) break;
        sent += static_cast<size_t>(n);
      }
      close(fd);
    }
  }

  std::string reply_;
  int listen_fd_ = -1;
  uint16_t port_ = 0;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

std::string ManyHeaderLines(int count) {
  std::string lines;
  for (int i = 0; i < count; ++i)
    lines += "X-Line-" + std::to_string(i) + ": value\r\n";
  return lines;
}

TEST(HttpMalformedTest, BadRepliesGiveCodesAndKeepPartialBodies) {
  struct Case {
    const char* name;
    std::string reply;
    HResult error;
    uint32_t status;
    std::string body;
  };
  const Case cases[] = {
      {"nothing", "", 12152, 0, ""},
      {"noise", "garbage without a status line\r\n\r\n", 12152, 0, ""},
      {"short body", "HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nabc", 12030, 200, "abc"},
      {"bad length", "HTTP/1.1 200 OK\r\nContent-Length: zz\r\n\r\nabc", 12152, 0, ""},
      {"bad chunk", "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\nZZ\r\n",
       12030, 200, "abc"},
      {"odd status", "HTTP/1.1 299 Odd\r\nContent-Length: 2\r\n\r\nok", 0, 299, "ok"},
      {"until close", "HTTP/1.0 200 OK\r\n\r\nto the end", 0, 200, "to the end"},
      {"bare LF", "HTTP/1.1 200 OK\nContent-Length: 2\n\nok", 0, 200, "ok"},
      {"huge header", "HTTP/1.1 200 OK\r\nX-Big: " + std::string(3 << 20, 'a') + "\r\n\r\n", 12152,
       0, ""},
      {"endless headers", "HTTP/1.1 200 OK\r\n" + ManyHeaderLines(60000), 12152, 0, ""},
  };
  for (const Case& c : cases) {
    CannedServer server(c.reply);
    ASSERT_NE(server.port(), 0);
    HttpRequest r;
    r.access_type = AccessType::kDirect;
    r.server = "127.0.0.1";
    r.port = server.port();
    r.receive_timeout = std::chrono::seconds(5);
    const HResult error = PerformHttpRequest(r);
    EXPECT_EQ(error, c.error) << c.name;
    EXPECT_EQ(r.status_code, c.status) << c.name;
    EXPECT_EQ(r.response_body, c.body) << c.name;
    if (c.status != 0) {
      EXPECT_TRUE(r.response_headers.ends_with("\r\n\r\n")) << c.name;
    }
  }
}

}  // namespace
}  // namespace dischive
