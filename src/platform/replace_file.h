// Writing a file so that readers see either the old contents or the new ones,
// never a part: the new contents go to a temporary file beside the target,
// reach the disk, and are renamed over it.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

#include "dischive/result.h"
#include "platform/file.h"

namespace dischive::platform {

/// A new version of one file, being written. A symbolic link is followed: the
/// file it points at is replaced, the link stays. A character device or a FIFO
/// (/dev/stdout, a shell's pipe) is written through, never replaced; any other
/// path that is not a regular file (a folder, a socket, a block device) is
/// refused. Until Commit succeeds the target is untouched, and the temporary
/// file is removed when the replacement is discarded or destroyed.
class FileReplacement {
 public:
  /// Whether Commit flushes the file and its folder to the disk.
  enum class Flush {
    kFileAndFolder,  ///< fsync the file, rename, fsync the folder
    kNone,           ///< the caller flushes (one syncfs for many staged files)
  };

  FileReplacement() = default;
  FileReplacement(const FileReplacement&) = delete;
  FileReplacement& operator=(const FileReplacement&) = delete;
  FileReplacement(FileReplacement&& other) noexcept;
  FileReplacement& operator=(FileReplacement&& other) noexcept;
  ~FileReplacement() { Discard(); }

  /// Starts replacing `target` (its folder must exist). On failure
  /// *error (when given) reads "<path>: <reason>".
  static HResult Begin(const std::filesystem::path& target, FileReplacement* out,
                       std::string* error = nullptr);

  /// Appends bytes (retrying short writes).
  HResult Write(std::string_view bytes, std::string* error = nullptr);
  /// The open file, for bulk copies into it.
  File& file() { return file_; }
  /// The file that is replaced (links followed).
  const std::filesystem::path& target() const { return target_; }
  /// True when the target is a device or FIFO written in place.
  bool writes_through() const { return temporary_.empty(); }

  /// Flushes (as asked) and closes the file without renaming it yet: for
  /// callers that stage many files before putting any in place.
  HResult Finish(Flush flush = Flush::kFileAndFolder, std::string* error = nullptr);
  /// Finishes the file if that is still to do and renames it over the target.
  HResult Commit(Flush flush = Flush::kFileAndFolder, std::string* error = nullptr);
  /// Closes and removes the temporary file; the target stays as it was.
  void Discard() noexcept;

 private:
  File file_;
  bool finished_ = false;
  std::filesystem::path target_;
  std::filesystem::path temporary_;  // empty when writing through
};

/// The path a chain of symbolic links ends at (`path` itself when it is not a
/// link); the end need not exist.
HResult ResolveLinks(const std::filesystem::path& path, std::filesystem::path* out,
                     std::string* error = nullptr);

/// Replaces the contents of `target` with `bytes` (see FileReplacement).
HResult ReplaceFile(const std::filesystem::path& target, std::string_view bytes,
                    std::string* error = nullptr);

/// The call that flushes a descriptor to the disk: fsync, unless a test
/// replaces it to see what is flushed (nullptr restores fsync).
using SyncCall = int (*)(int fd);
void SetSyncCallForTesting(SyncCall call);

}  // namespace dischive::platform
