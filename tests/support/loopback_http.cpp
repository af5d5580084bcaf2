#include "support/loopback_http.h"

#include <chrono>

namespace dischive::test {

LoopbackHttpServer::~LoopbackHttpServer() {
  server_.stop();
  if (thread_.joinable()) thread_.join();
}

bool LoopbackHttpServer::Start() {
  port_ = server_.bind_to_any_port("127.0.0.1");
  if (port_ <= 0) return false;
  thread_ = std::thread([this] { server_.listen_after_bind(); });
  for (int i = 0; i < 500 && !server_.is_running(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return server_.is_running();
}

}  // namespace dischive::test
