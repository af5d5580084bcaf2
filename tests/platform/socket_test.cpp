#include "platform/socket.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <thread>

#include "dischive/result.h"

namespace dischive::platform {
namespace {

// A listening socket on 127.0.0.1 with a kernel-chosen port.
class Listener {
 public:
  Listener() {
    fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
    ::listen(fd_, 4);
    socklen_t length = sizeof(addr);
    ::getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &length);
    port_ = ntohs(addr.sin_port);
  }
  ~Listener() { ::close(fd_); }
  uint16_t port() const { return port_; }
  int Accept() { return ::accept(fd_, nullptr, nullptr); }

 private:
  int fd_;
  uint16_t port_;
};

TEST(TcpSocketTest, ExchangesDataAndReportsCloseAndTimeout) {
  Listener listener;
  TcpSocket socket;
  ASSERT_EQ(socket.Connect("127.0.0.1", listener.port()), kOk);
  const int peer = listener.Accept();
  ASSERT_GE(peer, 0);
  ASSERT_EQ(socket.SendAll("hello\n"), kOk);
  char buffer[16] = {};
  ASSERT_EQ(::read(peer, buffer, sizeof(buffer)), 6);
  EXPECT_STREQ(buffer, "hello\n");

  // No data within the receive time-out gives 10060.
  socket.SetReceiveTimeout(std::chrono::milliseconds(50));
  size_t received = 99;
  EXPECT_EQ(socket.Receive(buffer, sizeof(buffer), &received), 10060u);
  EXPECT_EQ(received, 0u);

  ASSERT_EQ(::write(peer, "201 ok\r\n", 8), 8);
  ASSERT_EQ(socket.Receive(buffer, sizeof(buffer), &received), kOk);
  EXPECT_EQ(std::string(buffer, received), "201 ok\r\n");

  // The peer closing gives 0 bytes and no error, every time it is asked.
  ::close(peer);
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(socket.Receive(buffer, sizeof(buffer), &received), kOk);
    EXPECT_EQ(received, 0u);
  }
}

TEST(TcpSocketTest, ConnectFailuresAreWinsockNumbers) {
  uint16_t closed_port;
  {
    Listener listener;
    closed_port = listener.port();
  }
  TcpSocket socket;
  EXPECT_EQ(socket.Connect("127.0.0.1", closed_port), 10061u);
  EXPECT_EQ(FormatErrorMessage(10061), "The connection was refused by the server.");
  EXPECT_EQ(socket.Connect("no-such-host.invalid", 80), 11001u);
  EXPECT_FALSE(socket.is_open());
  char c;
  size_t n;
  EXPECT_EQ(socket.Receive(&c, 1, &n), 10057u);
}

TEST(TcpSocketTest, InterruptedAndShortTransfersAreRetried) {
  Listener listener;
  TcpSocket socket;
  ASSERT_EQ(socket.Connect("127.0.0.1", listener.port()), kOk);
  const int peer = listener.Accept();

  SocketCalls& calls = ActiveSocketCalls();
  const SocketCalls saved = calls;
  static int send_calls;
  send_calls = 0;
  // Every other send is interrupted; the others send one byte at a time.
  calls.send = [](int fd, const void* data, size_t, int flags) -> ssize_t {
    if (send_calls++ % 2 == 0) {
      errno = EINTR;
      return -1;
    }
    return ::send(fd, data, 1, flags);
  };
  calls.recv = [](int fd, void* data, size_t length, int flags) -> ssize_t {
    static bool interrupted = false;
    if (!interrupted) {
      interrupted = true;
      errno = EINTR;
      return -1;
    }
    return ::recv(fd, data, length, flags);
  };
  EXPECT_EQ(socket.SendAll("abcd"), kOk);
  char buffer[8] = {};
  size_t got = 0;
  while (got < 4) {
    const ssize_t n = ::read(peer, buffer + got, sizeof(buffer) - got);
    ASSERT_GT(n, 0);
    got += static_cast<size_t>(n);
  }
  EXPECT_EQ(std::string(buffer, 4), "abcd");
  EXPECT_EQ(send_calls, 8);
  ASSERT_EQ(::write(peer, "x", 1), 1);
  size_t received = 0;
  EXPECT_EQ(socket.Receive(buffer, sizeof(buffer), &received), kOk);
  EXPECT_EQ(received, 1u);
  calls = saved;
  ::close(peer);
}

}  // namespace
}  // namespace dischive::platform
