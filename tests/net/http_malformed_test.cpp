// Servers that answer badly: every reply gets a WinINet-numbered result and
// whatever body arrived, never a crash or a hang.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <future>
#include <string>

#include "dischive/http.h"

namespace dischive {
namespace {

// Answers the request `r` sends to 127.0.0.1 with `reply` once its headers have
// arrived, then closes; gives the transport's result.
HResult Exchange(const std::string& reply, HttpRequest& r) {
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof addr;
  EXPECT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&addr), length), 0);
  EXPECT_EQ(listen(listener, 1), 0);
  getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &length);
  r.port = ntohs(addr.sin_port);
  auto result = std::async(std::launch::async, [&r] { return PerformHttpRequest(r); });
  const int fd = accept(listener, nullptr, nullptr);
  std::string request;
  char buffer[4096];
  for (ssize_t n = 1; n > 0 && request.find("\r\n\r\n") == std::string::npos;) {
    n = recv(fd, buffer, sizeof buffer, 0);
    request.append(buffer, n > 0 ? static_cast<size_t>(n) : 0);
  }
  for (size_t sent = 0; sent < reply.size();) {
    const ssize_t n = send(fd, reply.data() + sent, reply.size() - sent, MSG_NOSIGNAL);
    if (n <= 0) break;
    sent += static_cast<size_t>(n);
  }
  close(fd);
  close(listener);
  return result.get();
}

TEST(HttpMalformedTest, BadRepliesGiveCodesAndKeepPartialBodies) {
  std::string endless = "HTTP/1.1 200 OK\r\n";
  for (int i = 0; i < 60000; ++i)
    endless += "X-Line-" + std::to_string(i) + ": value\r\n";
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
      {"endless headers", endless, 12152, 0, ""},
  };
  for (const Case& c : cases) {
    HttpRequest r;
    r.access_type = AccessType::kDirect;
    r.server = "127.0.0.1";
    r.receive_timeout = std::chrono::seconds(5);
    EXPECT_EQ(Exchange(c.reply, r), c.error) << c.name;
    EXPECT_EQ(r.status_code, c.status) << c.name;
    EXPECT_EQ(r.response_body, c.body) << c.name;
    if (c.status != 0) {
      EXPECT_TRUE(r.response_headers.ends_with("\r\n\r\n")) << c.name;
    }
  }
}

}  // namespace
}  // namespace dischive
