// "catalog show" and the collection document name each field the same way.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "dischive/field_names.h"
#include "dischive/sqlite_catalog.h"
#include "support/temp_dir.h"

namespace dischive::test {
namespace {

using nlohmann::json;

// A value that the document writes for a field of that kind (it leaves out
// zeros and empty texts).
PropertyValue SampleValue(const FieldName& entry) {
  switch (entry.kind) {
    case FieldKind::kText:
      return std::string("v");
    case FieldKind::kDate:
      return static_cast<int32_t>(0x3B080100);
    default:
      return int32_t{1};
  }
}

// True when the document has an element or an attribute of that name.
bool DocumentNames(const std::string& xml, const std::string& name) {
  return xml.find('<' + name + '>') != std::string::npos ||
         xml.find('<' + name + ' ') != std::string::npos ||
         xml.find(' ' + name + "=\"") != std::string::npos;
}

TEST(FieldNamesCliTest, ShowAndExportNameEveryFieldAlike) {
  TempDir home;
  const std::string db = (home / "Music.dab").string();
  std::string id;
  {
    auto cat = OpenSqliteCatalog(db, CatalogOpenMode::kCreate);
    ASSERT_TRUE(cat);
    AlbumRecord album;
    album.artists = {"A"};
    VolumeRecord& volume = album.volumes.emplace_back();
    volume.record_id = 0x6B0A2F05;
    TrackRecord& track = volume.tracks.emplace_back();
    track.number = 1;
    track.frames = 4500;
    for (const FieldName& entry : FieldNames()) {
      album.properties.Set(entry.id, SampleValue(entry));
      track.properties.Set(entry.id, SampleValue(entry));
    }
    ASSERT_EQ(cat->WriteAlbum(album, WriteMode::kReplace), kOk);
    id = album.id;
  }
  const ProcessResult show = RunCli({"--json", "catalog", "show", id, "--db", db}, home.path());
  ASSERT_EQ(show.exit_code, 0) << show.err;
  const ProcessResult exported =
      RunCli({"export", "--db", db, "--covers", (home / "covers").string()}, home.path());
  ASSERT_EQ(exported.exit_code, 0) << exported.err;

  const json shown = json::parse(show.out);
  const json& album_keys = shown["properties"];
  const json& track_keys = shown["volumes"][0]["tracks"][0]["properties"];
  size_t compared = 0;
  for (const json* keys : {&album_keys, &track_keys}) {
    for (const auto& [key, value] : keys->items()) {
      EXPECT_NE(key.substr(0, 2), "0x") << "a field without a name";
      if (DocumentNames(exported.out, key)) ++compared;
    }
  }
  // Every field of the user's own (Text1-10, Date1-5, Memo1-5, Bool1-10)
  // appears under its name in both.
  for (const FieldName& entry : FieldNames()) {
    const std::string name = entry.name;
    if (name.rfind("Text", 0) != 0 && name.rfind("Date", 0) != 0 && name.rfind("Memo", 0) != 0 &&
        name.rfind("Bool", 0) != 0) {
      continue;
    }
    EXPECT_TRUE(track_keys.contains(name)) << name;
    EXPECT_TRUE(DocumentNames(exported.out, name)) << name;
  }
  EXPECT_GE(compared, FieldNames().size());
}

}  // namespace
}  // namespace dischive::test
