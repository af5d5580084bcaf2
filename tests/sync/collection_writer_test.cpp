// The collection document: the XML stream writer under it, the covers it
// hashes, and the whole document written from a real catalogue.
#include "dischive/collection.h"

#include <gtest/gtest.h>
#include <libxml/parser.h>
#include <libxml/xpath.h>
#include <turbojpeg.h>

#include <fmt/format.h>

#include <cerrno>
#include <map>
#include <sstream>
#include <vector>

#include "dischive/cover.h"
#include "dischive/date.h"
#include "dischive/errors.h"
#include "dischive/sqlite_catalog.h"
#include "dischive/xml_writer.h"
#include "support/temp_dir.h"

namespace dischive {
namespace {

namespace f = field;

constexpr std::string_view kDecl = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";

xmlDocPtr Parse(const std::string& xml) {
  return xmlReadMemory(xml.data(), static_cast<int>(xml.size()), nullptr, nullptr,
                       XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING);
}

bool IsWellFormed(const std::string& xml) {
  xmlDocPtr doc = Parse(xml);
  if (doc == nullptr) return false;
  xmlFreeDoc(doc);
  return true;
}

// Keeps what it is given; fails every write after the first `fail_after`.
struct CountingOutput : XmlOutput {
  bool Write(const char* data, size_t size) override {
    ++writes;
    text.append(data, size);
    return writes <= fail_after;
  }
  size_t writes = 0;
  size_t fail_after = SIZE_MAX;
  std::string text;
};

// 20000 small elements in a root: enough to flush the writer's buffer often.
bool WriteMany(CountingOutput& out) {
  XmlStreamWriter writer(out, CodePage::kUtf8);
  XmlElementScope root(writer, "R");
  root.Open();
  for (int i = 0; i < 20000; ++i)
    writer.WriteTextElement("I", "0123456789");
  root.Close();
  const bool finished = writer.Finish();
  EXPECT_TRUE(!finished || writer.bytes_written() == out.text.size());
  return finished;
}

TEST(XmlStreamWriterTest, LayoutOfNestedElementsTextAndDeferredScopes) {
  StringXmlOutput out;
  {
    XmlStreamWriter writer(out, CodePage::kUtf8);
    XmlElementScope root(writer, "Root");
    root.Attribute("Version", "1.0").Attribute("Empty", "").Open();
    {
      XmlElementScope list(writer, "List");
      list.Open();
      writer.WriteTextElement("Item", "one");
      writer.WriteTextElement("Item", "");
      {
        // Deferred with attributes and no content: an empty element.
        XmlElementScope common(writer, "Common");
        common.Attribute("Live", "1").Open(true);
      }
      {
        // Deferred without attributes or content: nothing at all.
        XmlElementScope common(writer, "Common");
        common.Open(true);
      }
      {
        // A deferred parent is forced out by a child, outermost first.
        XmlElementScope outer(writer, "Outer");
        outer.Open(true);
        XmlElementScope inner(writer, "Inner");
        inner.Open(true);
        writer.WriteTextElement("Leaf", "x");
      }
      XmlElementScope none(writer, "NoChildren");
      none.Open();
    }
    writer.WriteCDataElement("Memo", "a\r\nb");
    writer.WriteCDataElement("Nothing", "");
    root.Close();
    EXPECT_TRUE(writer.Finish());
  }
  EXPECT_EQ(out.text(), std::string(kDecl) +
                            "<Root Version=\"1.0\">\n"
                            "\t<List>\n"
                            "\t\t<Item>one</Item>\n"
                            "\t\t<Item></Item>\n"
                            "\t\t<Common Live=\"1\"/>\n"
                            "\t\t<Outer>\n"
                            "\t\t\t<Inner>\n"
                            "\t\t\t\t<Leaf>x</Leaf>\n"
                            "\t\t\t</Inner>\n"
                            "\t\t</Outer>\n"
                            "\t\t<NoChildren></NoChildren>\n"
                            "\t</List>\n"
                            "\t<Memo><![CDATA[a\nb]]></Memo>\n"
                            "\t<Nothing></Nothing>\n"
                            "</Root>");
  EXPECT_TRUE(IsWellFormed(out.text()));
}

TEST(XmlStreamWriterTest, EscapingAndCleaningOfTextAttributesAndCData) {
  struct Case {
    CodePage page;
    std::string input;
    std::string text;   // as element text
    std::string cdata;  // inside the CDATA section written with WriteCData
  };
  const Case cases[] = {
      {CodePage::kUtf8, "a<b & \"c\"", "a&lt;b &amp; &quot;c&quot;", "a<b & \"c\""},
      {CodePage::kUtf8, "it's > it", "it's &gt; it", "it's > it"},
      {CodePage::kUtf8, "tab\tcr\rlf\n", "tab\tcr\rlf\n", "tab\tcr\rlf\n"},
      {CodePage::kUtf8, std::string("x\x01\x1F\0y", 5), "xy", "xy"},
      {CodePage::kUtf8, "end]]>here", "end]]&gt;here", "end]]]]><![CDATA[>here"},
      {CodePage::kUtf8, "end]]\x02>", "end]]&gt;", "end]]]]><![CDATA[>"},
      {CodePage::kUtf8, "bad\xC3(\xFF", "bad\xEF\xBF\xBD(\xEF\xBF\xBD",
       "bad\xEF\xBF\xBD(\xEF\xBF\xBD"},
      {CodePage::kUtf8, "\xEF\xBF\xBEno\xC3\xA9", "no\xC3\xA9", "no\xC3\xA9"},
      {CodePage::kWindows1252, "caf\xE9 \x80", "caf\xC3\xA9 \xE2\x82\xAC",
       "caf\xC3\xA9 \xE2\x82\xAC"},
      {CodePage::kWindows1252, "a&\x01", "a&amp;", "a&"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.input);
    StringXmlOutput out;
    {
      XmlStreamWriter writer(out, c.page);
      XmlElementScope root(writer, "R");
      root.Attribute("A", c.input).Open();
      writer.WriteTextElement("T", c.input);
      XmlElementScope cdata(writer, "C");
      cdata.Open();
      writer.WriteCData(c.input);
    }
    EXPECT_EQ(out.text(), std::string(kDecl) + "<R A=\"" + c.text + "\">\n\t<T>" + c.text +
                              "</T>\n\t<C><![CDATA[" + c.cdata + "]]></C>\n</R>");
    EXPECT_TRUE(IsWellFormed(out.text())) << out.text();
  }
}

TEST(XmlStreamWriterTest, LargeOutputIsFlushedInPiecesAndWriteFailuresAreReported) {
  CountingOutput out;
  EXPECT_TRUE(WriteMany(out));
  EXPECT_GT(out.writes, 3u);
  EXPECT_TRUE(IsWellFormed(out.text));

  std::ostringstream stream;
  {
    OstreamXmlOutput ostream_out(stream);
    XmlStreamWriter writer(ostream_out);
    writer.WriteTextElement("E", "\xE9");
    EXPECT_TRUE(writer.Finish());
  }
  EXPECT_EQ(stream.str(), std::string(kDecl) + "<E>\xC3\xA9</E>");

  CountingOutput failing;
  failing.fail_after = 1;
  EXPECT_FALSE(WriteMany(failing));
  EXPECT_EQ(failing.writes, 2u);  // nothing more after the failed write
}

// A JPEG made by libjpeg-turbo: the left half red, the right half blue (or a
// grey ramp when `grey`).
std::string MakeJpeg(int width, int height, bool grey = false) {
  const int ch = grey ? 1 : 3;
  std::vector<uint8_t> pixels(static_cast<size_t>(width) * height * ch);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      uint8_t* p = &pixels[(static_cast<size_t>(y) * width + x) * ch];
      if (grey) {
        p[0] = static_cast<uint8_t>(x * 255 / width);
      } else {
        const bool left = x < width / 2;
        p[0] = left ? 220 : 20;
        p[1] = 30;
        p[2] = left ? 20 : 220;
      }
    }
  }
  tjhandle handle = tjInitCompress();
  unsigned char* jpeg = nullptr;
  unsigned long size = 0;
  EXPECT_EQ(tjCompress2(handle, pixels.data(), width, 0, height, grey ? TJPF_GRAY : TJPF_RGB, &jpeg,
                        &size, grey ? TJSAMP_GRAY : TJSAMP_420, 85, 0),
            0);
  std::string bytes(reinterpret_cast<const char*>(jpeg), size);
  tjFree(jpeg);
  tjDestroy(handle);
  return bytes;
}

struct Decoded {
  int width = 0, height = 0, subsampling = -1;
  std::vector<uint8_t> rgb;
};

Decoded Decode(const std::string& jpeg) {
  Decoded d;
  tjhandle handle = tjInitDecompress();
  const auto* data = reinterpret_cast<const unsigned char*>(jpeg.data());
  int colorspace = 0;
  if (tjDecompressHeader3(handle, data, jpeg.size(), &d.width, &d.height, &d.subsampling,
                          &colorspace) == 0) {
    d.rgb.resize(static_cast<size_t>(d.width) * d.height * 3);
    EXPECT_EQ(
        tjDecompress2(handle, data, jpeg.size(), d.rgb.data(), d.width, 0, d.height, TJPF_RGB, 0),
        0);
  }
  tjDestroy(handle);
  return d;
}

TEST(CoverTest, HashIsUpperCaseMd5OfTheBytes) {
  EXPECT_EQ(CoverHash(""), "D41D8CD98F00B204E9800998ECF8427E");
  EXPECT_EQ(CoverHash("abc"), "900150983CD24FB0D6963F7D28E17F72");
}

TEST(CoverTest, LargeCoversAreScaledToTheUploadSize) {
  struct Case {
    int width, height;
    bool grey;
    int want_width, want_height;
  };
  const Case cases[] = {
      {1000, 600, false, 160, 96}, {600, 1000, false, 96, 160}, {161, 161, false, 160, 160},
      {1000, 5, false, 160, 1},    {400, 300, true, 160, 120},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.width << "x" << c.height);
    const std::string stored = MakeJpeg(c.width, c.height, c.grey);
    const PreparedCover cover = PrepareCover(stored);
    ASSERT_EQ(cover.outcome, CoverOutcome::kScaled);
    EXPECT_EQ(cover.width, c.want_width);
    EXPECT_EQ(cover.height, c.want_height);
    const Decoded d = Decode(cover.bytes);
    EXPECT_EQ(d.width, c.want_width);
    EXPECT_EQ(d.height, c.want_height);
    EXPECT_EQ(d.subsampling, c.grey ? TJSAMP_GRAY : TJSAMP_420);
    // The same input always gives the same bytes, hence the same hash.
    EXPECT_EQ(PrepareCover(stored).bytes, cover.bytes);
  }

  // The picture survives the scaling: red on the left, blue on the right.
  const Decoded d = Decode(PrepareCover(MakeJpeg(1000, 600)).bytes);
  const uint8_t* left = &d.rgb[(48 * 160 + 20) * 3];
  const uint8_t* right = &d.rgb[(48 * 160 + 140) * 3];
  EXPECT_GT(left[0], 180);
  EXPECT_LT(left[2], 60);
  EXPECT_LT(right[0], 60);
  EXPECT_GT(right[2], 180);
}

TEST(CoverTest, SmallAndUndecodableCoversAreUsedAsStored) {
  for (const auto& [w, h] : {std::pair{120, 160}, std::pair{160, 160}, std::pair{1, 1}}) {
    const std::string stored = MakeJpeg(w, h);
    const PreparedCover cover = PrepareCover(stored);
    EXPECT_EQ(cover.outcome, CoverOutcome::kKept);
    EXPECT_EQ(cover.bytes, stored);
    EXPECT_EQ(cover.width, w);
  }

  std::string truncated = MakeJpeg(800, 800);
  truncated.resize(truncated.size() / 2);
  const std::string not_jpeg = "\x89PNG\r\n\x1a\nnot really";
  for (const std::string& stored : {not_jpeg, truncated, std::string("\xFF\xD8\xFF", 3)}) {
    const PreparedCover cover = PrepareCover(stored);
    EXPECT_EQ(cover.outcome, CoverOutcome::kUndecodable);
    EXPECT_EQ(cover.bytes, stored);
  }
}

// A real catalogue file in a temporary folder.
struct Catalogue {
  Catalogue() {
    engine = OpenSqliteCatalog(dir / "test.dab", CatalogOpenMode::kCreate);
    EXPECT_NE(engine, nullptr);
  }
  void Add(AlbumRecord album) { ASSERT_EQ(engine->WriteAlbum(album, WriteMode::kReplace), kOk); }
  // Stores a user list with a fixed timestamp (0: none).
  void SetList(std::string_view key, std::string_view text, uint32_t time) {
    ASSERT_EQ(engine->SetUserList(key, text), kOk);
    ASSERT_EQ(engine->SetDatabaseProperty("db_opts", "t_" + std::string(key), std::to_string(time)),
              kOk);
  }
  std::string Modified(std::string_view album_id) {
    std::optional<AlbumRecord> album = engine->ReadAlbum(album_id);
    return album ? fmt::format("{:08X}", album->modified) : "?";
  }

  test::TempDir dir;
  std::unique_ptr<CatalogEngine> engine;
};

// Replaces every "{name}" in the text.
std::string Substitute(std::string text, const std::map<std::string, std::string>& values) {
  for (const auto& [name, value] : values) {
    const std::string key = "{" + name + "}";
    for (size_t pos = text.find(key); pos != std::string::npos; pos = text.find(key, pos)) {
      text.replace(pos, key.size(), value);
    }
  }
  return text;
}

TrackRecord MakeTrack(uint32_t number, uint32_t frames,
                      std::initializer_list<std::pair<f::FieldId, PropertyValue>> props) {
  TrackRecord track;
  track.number = number;
  track.frames = frames;
  for (const auto& [id, value] : props)
    track.properties.Set(id, value);
  return track;
}

// A catalogue that exercises every part of the document once.
void FillSample(Catalogue& catalog) {
  AlbumRecord a;
  a.id = "0123456789ABCDEF";
  a.modified = 0x5F000000;
  a.artists = {"Ann & Bob"};
  a.various_composers = true;
  a.lineup = {{"Carol", "drums", "1990-1995"}};
  a.credits[static_cast<int>(CreditList::kMusicians)] = {{"Dave", "bass"}};
  PropertySet& p = a.properties;
  p.Set(f::kTitle, std::string());
  p.Set(f::kIsClassical, 2);  // only exactly 1 counts
  p.Set(f::kIsSingle, 1);
  p.Set(f::kInCollection, 0);
  p.Set(f::kMciId, 0x1234);
  p.Set(f::kIcon, 7);
  p.Set(f::kYear, std::string("1999"));
  p.Set(f::kGenre, std::string("Rock"));
  p.Set(f::kComment, std::string("a\r\nb"));
  p.Set(f::kReleaseDate, static_cast<int32_t>(PackDate({2001, 5, 0})));
  p.Set(f::kLabel, std::string("a<b & \"c\" it's"));
  p.Set(f::kPrice, 1999);
  p.Set(f::kOriginalPrice, 5);
  p.Set(f::kBookletPages, 12);

  VolumeRecord v1;
  v1.record_id = 0x0A0B0C03;
  v1.frames = 4500000;
  v1.created = 0x60000000;
  v1.played = 0x61000000;
  v1.tracks = {
      MakeTrack(1, 4500000,
                {{f::kLive, 1}, {f::kBitrate, 320}, {f::kMono, 1}, {f::kTrackTitle, "Long"}}),
      MakeTrack(2, 0, {{f::kLive, 1}, {f::kBitrate, 320}, {f::kTrackTitle, "Zero"}}),
      MakeTrack(3, kUnknownFrames, {{f::kLive, 1}, {f::kBitrate, 320}}),
  };
  VolumeRecord v2;
  v2.record_id = 0x12345678;
  v2.title = "Bonus";
  v2.frames = 750;
  v2.created = 0x5E000000;
  v2.properties.Set(f::kLive, 1);
  v2.properties.Set(f::kBitrate, 128);
  v2.tracks = {
      MakeTrack(1, 375,
                {{f::kLive, 1},
                 {f::kBpm, 120},
                 {f::kArtist, "Fay"},
                 {f::kComposer, "Gus"},
                 {f::kTrackTitle, "First"},
                 {f::kComment, "note"},
                 {f::kText[2], "t3"},
                 {f::kDate[0], static_cast<int32_t>(PackDate({2023, 12, 31}))},
                 {f::kMemo[4], "x]]>y"},
                 {f::kRecCity, "Oslo"},
                 {f::kLyrics, "la\r\nla"},
                 {f::kTrackRating, 4},
                 {f::kFilePath, "/music/a&b.flac"},
                 {f::kFileSize, "4000000000"}}),
      MakeTrack(2, 375, {{f::kRemastered, 1}, {f::kBool[9], 1}}),
  };
  a.volumes = {v1, v2};
  catalog.Add(a);

  AlbumRecord b;
  b.id = "FEDCBA9876543210";
  b.modified = 1;
  b.properties.Set(f::kTitle, std::string("Amazon"));
  b.properties.Set(f::kIsClassical, 1);
  b.properties.Set(f::kAsin, std::string("B000TEST"));
  b.properties.Set(f::kAmazonServer, std::string("webservices.amazon.co.uk"));
  b.properties.Set(f::kAmazonClassical, 1);
  catalog.Add(b);

  // Creation time: a volume without one restarts the search for the smallest.
  AlbumRecord c;
  c.id = "89ABCDEF01234567";
  c.modified = 2;
  c.properties.Set(f::kTitle, std::string("Reset"));
  for (const auto& [id, created, played] :
       {std::tuple{0x101u, 5u, 7u}, std::tuple{0x202u, 0u, 0u}, std::tuple{0x300u, 9u, 3u}}) {
    VolumeRecord v;
    v.record_id = id;
    v.created = created;
    v.played = played;
    c.volumes.push_back(v);
  }
  catalog.Add(c);

  ArtistEntry eve;
  eve.name = "Eve";
  eve.sort_name = "Eve, The";
  eve.alt_names = {"E."};
  eve.country = "UK";
  eve.links = {{"Home", "site"}};
  ArtistEntry band;
  band.name = "The Band";
  band.is_band = true;
  band.date_formed = PackDate({1980, 0, 0});
  ASSERT_EQ(catalog.engine->WriteArtist(eve), kOk);
  ASSERT_EQ(catalog.engine->WriteArtist(band), kOk);

  for (const char* key : kUserListKeys)
    catalog.SetList(key, "", 0);
  catalog.SetList("user_formats", "CD\nLP", 0x11223344);
  catalog.SetList("user_categories", "Jazz\n\nBlues\n", 0);
}

constexpr std::string_view kSampleDocument =
    R"(<?xml version="1.0" encoding="UTF-8"?>
<Collection Version="1.0">
	<Albums>
		<Album ID="0123456789ABCDEF" Modified="{A}" Created="5E000000" Played="61000000" IsSingle="1" InCollection="0" CDDBID="0A0B0C03" MCIID="00001234" Icon="7" Frames="4500750" Time="16:40:10">
			<Artists>
				<Artist>Ann &amp; Bob</Artist>
			</Artists>
			<Composers Various="1"></Composers>
			<Title></Title>
			<Year>1999</Year>
			<Genres>
				<Genre>Rock</Genre>
			</Genres>
			<Comment><![CDATA[a
b]]></Comment>
			<ReleaseDate Encoded="65050000">2001-05</ReleaseDate>
			<Label>a&lt;b &amp; &quot;c&quot; it's</Label>
			<Price>19.99</Price>
			<OriginalPrice>0.05</OriginalPrice>
			<Artwork BookletPages="12"/>
			<Lineup>
				<Person>
					<Name>Carol</Name>
					<Role>drums</Role>
					<Period>1990-1995</Period>
				</Person>
			</Lineup>
			<Musicians>
				<Credit>
					<Name>Dave</Name>
					<Role>bass</Role>
				</Credit>
			</Musicians>
			<Volumes>
				<Volume ID="0A0B0C03" Frames="4500000" Time="16:40:00">
					<Common Live="1" Bitrate="320"/>
					<Tracks>
						<Track Number="01" Frames="4500000" Time="1000:00" Mono="1">
							<Title>Long</Title>
						</Track>
						<Track Number="02">
							<Title>Zero</Title>
						</Track>
						<Track Number="03"></Track>
					</Tracks>
				</Volume>
				<Volume Title="Bonus" ID="12345678" Frames="750" Time="0:10">
					<Live>1</Live>
					<Bitrate>128</Bitrate>
					<Tracks>
						<Track Number="01" Frames="375" Time="0:05" BPM="120" Live="1">
							<Artist>Fay</Artist>
							<Composer>Gus</Composer>
							<Title>First</Title>
							<Comment><![CDATA[note]]></Comment>
							<Text3>t3</Text3>
							<Date1 Encoded="7B0C1F00">2023-12-31</Date1>
							<Memo5><![CDATA[x]]]]><![CDATA[>y]]></Memo5>
							<RecCity>Oslo</RecCity>
							<Lyrics><![CDATA[la
la]]></Lyrics>
							<Rating>4</Rating>
							<File Size="4000000000">
								<Path>/music/a&amp;b.flac</Path>
							</File>
						</Track>
						<Track Number="02" Frames="375" Time="0:05" Remastered="1" Bool10="1"></Track>
					</Tracks>
				</Volume>
			</Volumes>
		</Album>
		<Album ID="FEDCBA9876543210" Modified="{B}" IsClassical="1">
			<Title>Amazon</Title>
			<ASIN>B000TEST</ASIN>
			<Artwork Server="2" ASIN="B000TEST" Classical="1"/>
			<Volumes></Volumes>
		</Album>
		<Album ID="89ABCDEF01234567" Modified="{C}" Created="00000009" Played="00000007" CDDBID="00000101">
			<Title>Reset</Title>
			<Volumes>
				<Volume ID="00000101">
					<Tracks></Tracks>
				</Volume>
				<Volume ID="00000202">
					<Tracks></Tracks>
				</Volume>
				<Volume ID="00000300">
					<Tracks></Tracks>
				</Volume>
			</Volumes>
		</Album>
	</Albums>
	<Artists Modified="{ARTISTS}">
		<Artist IsPerson="1">
			<Name>Eve</Name>
			<SortName>Eve, The</SortName>
			<AltNames>
				<AltName>E.</AltName>
			</AltNames>
			<Country>UK</Country>
			<Links>
				<Link>
					<Name>Home</Name>
					<Description>site</Description>
				</Link>
			</Links>
		</Artist>
		<Artist IsBand="1">
			<Name>The Band</Name>
			<DateFormed Encoded="50000000">1980</DateFormed>
		</Artist>
	</Artists>
	<Formats Modified="11223344">
		<Format>CD</Format>
		<Format>LP</Format>
	</Formats>
	<Categories Modified="00000000">
		<Category>Jazz</Category>
		<Category>Blues</Category>
	</Categories>
	<Genres Modified="00000000"></Genres>
	<Statuses Modified="00000000"></Statuses>
	<Locations Modified="00000000"></Locations>
	<Sources Modified="00000000"></Sources>
	<Generations Modified="00000000"></Generations>
	<Qualities Modified="00000000"></Qualities>
	<Conditions Modified="00000000"></Conditions>
	<Packagings Modified="00000000"></Packagings>
</Collection>)";

TEST(CollectionWriterTest, WritesTheWholeDocumentExactly) {
  Catalogue catalog;
  FillSample(catalog);
  CollectionOptions options;
  options.amazon_servers = {"webservices.amazon.com", "WebServices.Amazon.co.uk"};
  CollectionWriter writer(*catalog.engine, options);
  StringXmlOutput out;
  std::vector<size_t> progress;
  ASSERT_EQ(writer.Write(out,
                         [&](size_t done, size_t total) {
                           EXPECT_EQ(total, 3u);
                           progress.push_back(done);
                           return true;
                         }),
            kOk);
  const std::string expected =
      Substitute(std::string(kSampleDocument),
                 {{"A", catalog.Modified("0123456789ABCDEF")},
                  {"B", catalog.Modified("FEDCBA9876543210")},
                  {"C", catalog.Modified("89ABCDEF01234567")},
                  {"ARTISTS", fmt::format("{:08X}", catalog.engine->ArtistsModified())}});
  EXPECT_EQ(out.text(), expected);
  EXPECT_EQ(progress, (std::vector<size_t>{1, 2, 3}));
  EXPECT_EQ(writer.stats().albums, 3u);
  EXPECT_EQ(writer.stats().bytes, out.text().size());

  // Without the server in the configured list the album falls back to its
  // cover, and it has none: no "Artwork" at all.
  CollectionWriter no_servers(*catalog.engine);
  StringXmlOutput out2;
  ASSERT_EQ(no_servers.Write(out2), kOk);
  EXPECT_EQ(out2.text().find("Server="), std::string::npos);
  EXPECT_NE(out2.text().find("\t\t\t<ASIN>B000TEST</ASIN>\n\t\t\t<Volumes></Volumes>"),
            std::string::npos);
}

TEST(CollectionWriterTest, HostileCatalogueTextStillGivesAWellFormedDocument) {
  Catalogue catalog;
  AlbumRecord a;
  a.id = "0000000000000001";
  constexpr char kHostile[] = "t\x01\x02\x1F\x7F]]>\xFF\xC3<&>\"'\r\n\0end";
  const std::string hostile(kHostile, sizeof kHostile - 1);
  a.artists = {hostile};
  a.properties.Set(f::kTitle, hostile);
  a.properties.Set(f::kComment, "]]>" + hostile + "]]]]>");
  VolumeRecord v;
  v.record_id = 0x01020304;
  v.title = hostile;
  v.tracks = {MakeTrack(1, 75, {{f::kTrackTitle, hostile}, {f::kLyrics, hostile}})};
  a.volumes = {v};
  catalog.Add(a);
  ArtistEntry artist;
  artist.name = hostile;
  ASSERT_EQ(catalog.engine->WriteArtist(artist), kOk);
  catalog.SetList("user_genres", hostile + "\n" + hostile, 1);

  CollectionWriter writer(*catalog.engine);
  StringXmlOutput out;
  ASSERT_EQ(writer.Write(out), kOk);
  xmlDocPtr doc = Parse(out.text());
  ASSERT_NE(doc, nullptr) << out.text();
  const auto text = [&](const char* path) {
    xmlXPathContextPtr context = xmlXPathNewContext(doc);
    xmlXPathObjectPtr found =
        xmlXPathEvalExpression(reinterpret_cast<const xmlChar*>(path), context);
    std::string result = reinterpret_cast<const char*>(found->stringval);
    xmlXPathFreeObject(found);
    xmlXPathFreeContext(context);
    return result;
  };
  // What XML can carry survives: DEL, markup characters, the apostrophe, the
  // invalid bytes as U+FFFD, line ends and the CDATA text around "]]>".
  const std::string kept = "t\x7F]]>\xEF\xBF\xBD\xEF\xBF\xBD<&>\"'\nend";
  EXPECT_EQ(text("string(/Collection/Albums/Album/@ID)"), "0000000000000001");
  EXPECT_EQ(text("string(//Album/Title)"), kept);
  EXPECT_EQ(text("string(//Album/Comment)"), "]]>" + kept + "]]]]>");
  xmlFreeDoc(doc);
}

TEST(CollectionWriterTest, StopsOnCancelAndOnWriteFailure) {
  Catalogue catalog;
  FillSample(catalog);
  CollectionWriter writer(*catalog.engine);
  StringXmlOutput out;
  EXPECT_EQ(writer.Write(out, [](size_t done, size_t) { return done < 2; }), kAborted);
  EXPECT_EQ(writer.stats().albums, 2u);

  CountingOutput failing;
  failing.fail_after = 0;
  // Enough albums to fill the writer's buffer, so the failure is seen early.
  AlbumRecord copy = *catalog.engine->ReadAlbum("0123456789ABCDEF");
  for (int i = 0; i < 60; ++i) {
    copy.id = fmt::format("{:016X}", 1000000 + i);
    for (VolumeRecord& volume : copy.volumes)
      volume.record_id += 0x1000;
    catalog.Add(copy);
  }
  EXPECT_EQ(writer.Write(failing), HResultFromErrno(EIO));
  EXPECT_LT(writer.stats().albums, 60u);
}

TEST(CollectionWriterTest, CoversAreHashedAndStoredInTheCache) {
  Catalogue catalog;
  const test::TempDir& dir = catalog.dir;
  const std::string large = MakeJpeg(1000, 600);
  const std::string small = MakeJpeg(120, 160);
  const std::string broken = "not an image";
  // Album 1: the cover sits on its second volume. Album 2 shares it. Album 3
  // is small, album 4 undecodable, album 5 has none.
  const std::vector<std::pair<std::vector<uint32_t>, std::string>> setup = {{{0x100, 0x101}, large},
                                                                            {{0x200}, large},
                                                                            {{0x300}, small},
                                                                            {{0x400}, broken},
                                                                            {{0x500}, ""}};
  for (size_t i = 0; i < setup.size(); ++i) {
    AlbumRecord a;
    a.id = fmt::format("{:016X}", 0xA0 + i);
    for (uint32_t id : setup[i].first) {
      a.volumes.emplace_back();
      a.volumes.back().record_id = id;
    }
    catalog.Add(a);
    if (!setup[i].second.empty()) {
      ASSERT_EQ(catalog.engine->WriteCover(setup[i].first.back(), setup[i].second), kOk);
    }
  }
  const std::string large_hash = CoverHash(PrepareCover(large).bytes);
  const std::string expected_hashes[] = {large_hash, large_hash, CoverHash(small),
                                         CoverHash(broken), ""};

  for (int round = 0; round < 2; ++round) {
    CollectionOptions options;
    options.cover_cache_dir = dir / "covers";
    CollectionWriter writer(*catalog.engine, options);
    StringXmlOutput out;
    ASSERT_EQ(writer.Write(out), kOk);
    size_t pos = 0;
    for (const std::string& hash : expected_hashes) {
      pos = out.text().find("<Album ", pos);
      ASSERT_NE(pos, std::string::npos);
      const size_t next = out.text().find("<Album ", pos + 1);
      const std::string album = out.text().substr(pos, next - pos);
      if (hash.empty()) {
        EXPECT_EQ(album.find("<Artwork"), std::string::npos) << album;
      } else {
        EXPECT_NE(album.find("<Artwork Hash=\"" + hash + "\"/>"), std::string::npos) << album;
      }
      pos = next;
    }
    EXPECT_EQ(writer.stats().covers, 4u);
    // Each distinct cover is stored once; a second run finds them stored.
    EXPECT_EQ(writer.stats().covers_stored, round == 0 ? 3u : 0u);
  }
  EXPECT_EQ(test::ReadFile(dir / "covers" / (large_hash + ".jpg")), PrepareCover(large).bytes);
  EXPECT_EQ(test::ReadFile(dir / "covers" / (CoverHash(small) + ".jpg")), small);
  EXPECT_EQ(test::ReadFile(dir / "covers" / (CoverHash(broken) + ".jpg")), broken);
}

}  // namespace
}  // namespace dischive
