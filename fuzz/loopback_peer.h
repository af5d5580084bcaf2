// A one-shot loopback peer for the line-protocol targets: listens on
// 127.0.0.1, accepts one connection, sends the given bytes and closes, while
// the client under test reads them through its real socket code.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <thread>

class LoopbackPeer {
 public:
  explicit LoopbackPeer(std::string answer) : answer_(std::move(answer)) {
    listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (listener_ < 0 || bind(listener_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        listen(listener_, 1) != 0 ||
        getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0)
      return;
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { Serve(); });
  }
  LoopbackPeer(const LoopbackPeer&) = delete;
  LoopbackPeer& operator=(const LoopbackPeer&) = delete;
  ~LoopbackPeer() {
    // Unblocks accept() when the client never connected.
    if (listener_ >= 0) shutdown(listener_, SHUT_RDWR);
    if (thread_.joinable()) thread_.join();
    if (listener_ >= 0) close(listener_);
  }
  uint16_t port() const { return port_; }

 private:
  void Serve() {
    const int peer = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (peer < 0) return;
    size_t sent = 0;
    while (sent < answer_.size()) {
      const ssize_t n = send(peer, answer_.data() + sent, answer_.size() - sent, MSG_NOSIGNAL);
      if (n <= 0) break;
      sent += static_cast<size_t>(n);
    }
    // Reads what the client sends until it closes (or two seconds pass), so
    // that closing never resets the connection under unread data.
    shutdown(peer, SHUT_WR);
    timeval limit{2, 0};
    setsockopt(peer, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    char sink[4096];
    while (recv(peer, sink, sizeof sink, 0) > 0) {
    }
    close(peer);
  }

  std::string answer_;
  int listener_ = -1;
  uint16_t port_ = 0;
  std::thread thread_;
};
