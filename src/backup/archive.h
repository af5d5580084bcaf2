// The serialisation stream of backup files.
//
//   DWORD          4 bytes, little-endian
//   ArchiveString  length < 255:    1 byte length
//                  length < 0xFFFE: 0xFF, 2-byte little-endian length
//                  otherwise:       0xFF, 0xFF 0xFF, 4-byte little-endian length
//                  then the bytes, no terminator ("#META" is 05 23 4D 45 54 41)
//   EmbeddedFile   DWORD byte count, then the file's bytes
//
// ArchiveWriter buffers into a ByteSink and keeps the first failure, so a
// sequence of writes is checked once at the end. ArchiveReader reads from a
// ByteSource with every length checked against the bytes that are left.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "dischive/result.h"
#include "platform/file.h"

namespace dischive::backup {

/// Where an ArchiveWriter's bytes go.
class ByteSink {
 public:
  virtual ~ByteSink() = default;
  virtual HResult Write(const void* data, size_t size) = 0;
  /// Appends `size` bytes of `source` from `offset`. The default reads and
  /// writes through a 64 KiB buffer; a file sink copies inside the kernel.
  virtual HResult CopyFrom(const platform::File& source, uint64_t offset, uint64_t size,
                           const platform::CopyStep& step);
};

/// Collects the bytes in memory (tests, small streams).
class StringSink : public ByteSink {
 public:
  HResult Write(const void* data, size_t size) override;
  const std::string& bytes() const { return bytes_; }

 private:
  std::string bytes_;
};

/// Appends to an open file.
class FileSink : public ByteSink {
 public:
  explicit FileSink(platform::File& file) : file_(file) {}
  HResult Write(const void* data, size_t size) override;
  HResult CopyFrom(const platform::File& source, uint64_t offset, uint64_t size,
                   const platform::CopyStep& step) override;

 private:
  platform::File& file_;
};

/// The bytes of an ArchiveString's length prefix followed by the text.
std::string EncodeArchiveString(std::string_view text);

class ArchiveWriter {
 public:
  /// Buffers `buffer_size` bytes before handing them to the sink.
  explicit ArchiveWriter(ByteSink& sink, size_t buffer_size = 65536);

  void WriteBytes(const void* data, size_t size);
  void WriteDword(uint32_t value);
  void WriteString(std::string_view text);
  /// An EmbeddedFile: the byte count, then `size` bytes of `source` from
  /// `offset`. The size must fit in a DWORD (the caller checks).
  void WriteEmbedded(const platform::File& source, uint64_t offset, uint32_t size,
                     const platform::CopyStep& step = {});
  /// Hands the buffered bytes to the sink; returns status().
  HResult Flush();
  /// 0, or the first failure of any write so far.
  HResult status() const { return status_; }
  /// Bytes written so far, including those still buffered.
  uint64_t position() const { return position_; }

 private:
  ByteSink& sink_;
  std::vector<char> buffer_;
  size_t used_ = 0;
  uint64_t position_ = 0;
  HResult status_ = kOk;
};

/// Where an ArchiveReader's bytes come from.
class ByteSource {
 public:
  virtual ~ByteSource() = default;
  /// Reads up to `size` bytes; fewer only at the end.
  virtual HResult Read(void* data, size_t size, size_t* got) = 0;
  /// Moves forward `size` bytes without reading them (size <= remaining()).
  virtual void Skip(uint64_t size) = 0;
  /// Bytes from the current position to the end.
  virtual uint64_t remaining() const = 0;
  /// The current position from the start of the source.
  virtual uint64_t position() const = 0;
};

/// Reads from bytes in memory.
class SpanSource : public ByteSource {
 public:
  explicit SpanSource(std::string_view bytes, uint64_t base = 0) : bytes_(bytes), base_(base) {}
  HResult Read(void* data, size_t size, size_t* got) override;
  void Skip(uint64_t size) override;
  uint64_t remaining() const override { return bytes_.size() - pos_; }
  uint64_t position() const override { return base_ + pos_; }

 private:
  std::string_view bytes_;
  uint64_t base_;  // the position of bytes_[0] in the whole stream
  size_t pos_ = 0;
};

/// Reads a file from the start through a 64 KiB buffer; skipping moves the
/// position without reading.
class FileSource : public ByteSource {
 public:
  /// `size` is the file's length when the reading starts.
  FileSource(const platform::File& file, uint64_t size);
  HResult Read(void* data, size_t size, size_t* got) override;
  void Skip(uint64_t size) override;
  uint64_t remaining() const override { return size_ - position_; }
  uint64_t position() const override { return position_; }

 private:
  const platform::File& file_;
  uint64_t size_;
  uint64_t position_ = 0;
  std::vector<char> buffer_;
  uint64_t buffer_start_ = 0;  // file offset of buffer_[0]
  size_t buffer_fill_ = 0;
};

class ArchiveReader {
 public:
  explicit ArchiveReader(ByteSource& source) : source_(source) {}

  /// Each read returns false on failure and leaves the reason in error().
  bool ReadBytes(void* data, size_t size);
  bool ReadDword(uint32_t* value);
  /// Reads an ArchiveString of at most `max_length` bytes.
  bool ReadString(std::string* text, size_t max_length);
  /// Reads an EmbeddedFile's byte count and checks that its bytes are there;
  /// *offset receives their position. The bytes are skipped.
  bool SkipEmbedded(uint64_t* offset, uint32_t* size);

  /// A one-line reason for the last failure, with the stream offset.
  const std::string& error() const { return error_; }
  uint64_t position() const { return source_.position(); }
  uint64_t remaining() const { return source_.remaining(); }
  /// Records a failure found by the caller at the current position.
  bool Fail(const std::string& what);

 private:
  ByteSource& source_;
  std::string error_;
};

}  // namespace dischive::backup
