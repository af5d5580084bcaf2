// An HTTP server on 127.0.0.1 for tests: register handlers on server(), then
// Start(); it stops when the object goes away.
#pragma once

#include <httplib.h>

#include <thread>

namespace dischive::test {

class LoopbackHttpServer {
 public:
  LoopbackHttpServer() = default;
  ~LoopbackHttpServer();
  LoopbackHttpServer(const LoopbackHttpServer&) = delete;
  LoopbackHttpServer& operator=(const LoopbackHttpServer&) = delete;

  httplib::Server& server() { return server_; }
  /// Binds a free port and serves on a thread; false when it cannot start.
  bool Start();
  int port() const { return port_; }

 private:
  httplib::Server server_;
  std::thread thread_;
  int port_ = -1;
};

}  // namespace dischive::test
