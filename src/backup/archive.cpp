#include "backup/archive.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

namespace dischive::backup {
namespace {

void PutDword(char* out, uint32_t value) {
  for (int i = 0; i < 4; ++i)
    out[i] = static_cast<char>((value >> (8 * i)) & 0xFF);
}

uint32_t GetDword(const unsigned char* in) {
  return static_cast<uint32_t>(in[0]) | static_cast<uint32_t>(in[1]) << 8 |
         static_cast<uint32_t>(in[2]) << 16 | static_cast<uint32_t>(in[3]) << 24;
}

}  // namespace

HResult ByteSink::CopyFrom(const platform::File& source, uint64_t offset, uint64_t size,
                           const platform::CopyStep& step) {
  std::vector<char> buffer(std::min<uint64_t>(size, 65536));
  uint64_t copied = 0;
  while (copied < size) {
    const size_t want = static_cast<size_t>(std::min<uint64_t>(size - copied, buffer.size()));
    size_t got = 0;
    if (const HResult r = source.ReadAt(offset + copied, buffer.data(), want, &got)) return r;
    if (got == 0) return platform::kErrorHandleEof;
    if (const HResult r = Write(buffer.data(), got)) return r;
    copied += got;
    if (step && !step(copied)) return kAborted;
  }
  return kOk;
}

HResult StringSink::Write(const void* data, size_t size) {
  bytes_.append(static_cast<const char*>(data), size);
  return kOk;
}

HResult FileSink::Write(const void* data, size_t size) {
  return file_.WriteAll(data, size);
}

HResult FileSink::CopyFrom(const platform::File& source, uint64_t offset, uint64_t size,
                           const platform::CopyStep& step) {
  return file_.CopyFrom(source, offset, size, step);
}

std::string EncodeArchiveString(std::string_view text) {
  std::string out;
  const size_t n = text.size();
  if (n < 0xFF) {
    out.push_back(static_cast<char>(n));
  } else if (n < 0xFFFE) {
    out = {'\xFF', static_cast<char>(n & 0xFF), static_cast<char>(n >> 8)};
  } else {
    // Longer texts than a DWORD can count cannot occur: callers cap them.
    char length[4];
    PutDword(length, static_cast<uint32_t>(n));
    out = {'\xFF', '\xFF', '\xFF'};
    out.append(length, 4);
  }
  out.append(text);
  return out;
}

ArchiveWriter::ArchiveWriter(ByteSink& sink, size_t buffer_size)
    : sink_(sink), buffer_(std::max<size_t>(buffer_size, 16)) {}

void ArchiveWriter::WriteBytes(const void* data, size_t size) {
  if (status_ != kOk) return;
  position_ += size;
  const auto* in = static_cast<const char*>(data);
  if (size > buffer_.size() - used_) {
    if (Flush() != kOk) return;
    if (size >= buffer_.size()) {
      status_ = sink_.Write(in, size);
      return;
    }
  }
  std::memcpy(buffer_.data() + used_, in, size);
  used_ += size;
}

void ArchiveWriter::WriteDword(uint32_t value) {
  char bytes[4];
  PutDword(bytes, value);
  WriteBytes(bytes, 4);
}

void ArchiveWriter::WriteString(std::string_view text) {
  const std::string encoded = EncodeArchiveString(text);
  WriteBytes(encoded.data(), encoded.size());
}

void ArchiveWriter::WriteEmbedded(const platform::File& source, uint64_t offset, uint32_t size,
                                  const platform::CopyStep& step) {
  WriteDword(size);
  if (Flush() != kOk) return;
  status_ = sink_.CopyFrom(source, offset, size, step);
  position_ += size;
}

HResult ArchiveWriter::Flush() {
  if (status_ == kOk && used_ > 0) status_ = sink_.Write(buffer_.data(), used_);
  used_ = 0;
  return status_;
}

HResult SpanSource::Read(void* data, size_t size, size_t* got) {
  const size_t n = std::min(size, bytes_.size() - pos_);
  std::memcpy(data, bytes_.data() + pos_, n);
  pos_ += n;
  *got = n;
  return kOk;
}

void SpanSource::Skip(uint64_t size) {
  pos_ += static_cast<size_t>(std::min<uint64_t>(size, bytes_.size() - pos_));
}

FileSource::FileSource(const platform::File& file, uint64_t size) : file_(file), size_(size) {}

HResult FileSource::Read(void* data, size_t size, size_t* got) {
  auto* out = static_cast<char*>(data);
  size_t done = 0;
  while (done < size && position_ < size_) {
    const bool in_buffer = position_ >= buffer_start_ && position_ - buffer_start_ < buffer_fill_;
    if (!in_buffer) {
      if (buffer_.empty()) buffer_.resize(65536);
      const size_t want =
          static_cast<size_t>(std::min<uint64_t>(buffer_.size(), size_ - position_));
      buffer_start_ = position_;
      buffer_fill_ = 0;
      if (const HResult r = file_.ReadAt(position_, buffer_.data(), want, &buffer_fill_)) {
        *got = done;
        return r;
      }
      if (buffer_fill_ == 0) break;  // the file shrank while being read
    }
    const size_t offset = static_cast<size_t>(position_ - buffer_start_);
    const size_t n = std::min(size - done, buffer_fill_ - offset);
    std::memcpy(out + done, buffer_.data() + offset, n);
    done += n;
    position_ += n;
  }
  *got = done;
  return kOk;
}

void FileSource::Skip(uint64_t size) {
  position_ += std::min(size, size_ - position_);
}

bool ArchiveReader::Fail(const std::string& what) {
  error_ = fmt::format("{} at offset {}", what, source_.position());
  return false;
}

bool ArchiveReader::ReadBytes(void* data, size_t size) {
  if (size > source_.remaining()) return Fail("the file ends early");
  size_t got = 0;
  if (const HResult r = source_.Read(data, size, &got)) {
    return Fail(fmt::format("read error: {}", FormatErrorMessage(r)));
  }
  if (got != size) return Fail("the file ends early");
  return true;
}

bool ArchiveReader::ReadDword(uint32_t* value) {
  unsigned char bytes[4];
  if (!ReadBytes(bytes, 4)) return false;
  *value = GetDword(bytes);
  return true;
}

bool ArchiveReader::ReadString(std::string* text, size_t max_length) {
  unsigned char first = 0;
  if (!ReadBytes(&first, 1)) return false;
  uint64_t length = first;
  if (first == 0xFF) {
    unsigned char word[2];
    if (!ReadBytes(word, 2)) return false;
    length = static_cast<uint32_t>(word[0]) | static_cast<uint32_t>(word[1]) << 8;
    if (length == 0xFFFE) return Fail("unsupported wide text");
    if (length == 0xFFFF) {
      uint32_t wide = 0;
      if (!ReadDword(&wide)) return false;
      length = wide;
    }
  }
  if (length > max_length) return Fail(fmt::format("text of {} bytes is too long", length));
  if (length > source_.remaining()) return Fail("the file ends early");
  text->resize(static_cast<size_t>(length));
  return ReadBytes(text->data(), text->size());
}

bool ArchiveReader::SkipEmbedded(uint64_t* offset, uint32_t* size) {
  if (!ReadDword(size)) return false;
  if (*size > source_.remaining()) {
    return Fail(fmt::format("embedded file of {} bytes runs past the end", *size));
  }
  *offset = source_.position();
  source_.Skip(*size);
  return true;
}

}  // namespace dischive::backup
