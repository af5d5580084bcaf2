// Read-only files with positioned reads, for readers that take many small
// pieces of a file's header.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>

#include "dischive/result.h"

namespace dischive::platform {

class ReadOnlyFile {
 public:
  /// Opens `path` for reading; nullptr with `error` set (2 not found,
  /// 5 access denied, E_FAIL otherwise) when it cannot.
  static std::unique_ptr<ReadOnlyFile> Open(const std::filesystem::path& path, HResult& error);
  ~ReadOnlyFile();
  ReadOnlyFile(const ReadOnlyFile&) = delete;
  ReadOnlyFile& operator=(const ReadOnlyFile&) = delete;

  /// Reads up to `count` bytes at `offset`; returns the count read (short
  /// only at the end of the file) or -1 on a read error.
  int64_t ReadAt(int64_t offset, void* buffer, size_t count);
  /// The file's size in bytes, -1 when it cannot be known.
  int64_t Size();

 private:
  explicit ReadOnlyFile(int fd) : fd_(fd) {}
  int fd_;
};

}  // namespace dischive::platform
