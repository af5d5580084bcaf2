#include "platform/socket.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "dischive/errors.h"

namespace dischive::platform {
namespace {

const SocketCalls kSystemCalls = {
    [](int fd, const void* data, size_t length, int flags) {
      return ::send(fd, data, length, flags);
    },
    [](int fd, void* data, size_t length, int flags) { return ::recv(fd, data, length, flags); },
    [](struct pollfd* fds, nfds_t count, int timeout_ms) { return ::poll(fds, count, timeout_ms); },
};

SocketCalls g_calls = kSystemCalls;

int ClampMs(std::chrono::milliseconds ms) {
  if (ms.count() < 0) return 0;
  return ms.count() > 0x7FFFFFFF ? 0x7FFFFFFF : static_cast<int>(ms.count());
}

// Waits for `events` on fd; 0 when ready, else a Winsock number (10060 on time-out).
HResult WaitFor(int fd, short events, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    pollfd p{fd, events, 0};
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    const int n = g_calls.poll(&p, 1, ClampMs(left));
    if (n > 0) return 0;
    if (n == 0) return 10060;  // WSAETIMEDOUT
    if (errno != EINTR) return WinsockErrorFromErrno(errno);
  }
}

HResult ConnectOne(const addrinfo* ai, std::chrono::milliseconds timeout, int* out_fd) {
  const int fd = ::socket(ai->ai_family, ai->ai_socktype | SOCK_CLOEXEC, ai->ai_protocol);
  if (fd < 0) return WinsockErrorFromErrno(errno);
  const int flags = ::fcntl(fd, F_GETFL, 0);
  ::fcntl(fd, F_SETFL, flags | O_NONBLOCK);
  HResult result = 0;
  if (::connect(fd, ai->ai_addr, ai->ai_addrlen) != 0) {
    if (errno != EINPROGRESS) {
      result = WinsockErrorFromErrno(errno);
    } else if ((result = WaitFor(fd, POLLOUT, timeout)) == 0) {
      int error = 0;
      socklen_t length = sizeof(error);
      ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length);
      if (error != 0) result = WinsockErrorFromErrno(error);
    }
  }
  if (result != 0) {
    ::close(fd);
    return result;
  }
  ::fcntl(fd, F_SETFL, flags);
  const int one = 1;
  ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
  *out_fd = fd;
  return 0;
}

}  // namespace

SocketCalls& ActiveSocketCalls() {
  return g_calls;
}
const SocketCalls& SystemSocketCalls() {
  return kSystemCalls;
}

TcpSocket::TcpSocket(TcpSocket&& other) noexcept
    : fd_(other.fd_), receive_timeout_(other.receive_timeout_) {
  other.fd_ = -1;
}

TcpSocket& TcpSocket::operator=(TcpSocket&& other) noexcept {
  if (this != &other) {
    Close();
    fd_ = other.fd_;
    receive_timeout_ = other.receive_timeout_;
    other.fd_ = -1;
  }
  return *this;
}

TcpSocket::~TcpSocket() {
  Close();
}

void TcpSocket::Close() {
  if (fd_ >= 0) {
    ::close(fd_);
    fd_ = -1;
  }
}

HResult TcpSocket::Connect(const std::string& host, uint16_t port,
                           std::chrono::milliseconds timeout) {
  Close();
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* list = nullptr;
  const std::string service = std::to_string(port);
  const int gai = ::getaddrinfo(host.c_str(), service.c_str(), &hints, &list);
  if (gai != 0) return WinsockErrorFromGai(gai);
  std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> guard(list, &::freeaddrinfo);
  HResult result = 11001;
  for (const addrinfo* ai = list; ai != nullptr; ai = ai->ai_next) {
    int fd = -1;
    result = ConnectOne(ai, timeout, &fd);
    if (result == 0) {
      fd_ = fd;
      return 0;
    }
  }
  return result;
}

HResult TcpSocket::SendAll(std::string_view data) {
  if (fd_ < 0) return 10057;  // WSAENOTCONN
  while (!data.empty()) {
    const ssize_t n = g_calls.send(fd_, data.data(), data.size(), MSG_NOSIGNAL);
    if (n < 0) {
      if (errno == EINTR) continue;
      return WinsockErrorFromErrno(errno);
    }
    data.remove_prefix(static_cast<size_t>(n));
  }
  return 0;
}

HResult TcpSocket::Receive(char* buffer, size_t length, size_t* received) {
  *received = 0;
  if (fd_ < 0) return 10057;
  if (length == 0) return 0;
  for (;;) {
    if (const HResult wait = WaitFor(fd_, POLLIN, receive_timeout_); wait != 0) return wait;
    const ssize_t n = g_calls.recv(fd_, buffer, length, 0);
    if (n >= 0) {
      *received = static_cast<size_t>(n);
      return 0;
    }
    if (errno != EINTR && errno != EAGAIN) return WinsockErrorFromErrno(errno);
  }
}

}  // namespace dischive::platform
