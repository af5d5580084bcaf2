// A real HTTP proxy for tests: tinyproxy on a free loopback port, with a
// generated configuration, stopped by its PID when the object goes away.
#pragma once

#include <sys/types.h>

#include <string>

#include "support/temp_dir.h"

namespace dischive::test {

class TinyproxyProcess {
 public:
  /// The name the proxy puts into the "Via" header of what it forwards.
  static constexpr const char* kViaName = "dischive-test-proxy";

  TinyproxyProcess() = default;
  ~TinyproxyProcess();
  TinyproxyProcess(const TinyproxyProcess&) = delete;
  TinyproxyProcess& operator=(const TinyproxyProcess&) = delete;

  /// Starts the proxy and waits until it accepts connections. False (with
  /// error() saying why) when tinyproxy is missing or does not come up.
  bool Start();
  int port() const { return port_; }
  /// "127.0.0.1:port".
  std::string address() const { return "127.0.0.1:" + std::to_string(port_); }
  const std::string& error() const { return error_; }

 private:
  TempDir dir_;
  pid_t pid_ = -1;
  int port_ = -1;
  std::string error_;
};

}  // namespace dischive::test
