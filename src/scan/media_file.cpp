// ReadMediaFile: picks the reader by the file's first bytes, else by its
// extension, the way TagLib's FileRef tries detectByContent and
// detectByExtension.
#include <cstring>
#include <type_traits>

#include "dischive/text.h"
#include "scan/tag_readers.h"

namespace dischive {
namespace {

enum class Format { kUnknown, kFlac, kOgg, kMp3, kAsf, kRiff };

constexpr uint8_t kAsfHeaderGuid[16] = {0x30, 0x26, 0xB2, 0x75, 0x8E, 0x66, 0xCF, 0x11,
                                        0xA6, 0xD9, 0x00, 0xAA, 0x00, 0x62, 0xCE, 0x6C};

Format ByContent(const uint8_t* head, size_t length) {
  if (length >= 4 && std::memcmp(head, "fLaC", 4) == 0) return Format::kFlac;
  if (length >= 4 && std::memcmp(head, "OggS", 4) == 0) return Format::kOgg;
  if (length >= 12 && std::memcmp(head, "RIFF", 4) == 0 && std::memcmp(head + 8, "WAVE", 4) == 0) {
    return Format::kRiff;
  }
  if (length >= 16 && std::memcmp(head, kAsfHeaderGuid, 16) == 0) return Format::kAsf;
  // An ID3v2 tag: FLAC or MP3 behind it, which the FLAC reader tells apart.
  if (length >= 3 && std::memcmp(head, "ID3", 3) == 0) return Format::kFlac;
  if (length >= 2 && head[0] == 0xFF && (head[1] & 0xE0) == 0xE0) return Format::kMp3;
  return Format::kUnknown;
}

Format ByExtension(std::string_view extension) {
  const std::string ext = ToLowerAscii(extension);
  if (ext == "flac" || ext == "fla") return Format::kFlac;
  if (ext == "ogg" || ext == "oga") return Format::kOgg;
  if (ext == "mp3" || ext == "mp2" || ext == "mpga") return Format::kMp3;
  if (ext == "wma" || ext == "asf") return Format::kAsf;
  if (ext == "wav" || ext == "wave") return Format::kRiff;
  return Format::kUnknown;
}

bool ReadAs(Format format, ByteSource& file, MediaFileInfo& info, CoverPicture* picture) {
  if (!file.Seek(0, SeekFrom::kStart)) return false;
  switch (format) {
    case Format::kFlac: {
      MediaFileTags tags = info.tags;
      const FlacResult result = ReadFlacInfo(file, tags, true, true, picture);
      if (result == FlacResult::kRead) {
        info.tags = std::move(tags);
        info.reader = "flac";
        return true;
      }
      if (result == FlacResult::kId3InFront && tags.formatName == "FLAC") {
        // FLAC behind an ID3v2 tag: the ID3 fields fill what the Vorbis
        // comment left empty.
        MediaFileTags id3;
        if (file.Seek(0, SeekFrom::kStart)) ReadId3v2Tag(file, id3, picture, nullptr);
        const MediaFileTags empty;
        auto fill = [](std::string& to, const std::string& from) {
          if (to.empty()) to = from;
        };
        fill(tags.title, id3.title);
        fill(tags.artist, id3.artist);
        fill(tags.album, id3.album);
        fill(tags.year, id3.year);
        fill(tags.comment, id3.comment);
        fill(tags.lyrics, id3.lyrics);
        fill(tags.composer, id3.composer);
        fill(tags.conductor, id3.conductor);
        fill(tags.lyricist, id3.lyricist);
        fill(tags.label, id3.label);
        fill(tags.genre, id3.genre);
        if (tags.trackNumber == empty.trackNumber) tags.trackNumber = id3.trackNumber;
        if (tags.discNumber == empty.discNumber) tags.discNumber = id3.discNumber;
        if (tags.bpm == empty.bpm) tags.bpm = id3.bpm;
        info.tags = std::move(tags);
        info.reader = "flac";
        return true;
      }
      // An ID3v2 tag with no FLAC behind it: an MP3.
      return result == FlacResult::kId3InFront && ReadAs(Format::kMp3, file, info, picture);
    }
    case Format::kOgg:
      if (!ReadOggVorbisInfo(file, info.tags, true)) return false;
      info.reader = "ogg";
      return true;
    case Format::kMp3:
      if (!ReadMp3Info(file, info.tags, picture)) return false;
      info.reader = "id3v2";
      return true;
    case Format::kAsf:
      if (!ReadWmaInfo(file, info.tags, picture)) return false;
      info.reader = "asf";
      return true;
    case Format::kRiff:
      if (!ReadRiffWaveInfo(file, info.tags)) return false;
      info.reader = "riff";
      return true;
    case Format::kUnknown:
      break;
  }
  return false;
}

// The extension of a file name or path ("" when it has none).
std::string ExtensionOf(std::string_view name) {
  const size_t dot = name.rfind('.');
  const size_t slash = name.rfind('/');
  if (dot == std::string_view::npos || (slash != std::string_view::npos && dot <= slash + 1)) {
    return {};
  }
  return std::string(name.substr(dot + 1));
}

}  // namespace

HResult ReadMediaSource(ByteSource& file, std::string_view extension, MediaFileInfo& info,
                        bool want_picture) {
  uint8_t head[16] = {};
  const size_t length = file.Seek(0, SeekFrom::kStart) ? file.Read(head, sizeof head) : 0;
  CoverPicture picture;
  CoverPicture* wanted = want_picture ? &picture : nullptr;
  const Format by_content = ByContent(head, length);
  const Format by_extension = ByExtension(extension);
  bool taken = by_content != Format::kUnknown && ReadAs(by_content, file, info, wanted);
  if (!taken && by_extension != by_content && by_extension != Format::kUnknown) {
    taken = ReadAs(by_extension, file, info, wanted);
  }
  if (!taken) return kNotMediaFile;
  info.picture = std::move(picture.data);
  info.picture_kind = info.picture.empty() ? PictureKind::kNone : picture.kind;
  return kOk;
}

HResult ReadMediaFile(const std::filesystem::path& path, MediaFileInfo& info, bool want_picture) {
  HResult error = kOk;
  std::unique_ptr<FileSource> file = FileSource::Open(path, error);
  if (!file) return error;
  std::string extension;
  if constexpr (std::is_same_v<std::filesystem::path::value_type, char>) {
    // From the name itself: cheaper than path::extension(), which splits the
    // whole path into components.
    extension = ExtensionOf(path.native());
  } else {
    extension = path.extension().string();
    if (!extension.empty()) extension.erase(0, 1);
  }
  return ReadMediaSource(*file, extension, info, want_picture);
}

HResult ReadMediaFileAt(const platform::File& folder, const std::string& name, MediaFileInfo& info,
                        bool want_picture) {
  HResult error = kOk;
  std::unique_ptr<FileSource> file = FileSource::OpenAt(folder, name, error);
  if (!file) return error;
  return ReadMediaSource(*file, ExtensionOf(name), info, want_picture);
}

}  // namespace dischive
