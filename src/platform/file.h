// Plain files for bulk copies: open, exclusive create, positioned reads, full
// writes and in-kernel range copies (locks: platform/file_lock.h). Failures are
// reported as Win32-style codes from HResultFromErrno, so FormatErrorMessage
// explains them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>

#include "dischive/result.h"

namespace dischive::platform {

/// Called after every chunk of a long copy with the bytes copied so far;
/// returning false stops the copy with kAborted.
using CopyStep = std::function<bool(uint64_t copied)>;

class File {
 public:
  File() = default;
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  File(File&& other) noexcept;
  File& operator=(File&& other) noexcept;
  ~File();

  /// Opens an existing file for reading.
  static HResult OpenRead(const std::filesystem::path& path, File* file);
  /// Opens a folder as a handle for OpenReadAt (no reading of its listing).
  static HResult OpenFolder(const std::filesystem::path& path, File* folder);
  /// Opens the file `name` of an open folder for reading: cheaper than a
  /// full path for many files of one folder, whose path is resolved once.
  static HResult OpenReadAt(const File& folder, const std::string& name, File* file);
  /// Creates a new file for writing; fails with kErrorFileExists when the name
  /// is taken (nothing existing is ever truncated).
  static HResult CreateExclusive(const std::filesystem::path& path, File* file);
  /// Creates a new, uniquely named file in `folder` whose name starts with
  /// `prefix`; *path receives its name.
  static HResult CreateTemporary(const std::filesystem::path& folder, const std::string& prefix,
                                 File* file, std::filesystem::path* path);

  /// Takes ownership of an open descriptor (a negative one gives a closed File).
  static File Adopt(int fd) { return File(fd < 0 ? -1 : fd); }

  bool is_open() const { return fd_ >= 0; }
  int fd() const { return fd_; }

  /// The file's current size.
  HResult Size(uint64_t* size) const;
  /// Reads up to `size` bytes at `offset` (retrying EINTR); *got < size only
  /// at the end of the file (files are regular files, whose reads are short
  /// only there).
  HResult ReadAt(uint64_t offset, void* data, size_t size, size_t* got) const;
  /// Appends all bytes at the current position (retrying EINTR and short writes).
  HResult WriteAll(const void* data, size_t size);
  /// Writes `size` bytes of `source`, starting at `source_offset`, at this
  /// file's current position: inside the kernel where it can, else through a
  /// 64 KiB buffer. Fails with kErrorHandleEof when the source ends early.
  HResult CopyFrom(const File& source, uint64_t source_offset, uint64_t size,
                   const CopyStep& step = {});
  /// Flushes the file's data to the disk.
  HResult Sync();
  /// Closes the file, reporting a failure of the final write-back.
  HResult Close();

 private:
  explicit File(int fd) : fd_(fd) {}
  int fd_ = -1;
};

/// ERROR_HANDLE_EOF: a file ended before the expected number of bytes.
inline constexpr HResult kErrorHandleEof = 0x80070026;

/// Flushes every file of the file system that holds `path` to the disk: one
/// call in place of a sync of each of many small files.
HResult SyncFileSystem(const std::filesystem::path& path);

/// Flushes a folder's entries (after renames into it) to the disk.
HResult SyncFolder(const std::filesystem::path& folder);

}  // namespace dischive::platform
