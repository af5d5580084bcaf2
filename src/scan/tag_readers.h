// The tag readers behind ReadMediaFile: one per container (FLAC, Ogg Vorbis,
// ID3v2 + MPEG audio, ASF/WMA, RIFF/WAVE), each reading from a ByteSource so
// that it works on a file as well as on bytes held in memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "dischive/result.h"
#include "dischive/tags.h"

namespace dischive {

/// ReadMediaFile's code for a file that no reader takes
/// (HRESULT_FROM_WIN32(ERROR_BAD_FORMAT)).
inline constexpr HResult kNotMediaFile = 0x8007000B;

enum class SeekFrom { kStart, kCurrent };

/// A readable, seekable run of bytes.
class ByteSource {
 public:
  virtual ~ByteSource() = default;
  /// Reads up to `count` bytes at the position and advances it; returns the
  /// count read, short at the end of the data or on a read error.
  virtual size_t Read(void* buffer, size_t count) = 0;
  /// Moves the position. A target before the start fails and leaves the
  /// position as it was; a target past the end is allowed (reads return 0).
  virtual bool Seek(int64_t offset, SeekFrom from) = 0;
  virtual int64_t Tell() const = 0;
  /// The total size in bytes, or -1 when it cannot be known.
  virtual int64_t Size() = 0;
};

/// Bytes held in memory (not owned).
class MemorySource final : public ByteSource {
 public:
  explicit MemorySource(std::string_view bytes) : bytes_(bytes) {}
  /// The bytes must outlive the source: a temporary string cannot.
  explicit MemorySource(std::string&&) = delete;
  size_t Read(void* buffer, size_t count) override;
  bool Seek(int64_t offset, SeekFrom from) override;
  int64_t Tell() const override { return pos_; }
  int64_t Size() override { return static_cast<int64_t>(bytes_.size()); }

 private:
  std::string_view bytes_;
  int64_t pos_ = 0;
};

namespace platform {
class File;
}

/// A file read through a window buffer, so that the many short header reads
/// of a tag reader cost one system read.
class FileSource final : public ByteSource {
 public:
  /// Opens `path` for reading; nullptr with `error` set (2 not found,
  /// 5 access denied, E_FAIL otherwise) when it cannot.
  static std::unique_ptr<FileSource> Open(const std::filesystem::path& path, HResult& error);
  /// Opens the file `name` of an open folder (see platform::File::OpenFolder).
  static std::unique_ptr<FileSource> OpenAt(const platform::File& folder, const std::string& name,
                                            HResult& error);
  ~FileSource() override;
  FileSource(const FileSource&) = delete;
  FileSource& operator=(const FileSource&) = delete;

  size_t Read(void* buffer, size_t count) override;
  bool Seek(int64_t offset, SeekFrom from) override;
  int64_t Tell() const override { return pos_; }
  int64_t Size() override;

 private:
  static constexpr size_t kWindowSize = 16384;
  explicit FileSource(std::unique_ptr<platform::File> file);

  std::unique_ptr<platform::File> file_;
  int64_t pos_ = 0;           // logical position
  int64_t size_ = -2;         // -2 not known yet
  int64_t window_start_ = 0;  // file offset of window_[0]
  size_t window_len_ = 0;
  uint8_t window_[kWindowSize];
};

/// A cover picture taken from a tag.
struct CoverPicture {
  std::string data;  ///< the image bytes, empty when none
  PictureKind kind = PictureKind::kNone;
};

/// ReadFlacInfo's results.
enum class FlacResult : int {
  kRead = 0,        ///< a FLAC stream was read
  kId3InFront = 1,  ///< an ID3v2 tag stands first (FLAC may or may not follow it)
  kNotFlac = 2,     ///< not FLAC, a short read, or an ID3v2 tag with an extended header
};

/// Reads a FLAC stream from the start of `file`: STREAMINFO for the playing
/// time, and with `want_tags` the VORBIS_COMMENT block and, when `picture` is
/// given and still empty, the front cover from a PICTURE block. `convert`
/// decodes comments strictly as UTF-8; clear, text that is not valid UTF-8 is
/// taken as Windows-1252.
FlacResult ReadFlacInfo(ByteSource& file, MediaFileTags& tags, bool want_tags, bool convert,
                        CoverPicture* picture);

/// Reads an Ogg Vorbis file from its start: stream information and, with
/// `want_tags`, the comment header. True when the file was taken.
bool ReadOggVorbisInfo(ByteSource& file, MediaFileTags& tags, bool want_tags);

/// Parses a FLAC VORBIS_COMMENT block (vendor, count, comments; each length at
/// most 1 MiB and inside the block). False when parsing stopped early.
bool ParseVorbisComment(std::span<const uint8_t> block, MediaFileTags& tags, bool convert);

/// Applies one "NAME=value" comment to the record.
void MapVorbisField(std::string_view comment, MediaFileTags& tags, bool convert);

/// Takes the picture of a FLAC PICTURE block when it is a front cover in JPEG
/// or PNG. True when a picture was taken.
bool ParseFlacPicture(std::span<const uint8_t> block, CoverPicture& picture);

/// Reads an MP3 file: the ID3v2 tag at the start of `file` (versions 2.2 to
/// 2.4), then the MPEG audio frame header right behind it for the playing
/// time and bit rate (Xing/Info and VBRI headers are used when present). True
/// when a tag was read or a frame header was found.
bool ReadMp3Info(ByteSource& file, MediaFileTags& tags, CoverPicture* picture);

/// ReadId3v2Tag's results.
enum class Id3v2Result {
  kNoTag,    ///< no "ID3" header of version 2..4 at the position
  kSkipped,  ///< a tag that is not read (extended header, too large, short)
  kRead,     ///< the tag was read
};

/// Reads the ID3v2 tag at the position of `file`; `tag_end` receives the
/// offset of the first byte behind the tag (and its footer) when a header
/// was found.
Id3v2Result ReadId3v2Tag(ByteSource& file, MediaFileTags& tags, CoverPicture* picture,
                         int64_t* tag_end);

/// The genre name of an ID3v2 genre text: "(17)", "17", "(17)Rock" (the
/// refinement wins), "(RX)", "(CR)", "((text" and plain names.
std::string ParseId3Genre(std::string_view text);

/// Reads the header objects of an ASF (WMA) file: file properties for the
/// playing time and bit rate, content description and extended content
/// description for the tags. True when the file was taken.
bool ReadWmaInfo(ByteSource& file, MediaFileTags& tags, CoverPicture* picture);

/// Reads a RIFF/WAVE file: "fmt " and "data" for the playing time and bit
/// rate, a LIST/INFO chunk for the tags. True when the file was taken.
bool ReadRiffWaveInfo(ByteSource& file, MediaFileTags& tags);

/// The name of ID3v1 genre `index` (0..147), empty for any other index.
std::string_view GenreNameFromIndex(int index);

/// ReadMediaFile for the file `name` of an open folder.
HResult ReadMediaFileAt(const platform::File& folder, const std::string& name, MediaFileInfo& info,
                        bool want_picture = true);

/// Reads a file held by `file`; `extension` (without the dot) is the fallback
/// when the first bytes name no format. Returns 0 or kNotMediaFile.
HResult ReadMediaSource(ByteSource& file, std::string_view extension, MediaFileInfo& info,
                        bool want_picture = true);

}  // namespace dischive
