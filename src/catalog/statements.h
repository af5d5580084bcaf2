// The prepared statements of the catalogue's queries.
#pragma once

#include <optional>

#include "catalog/sqlite_db.h"

namespace dischive::catalog {

// The prepared statements of one connection, compiled once. A file of schema 1
// opened by a reader (which cannot add the scan columns) gets the statements
// that do without them.
struct Statements {
  Statements(Connection& c, bool scan_columns)
      : count_albums(c, "SELECT count(*) FROM albums"),
        album_row(c, "SELECT aid, id, modified, record FROM albums WHERE aid = ?1"),
        album_by_id(c, "SELECT aid, id, modified, record FROM albums WHERE id = ?1"),
        volume_album(c, "SELECT aid FROM volumes WHERE record_id = ?1"),
        album_id_of_volume(c,
                           "SELECT a.id FROM volumes v JOIN albums a ON a.aid = v.aid "
                           "WHERE v.record_id = ?1"),
        insert_album(c, "INSERT INTO albums(id, modified, record) VALUES(?1, ?2, ?3)"),
        update_album(c, "UPDATE albums SET modified = ?2, record = ?3 WHERE aid = ?1"),
        id_exists(c, "SELECT 1 FROM albums WHERE id = ?1"),
        delete_album_by_id(c, "DELETE FROM albums WHERE id = ?1"),
        touch_album(c, "UPDATE albums SET modified = ?2 WHERE aid = ?1"),
        write_volume(c, scan_columns
                            ? "INSERT INTO volumes(record_id, aid, track_count, scan_folder, "
                              "scan_stamp, scan_flags, scan_value3) VALUES(?1, ?2, ?3, ?4, ?5, "
                              "?6, ?7) ON CONFLICT(record_id) DO UPDATE SET track_count = "
                              "excluded.track_count, scan_folder = excluded.scan_folder, "
                              "scan_stamp = excluded.scan_stamp, scan_flags = "
                              "excluded.scan_flags, scan_value3 = excluded.scan_value3"
                            : "SELECT ?1, ?2, ?3, ?4, ?5, ?6, ?7"),
        delete_volume(c, "DELETE FROM volumes WHERE record_id = ?1"),
        read_cover(c, "SELECT bytes FROM covers WHERE record_id = ?1"),
        write_cover(c, "INSERT OR REPLACE INTO covers(record_id, bytes) VALUES(?1, ?2)"),
        delete_cover(c, "DELETE FROM covers WHERE record_id = ?1"),
        list_artists(c,
                     "SELECT name, is_band, sort_name, country, formed, disbanded FROM artists "
                     "ORDER BY name"),
        artist_alt_names(c, "SELECT alt_name FROM artist_alt_names WHERE name = ?1 ORDER BY pos"),
        artist_links(c, "SELECT link, description FROM artist_links WHERE name = ?1 ORDER BY pos"),
        delete_artist(c, "DELETE FROM artists WHERE name = ?1"),
        insert_artist(c,
                      "INSERT INTO artists(name, is_band, sort_name, country, formed, disbanded) "
                      "VALUES(?1, ?2, ?3, ?4, ?5, ?6)"),
        insert_alt_name(c, "INSERT INTO artist_alt_names(name, pos, alt_name) VALUES(?1, ?2, ?3)"),
        insert_link(c,
                    "INSERT INTO artist_links(name, pos, link, description) "
                    "VALUES(?1, ?2, ?3, ?4)"),
        get_db_prop(c, "SELECT value FROM db_props WHERE grp = ?1 AND key = ?2"),
        set_db_prop(c, "INSERT OR REPLACE INTO db_props(grp, key, value) VALUES(?1, ?2, ?3)"),
        delete_db_prop(c, "DELETE FROM db_props WHERE grp = ?1 AND key = ?2"),
        list_db_props(c, "SELECT key, value FROM db_props WHERE grp = ?1 ORDER BY key"),
        get_meta(c, "SELECT value FROM meta WHERE key = ?1"),
        set_meta(c, "INSERT OR REPLACE INTO meta(key, value) VALUES(?1, ?2)") {
    if (scan_columns) {
      scan_state.emplace(c,
                         "SELECT record_id, scan_folder, scan_stamp, scan_flags, scan_value3 "
                         "FROM volumes WHERE record_id = ?1");
      scanned_volumes.emplace(c,
                              "SELECT record_id, scan_folder, scan_stamp, scan_flags, "
                              "scan_value3 FROM volumes WHERE scan_folder IS NOT NULL "
                              "ORDER BY record_id");
    }
  }

  Statement count_albums, album_row, album_by_id, volume_album, album_id_of_volume, insert_album,
      update_album, id_exists, delete_album_by_id, touch_album, write_volume, delete_volume,
      read_cover, write_cover, delete_cover, list_artists, artist_alt_names, artist_links,
      delete_artist, insert_artist, insert_alt_name, insert_link, get_db_prop, set_db_prop,
      delete_db_prop, list_db_props, get_meta, set_meta;
  std::optional<Statement> scan_state, scanned_volumes;
};

}  // namespace dischive::catalog
