// SMTP peers for tests: tests/support/smtp_peer.py run by the system's
// Python 3 (which has aiosmtpd) on a free loopback port, stopped by its PID
// when the object goes away.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string>
#include <vector>

#include "support/temp_dir.h"

namespace dischive::test {

class SmtpPeer {
 public:
  SmtpPeer() = default;
  ~SmtpPeer();
  SmtpPeer(const SmtpPeer&) = delete;
  SmtpPeer& operator=(const SmtpPeer&) = delete;

  /// Starts the peer in `mode` ("real", "greeting554", "data250", "silent",
  /// "trickle") with refusals "STEP=CODE" and waits until it listens. False,
  /// with error() saying why, when it does not come up.
  bool Start(const std::string& mode, const std::vector<std::string>& refusals = {});
  int port() const { return port_; }
  const std::string& error() const { return error_; }
  /// Where the real server writes mail-N.eml, mail-N.body and mail-N.json.
  const std::filesystem::path& folder() const { return dir_.path(); }

 private:
  TempDir dir_;
  pid_t pid_ = -1;
  int port_ = -1;
  std::string error_;
};

}  // namespace dischive::test
