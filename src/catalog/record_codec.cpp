#include "catalog/record_codec.h"

#include <cstdint>

namespace dischive::catalog {
namespace {

void PutU32(std::string& out, uint32_t v) {
  const char bytes[4] = {static_cast<char>(v), static_cast<char>(v >> 8),
                         static_cast<char>(v >> 16), static_cast<char>(v >> 24)};
  out.append(bytes, 4);
}

void PutText(std::string& out, std::string_view text) {
  PutU32(out, static_cast<uint32_t>(text.size()));
  out.append(text);
}

// A cursor over bytes whose reads fail, rather than overrun, at the end.
class Reader {
 public:
  explicit Reader(std::string_view bytes) : bytes_(bytes) {}
  bool done() const { return pos_ == bytes_.size(); }
  bool U8(uint8_t* v) {
    if (bytes_.size() - pos_ < 1) return false;
    *v = static_cast<uint8_t>(bytes_[pos_++]);
    return true;
  }
  bool U32(uint32_t* v) {
    if (bytes_.size() - pos_ < 4) return false;
    const auto* p = reinterpret_cast<const unsigned char*>(bytes_.data() + pos_);
    *v = static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
         static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
    pos_ += 4;
    return true;
  }
  bool Bytes(uint32_t length, std::string_view* out) {
    if (length > bytes_.size() - pos_) return false;
    *out = bytes_.substr(pos_, length);
    pos_ += length;
    return true;
  }
  bool Text(std::string_view* out) {
    uint32_t length;
    return U32(&length) && Bytes(length, out);
  }

 private:
  std::string_view bytes_;
  size_t pos_ = 0;
};

}  // namespace

std::string EncodeProperties(const PropertySet& properties) {
  std::string out;
  for (const auto& [id, value] : properties.values()) {
    PutU32(out, id);
    if (const auto* text = std::get_if<std::string>(&value)) {
      out.push_back(1);
      PutText(out, *text);
    } else {
      out.push_back(0);
      PutU32(out, static_cast<uint32_t>(std::get<int32_t>(value)));
    }
  }
  return out;
}

bool DecodeProperties(std::string_view bytes, PropertySet* out) {
  Reader in(bytes);
  while (!in.done()) {
    uint32_t id, number;
    uint8_t kind;
    std::string_view text;
    if (!in.U32(&id) || !in.U8(&kind)) return false;
    if (kind == 0) {
      if (!in.U32(&number)) return false;
      out->Set(id, static_cast<int32_t>(number));
    } else if (kind == 1) {
      if (!in.Text(&text)) return false;
      out->Set(id, std::string(text));
    } else {
      return false;
    }
  }
  return true;
}

std::string EncodeTracks(const std::vector<TrackRecord>& tracks) {
  std::string out;
  for (const TrackRecord& t : tracks) {
    PutU32(out, t.number);
    PutU32(out, t.frames);
    PutText(out, EncodeProperties(t.properties));
  }
  return out;
}

bool DecodeTracks(std::string_view bytes, std::vector<TrackRecord>* out) {
  Reader in(bytes);
  while (!in.done()) {
    TrackRecord t;
    std::string_view properties;
    if (!in.U32(&t.number) || !in.U32(&t.frames) || !in.Text(&properties) ||
        !DecodeProperties(properties, &t.properties)) {
      return false;
    }
    out->push_back(std::move(t));
  }
  return true;
}

std::string EncodeNames(const AlbumRecord& album) {
  std::string out;
  auto put = [&out](int list, std::string_view name, std::string_view role,
                    std::string_view period) {
    out.push_back(static_cast<char>(list));
    PutText(out, name);
    PutText(out, role);
    PutText(out, period);
  };
  for (const std::string& n : album.artists)
    put(kListArtists, n, {}, {});
  for (const std::string& n : album.composers)
    put(kListComposers, n, {}, {});
  for (int c = 0; c < kCreditListCount; ++c) {
    for (const Credit& credit : album.credits[c])
      put(kListCredits + c, credit.name, credit.role, {});
  }
  for (const LineupMember& m : album.lineup)
    put(kListLineup, m.name, m.role, m.period);
  return out;
}

bool DecodeNames(std::string_view bytes, AlbumRecord* album) {
  Reader in(bytes);
  while (!in.done()) {
    uint8_t list;
    std::string_view name, role, period;
    if (!in.U8(&list) || !in.Text(&name) || !in.Text(&role) || !in.Text(&period)) return false;
    if (list == kListArtists) {
      album->artists.emplace_back(name);
    } else if (list == kListComposers) {
      album->composers.emplace_back(name);
    } else if (list >= kListCredits && list < kListLineup) {
      album->credits[list - kListCredits].push_back({std::string(name), std::string(role)});
    } else if (list == kListLineup) {
      album->lineup.push_back({std::string(name), std::string(role), std::string(period)});
    } else {
      return false;
    }
  }
  return true;
}

std::string EncodeAlbum(const AlbumRecord& album) {
  std::string out;
  out.push_back(1);
  out.push_back(
      static_cast<char>((album.various_artists ? 1 : 0) | (album.various_composers ? 2 : 0)));
  PutText(out, EncodeProperties(album.properties));
  PutText(out, EncodeNames(album));
  PutU32(out, static_cast<uint32_t>(album.volumes.size()));
  for (const VolumeRecord& v : album.volumes) {
    PutU32(out, v.record_id);
    PutText(out, v.title);
    PutU32(out, v.frames);
    PutU32(out, v.created);
    PutU32(out, v.played);
    PutText(out, EncodeProperties(v.properties));
    PutText(out, EncodeTracks(v.tracks));
  }
  return out;
}

bool DecodeAlbum(std::string_view bytes, AlbumRecord* album) {
  Reader in(bytes);
  uint8_t version, flags;
  uint32_t count;
  std::string_view properties, names;
  if (!in.U8(&version) || version != 1 || !in.U8(&flags) || !in.Text(&properties) ||
      !in.Text(&names) || !in.U32(&count)) {
    return false;
  }
  album->various_artists = (flags & 1) != 0;
  album->various_composers = (flags & 2) != 0;
  if (!DecodeProperties(properties, &album->properties) || !DecodeNames(names, album)) {
    return false;
  }
  // Each volume takes at least 32 bytes: a count beyond that is damage.
  if (count > bytes.size() / 32) return false;
  for (uint32_t i = 0; i < count; ++i) {
    VolumeRecord& v = album->volumes.emplace_back();
    std::string_view title, volume_properties, tracks;
    if (!in.U32(&v.record_id) || !in.Text(&title) || !in.U32(&v.frames) || !in.U32(&v.created) ||
        !in.U32(&v.played) || !in.Text(&volume_properties) || !in.Text(&tracks) ||
        !DecodeProperties(volume_properties, &v.properties) || !DecodeTracks(tracks, &v.tracks)) {
      return false;
    }
    v.title = title;
  }
  return in.done();
}

}  // namespace dischive::catalog
