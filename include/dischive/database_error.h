// The one exception type of the library's public interface.
#pragma once

#include <stdexcept>
#include <string>

namespace dischive {

/// Thrown by the catalogue engine when its storage fails in a way the caller
/// cannot recover from (the file is not a database, is corrupt, or the disk
/// failed mid-transaction). Every other failure is returned as a result code.
class FatalDatabaseError : public std::runtime_error {
 public:
  FatalDatabaseError(const std::string& path, const std::string& message);
  const std::string& path() const noexcept { return path_; }

 private:
  std::string path_;
};

}  // namespace dischive
