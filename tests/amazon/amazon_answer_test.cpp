#include <gtest/gtest.h>

#include "dischive/amazon.h"
#include "support/fake_amazon.h"

namespace dischive {
namespace {

const std::string kOpen = "<ItemSearchResponse xmlns=\"" + std::string(kAmazonNamespace) + "\">";

TEST(AmazonAnswerTest, OddAndHostileAnswersGiveErrorsOrPartialResults) {
  struct Case {
    const char* name;
    std::string body;
    HResult result;
    size_t albums;
    const char* message;  // part of error_message
  };
  const Case kCases[] = {
      {"not XML", "<html><body>Service Unavailable", kFreedbServiceError, 0, "unusable"},
      {"empty", "", kFreedbServiceError, 0, "unusable"},
      {"DOCTYPE with entity",
       "<!DOCTYPE r [<!ENTITY e \"x\">]>" + kOpen + "<Items><Item><ASIN>&e;</ASIN></Item></Items>" +
           "</ItemSearchResponse>",
       kFreedbServiceError, 0, "document type"},
      {"wrong namespace",
       "<ItemSearchResponse xmlns=\"urn:other\"><Items><Item><ASIN>B1</ASIN></Item></Items>"
       "</ItemSearchResponse>",
       kFreedbServiceError, 0, "ItemSearchResponse in namespace urn:other"},
      {"no namespace", "<ItemSearchResponse><Items/></ItemSearchResponse>", kFreedbServiceError, 0,
       "not an answer"},
      {"items without ASIN are skipped, bare items kept",
       kOpen + "<Items><Item><ItemAttributes><Title>x</Title></ItemAttributes></Item>" +
           "<Item><ASIN>B2</ASIN></Item><Item><ASIN>B3</ASIN><Tracks><Disc Number=\"x\">" +
           "<Track>t</Track></Disc><Disc/></Tracks></Item></Items></ItemSearchResponse>",
       kOk, 2, ""},
      {"no matches",
       kOpen + "<Items><Request><Errors><Error><Code>AWS.ECommerceService.NoExactMatches" +
           "</Code><Message>We did not find any matches for your request.</Message></Error>" +
           "</Errors></Request><TotalResults>0</TotalResults></Items></ItemSearchResponse>",
       kNoFreedbMatch, 0, "We did not find any matches"},
      {"request error",
       kOpen + "<Items><Request><Errors><Error><Code>AWS.InvalidParameterValue</Code>" +
           "<Message>X is not a valid value for ItemId.</Message></Error></Errors></Request>" +
           "</Items></ItemSearchResponse>",
       kFreedbServiceError, 0, "not a valid value"},
      {"error document",
       "<ItemLookupErrorResponse xmlns=\"http://ecs.amazonaws.com/doc/2011-08-01/\"><Error>"
       "<Code>SignatureDoesNotMatch</Code><Message>The request signature we calculated does "
       "not match</Message></Error></ItemLookupErrorResponse>",
       kFreedbServiceError, 0, "signature we calculated"},
      {"error without message",
       "<ItemSearchErrorResponse><Error><Code>InternalError</Code></Error>"
       "</ItemSearchErrorResponse>",
       kFreedbServiceError, 0, "InternalError"},
  };
  for (const Case& c : kCases) {
    AmazonAnswer answer;
    EXPECT_EQ(ParseAmazonAnswer(c.body, answer), c.result) << c.name;
    EXPECT_EQ(answer.albums.size(), c.albums) << c.name;
    EXPECT_NE(answer.error_message.find(c.message), std::string::npos)
        << c.name << ": " << answer.error_message;
    if (c.albums == 2) {
      // A disc without a usable number takes the next one.
      ASSERT_EQ(answer.albums[1].tracks.size(), 2u);
      EXPECT_EQ(answer.albums[1].tracks[0].number, 1);
      EXPECT_EQ(answer.albums[1].tracks[1].number, 2);
      EXPECT_TRUE(answer.albums[0].LargestImage().empty());
    }
  }
}

class AmazonServiceTest : public ::testing::Test {
 protected:
  AmazonAnswer Fetch(const std::string& url, HResult expected) {
    HttpRequest request;
    request.access_type = AccessType::kDirect;
    AmazonAnswer answer;
    EXPECT_EQ(FetchAmazonAnswer(url, request, answer), expected)
        << url << ": " << answer.error_message;
    return answer;
  }

  test::FakeAmazonServer server;
  AmazonSettings settings = server.settings();
};

TEST_F(AmazonServiceTest, SearchesAndLookupsReadAlbums) {
  const auto now = std::chrono::system_clock::now();
  const std::string all = AlbumResponseGroup(true, true);
  AmazonAnswer answer = Fetch(SearchAlbumsByArtist(settings, "miles", false, 1, all, now), kOk);
  ASSERT_EQ(answer.albums.size(), 2u);
  EXPECT_EQ(answer.total_results, 2);
  EXPECT_EQ(answer.total_pages, 1);
  const AmazonAlbum& kind = answer.albums[0];
  EXPECT_EQ(kind.asin, "B000002ADT");
  EXPECT_EQ(kind.artist, "Miles Davis");
  EXPECT_EQ(kind.title, "Kind of Blue");
  EXPECT_EQ(kind.label, "Columbia");
  EXPECT_EQ(kind.release_date, "1997-03-25");
  EXPECT_EQ(kind.discs, 1);
  EXPECT_EQ(kind.editorial_review, "The best-selling jazz album of all time.");
  EXPECT_TRUE(kind.small_image.ends_with("B000002ADT._SL75_.jpg")) << kind.small_image;
  EXPECT_EQ(kind.LargestImage(), kind.large_image);
  EXPECT_TRUE(kind.large_image.ends_with("._SL500_.jpg"));
  const AmazonAlbum& brew = answer.albums[1];
  ASSERT_EQ(brew.tracks.size(), 2u);
  EXPECT_EQ(brew.tracks[1].number, 2);
  EXPECT_EQ(brew.tracks[1].tracks, (std::vector<std::string>{"Spanish Key", "John McLaughlin"}));

  // Without the optional groups there are no images or reviews; text with
  // markup characters and non-ASCII letters comes through both ways.
  answer = Fetch(SearchAlbumsByKeywords(settings, "Zoë & <tags>", false, 1,
                                        AlbumResponseGroup(false, false), now),
                 kOk);
  ASSERT_EQ(answer.albums.size(), 1u);
  EXPECT_EQ(answer.albums[0].artist, "Zoë & the Ampersands");
  EXPECT_EQ(answer.albums[0].title, "<Tags> & \"Quotes\"");
  EXPECT_EQ(answer.albums[0].tracks[0].tracks[0], "Café");
  EXPECT_TRUE(answer.albums[0].LargestImage().empty());
  EXPECT_TRUE(answer.albums[0].editorial_review.empty());

  answer = Fetch(LookupItem(settings, "B000001GXD", all, now), kOk);
  ASSERT_EQ(answer.albums.size(), 1u);
  EXPECT_EQ(answer.albums[0].label, "Sony Classical");
  answer = Fetch(LookupItemInIndex(settings, "696998563124", false, all, now), kOk);
  ASSERT_EQ(answer.albums.size(), 1u);
  EXPECT_EQ(answer.albums[0].asin, "B00005NVR1");

  // The Classical index holds no Miles Davis; a page past the end is empty.
  answer = Fetch(SearchAlbumsByArtist(settings, "miles", true, 1, all, now), kNoFreedbMatch);
  answer = Fetch(SearchAlbumsByArtist(settings, "miles", false, 2, all, now), kNoFreedbMatch);
  answer = Fetch(LookupItem(settings, "B0NOTTHERE", all, now), kFreedbServiceError);
  EXPECT_EQ(answer.error_code, "AWS.InvalidParameterValue");
  EXPECT_EQ(server.bad_signatures(), 0);
  EXPECT_EQ(server.requests().size(), 7u);
}

TEST_F(AmazonServiceTest, RefusalsThrottlingAndHugeAnswers) {
  const auto now = std::chrono::system_clock::now();
  const std::string group = AlbumResponseGroup(false, false);

  AmazonSettings wrong = settings;
  wrong.secret_key = "not the key";
  AmazonAnswer answer = Fetch(LookupItem(wrong, "B000002ADT", group, now), kHttpStatusNotOk);
  EXPECT_EQ(answer.error_code, "SignatureDoesNotMatch");
  EXPECT_EQ(server.bad_signatures(), 1);
  answer = Fetch(LookupItem(settings, "B000002ADT", group, now - std::chrono::hours(1)),
                 kHttpStatusNotOk);
  EXPECT_EQ(answer.error_code, "RequestExpired");

  server.SetThrottled(true);
  answer = Fetch(LookupItem(settings, "B000002ADT", group, now), kHttpStatusNotOk);
  EXPECT_EQ(answer.error_code, "RequestThrottled");
  EXPECT_NE(answer.error_message.find("too quickly"), std::string::npos);
  server.SetThrottled(false);

  // A status without an error document: the status is the message.
  server.SetOverride(std::pair{500, std::string("<html>oops</html>")});
  answer = Fetch(LookupItem(settings, "B000002ADT", group, now), kHttpStatusNotOk);
  EXPECT_EQ(answer.error_message, "the server answered HTTP 500");

  // 50 MB of well-formed XML is read; past a lower limit it is refused.
  std::string huge = kOpen + "<Items><Item><ASIN>B1</ASIN><ItemAttributes><Title>";
  huge.append(size_t{50} << 20, 'x');
  huge += "</Title></ItemAttributes></Item></Items></ItemSearchResponse>";
  server.SetOverride(std::pair{200, huge});
  answer = Fetch(LookupItem(settings, "B1", group, now), kOk);
  ASSERT_EQ(answer.albums.size(), 1u);
  EXPECT_EQ(answer.albums[0].title.size(), size_t{50} << 20);
  EXPECT_EQ(ParseAmazonAnswer(huge, answer, size_t{10} << 20), kFreedbServiceError);
  EXPECT_NE(answer.error_message.find("larger than"), std::string::npos);
  EXPECT_EQ(server.bad_signatures(), 1);
}

}  // namespace
}  // namespace dischive
