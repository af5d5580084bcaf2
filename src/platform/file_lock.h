// Advisory file locks between processes, and the program's own folder.
#pragma once

#include <filesystem>

namespace dischive::platform {

/// An exclusive advisory lock on a lock file (flock), held while the object
/// lives. Two FileLock objects on the same file exclude each other even inside
/// one process, because each opens the file anew.
class FileLock {
 public:
  FileLock() = default;
  ~FileLock();
  FileLock(FileLock&& other) noexcept;
  FileLock& operator=(FileLock&& other) noexcept;
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

  /// Opens (creating it when missing) `path` and takes the lock without
  /// waiting. Returns 0, EWOULDBLOCK when someone else holds the lock, or the
  /// errno of the failed open or lock.
  int TryLock(const std::filesystem::path& path);
  /// Gives the lock up (the lock file stays, so that no other process can be
  /// left holding a lock on a removed file).
  void Release() noexcept;
  bool held() const { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

/// The folder of the running program, resolved (empty when unknown).
std::filesystem::path ExecutableFolder();

}  // namespace dischive::platform
