// A catalogue view limited to some albums, so that the collection writer can
// write a document of only the albums a sync sends.
#include "dischive/sync_engine.h"

namespace dischive {
namespace {

class SelectedAlbums final : public CatalogEngine {
 public:
  SelectedAlbums(CatalogEngine& base, std::vector<std::string> ids)
      : base_(base), ids_(std::move(ids)) {}

  const std::filesystem::path& path() const override { return base_.path(); }
  size_t AlbumCount() override { return ids_.size(); }
  HResult ForEachAlbum(const std::function<bool(const AlbumRecord&)>& visit) override {
    for (const std::string& id : ids_) {
      const std::optional<AlbumRecord> album = base_.ReadAlbum(id);
      if (album && !visit(*album)) break;
    }
    return kOk;
  }
  std::optional<AlbumRecord> ReadAlbum(std::string_view id) override { return base_.ReadAlbum(id); }
  std::optional<std::string> FindAlbumOfVolume(uint32_t id) override {
    return base_.FindAlbumOfVolume(id);
  }
  std::optional<VolumeRecord> ReadVolume(uint32_t id) override { return base_.ReadVolume(id); }
  HResult WriteAlbum(AlbumRecord& album, WriteMode mode) override {
    return base_.WriteAlbum(album, mode);
  }
  HResult DeleteAlbum(std::string_view id) override { return base_.DeleteAlbum(id); }
  std::optional<PropertyValue> GetVolumeProperty(uint32_t record_id, field::FieldId id,
                                                 uint32_t index) override {
    return base_.GetVolumeProperty(record_id, id, index);
  }
  HResult SetVolumeProperty(uint32_t record_id, field::FieldId id, uint32_t index,
                            const PropertyValue& value) override {
    return base_.SetVolumeProperty(record_id, id, index, value);
  }
  std::optional<std::string> ReadCover(uint32_t id) override { return base_.ReadCover(id); }
  HResult WriteCover(uint32_t id, std::string_view bytes) override {
    return base_.WriteCover(id, bytes);
  }
  std::vector<ArtistEntry> Artists() override { return base_.Artists(); }
  uint32_t ArtistsModified() override { return base_.ArtistsModified(); }
  HResult WriteArtist(const ArtistEntry& artist) override { return base_.WriteArtist(artist); }
  std::optional<std::string> GetDatabaseProperty(std::string_view group,
                                                 std::string_view key) override {
    return base_.GetDatabaseProperty(group, key);
  }
  HResult SetDatabaseProperty(std::string_view group, std::string_view key,
                              std::string_view value) override {
    return base_.SetDatabaseProperty(group, key, value);
  }
  HResult RemoveDatabaseProperty(std::string_view group, std::string_view key) override {
    return base_.RemoveDatabaseProperty(group, key);
  }
  std::string UserList(std::string_view key) override { return base_.UserList(key); }
  HResult SetUserList(std::string_view key, std::string_view text) override {
    return base_.SetUserList(key, text);
  }
  uint32_t UserListTimestamp(std::string_view key) override { return base_.UserListTimestamp(key); }
  HResult SuspendWriting() override { return base_.SuspendWriting(); }
  void ResumeWriting() override { base_.ResumeWriting(); }

 private:
  CatalogEngine& base_;
  std::vector<std::string> ids_;
};

}  // namespace

std::unique_ptr<CatalogEngine> SelectAlbums(CatalogEngine& catalog, std::vector<std::string> ids) {
  return std::make_unique<SelectedAlbums>(catalog, std::move(ids));
}

}  // namespace dischive
