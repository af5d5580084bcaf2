// A catalogue held in memory, for tests that need exact control over every
// record (identifiers and times included). Only the reading side used by the
// collection document is complete; writes of single properties are refused.
#pragma once

#include <map>
#include <string>

#include "dischive/catalog.h"

namespace dischive::test {

class MemoryCatalog : public CatalogEngine {
 public:
  std::map<std::string, AlbumRecord> albums;
  std::map<uint32_t, std::string> covers;
  std::vector<ArtistEntry> artists;
  uint32_t artists_modified = 0;
  std::map<std::string, std::string, std::less<>> lists;
  std::map<std::string, uint32_t, std::less<>> list_times;
  std::map<std::pair<std::string, std::string>, std::string> properties;

  const std::filesystem::path& path() const override { return path_; }
  size_t AlbumCount() override { return albums.size(); }
  HResult ForEachAlbum(const std::function<bool(const AlbumRecord&)>& visit) override {
    for (const auto& [id, album] : albums) {
      if (!visit(album)) break;
    }
    return kOk;
  }
  std::optional<AlbumRecord> ReadAlbum(std::string_view album_id) override {
    const auto it = albums.find(std::string(album_id));
    if (it == albums.end()) return std::nullopt;
    return it->second;
  }
  std::optional<std::string> FindAlbumOfVolume(uint32_t record_id) override {
    for (const auto& [id, album] : albums) {
      for (const VolumeRecord& v : album.volumes) {
        if (v.record_id == record_id) return id;
      }
    }
    return std::nullopt;
  }
  std::optional<VolumeRecord> ReadVolume(uint32_t record_id) override {
    for (const auto& [id, album] : albums) {
      for (const VolumeRecord& v : album.volumes) {
        if (v.record_id == record_id) return v;
      }
    }
    return std::nullopt;
  }
  HResult WriteAlbum(AlbumRecord& album, WriteMode) override {
    albums[album.id] = album;
    return kOk;
  }
  HResult DeleteAlbum(std::string_view album_id) override {
    return albums.erase(std::string(album_id)) != 0 ? kOk : kErrorFileNotFound;
  }
  std::optional<PropertyValue> GetVolumeProperty(uint32_t, field::FieldId, uint32_t) override {
    return std::nullopt;
  }
  HResult SetVolumeProperty(uint32_t, field::FieldId, uint32_t, const PropertyValue&) override {
    return kFail;
  }
  std::optional<std::string> ReadCover(uint32_t record_id) override {
    const auto it = covers.find(record_id);
    if (it == covers.end()) return std::nullopt;
    return it->second;
  }
  HResult WriteCover(uint32_t record_id, std::string_view bytes) override {
    covers[record_id] = std::string(bytes);
    return kOk;
  }
  std::vector<ArtistEntry> Artists() override { return artists; }
  uint32_t ArtistsModified() override { return artists_modified; }
  HResult WriteArtist(const ArtistEntry& artist) override {
    artists.push_back(artist);
    return kOk;
  }
  std::optional<std::string> GetDatabaseProperty(std::string_view group,
                                                 std::string_view key) override {
    const auto it = properties.find({std::string(group), std::string(key)});
    if (it == properties.end()) return std::nullopt;
    return it->second;
  }
  HResult SetDatabaseProperty(std::string_view group, std::string_view key,
                              std::string_view value) override {
    properties[{std::string(group), std::string(key)}] = std::string(value);
    return kOk;
  }
  HResult RemoveDatabaseProperty(std::string_view group, std::string_view key) override {
    properties.erase({std::string(group), std::string(key)});
    return kOk;
  }
  std::string UserList(std::string_view key) override {
    const auto it = lists.find(key);
    return it == lists.end() ? std::string() : it->second;
  }
  HResult SetUserList(std::string_view key, std::string_view text) override {
    lists[std::string(key)] = std::string(text);
    return kOk;
  }
  uint32_t UserListTimestamp(std::string_view key) override {
    const auto it = list_times.find(key);
    return it == list_times.end() ? 0 : it->second;
  }
  HResult SuspendWriting() override { return kOk; }
  void ResumeWriting() override {}

 private:
  std::filesystem::path path_ = "memory.dab";
};

}  // namespace dischive::test
