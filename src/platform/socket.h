// A blocking TCP client socket. Failures are reported as Winsock numbers
// (10061 connection refused, 10060 timed out, 11001 host not found, ...), so the
// library's error texts apply to them unchanged.
#pragma once

#include <poll.h>
#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "dischive/result.h"

namespace dischive::platform {

/// The system calls the socket makes, replaceable by tests to inject EINTR,
/// short transfers and failures.
struct SocketCalls {
  ssize_t (*send)(int fd, const void* data, size_t length, int flags);
  ssize_t (*recv)(int fd, void* data, size_t length, int flags);
  int (*poll)(struct pollfd* fds, nfds_t count, int timeout_ms);
};

/// The calls in use; tests assign to it and restore the saved value.
SocketCalls& ActiveSocketCalls();
/// The real system calls.
const SocketCalls& SystemSocketCalls();

class TcpSocket {
 public:
  static constexpr std::chrono::milliseconds kDefaultConnectTimeout{60000};
  static constexpr std::chrono::milliseconds kDefaultReceiveTimeout{30000};

  TcpSocket() = default;
  TcpSocket(const TcpSocket&) = delete;
  TcpSocket& operator=(const TcpSocket&) = delete;
  TcpSocket(TcpSocket&& other) noexcept;
  TcpSocket& operator=(TcpSocket&& other) noexcept;
  ~TcpSocket();

  /// Resolves host and connects to the first address that accepts, within
  /// `timeout` for each attempt. Returns 0 or a Winsock number.
  HResult Connect(const std::string& host, uint16_t port,
                  std::chrono::milliseconds timeout = kDefaultConnectTimeout);
  /// Sends all bytes (retrying short sends and EINTR). Returns 0 or a Winsock number.
  HResult SendAll(std::string_view data);
  /// Receives up to `length` bytes, waiting at most the receive time-out for
  /// the first one. *received == 0 with result 0 means the peer closed the
  /// connection. Returns 0, 10060 on time-out, or another Winsock number.
  HResult Receive(char* buffer, size_t length, size_t* received);
  void SetReceiveTimeout(std::chrono::milliseconds timeout) { receive_timeout_ = timeout; }
  void Close();
  bool is_open() const { return fd_ >= 0; }
  int fd() const { return fd_; }

 private:
  int fd_ = -1;
  std::chrono::milliseconds receive_timeout_ = kDefaultReceiveTimeout;
};

}  // namespace dischive::platform
