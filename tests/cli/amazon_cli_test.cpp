#include <gtest/gtest.h>
#include <sys/stat.h>

#include <nlohmann/json.hpp>

#include "support/fake_amazon.h"
#include "support/temp_dir.h"

namespace dischive::test {
namespace {

class AmazonCliTest : public ::testing::Test {
 protected:
  // The keys and the server come from the settings file.
  ProcessResult Amazon(const std::vector<std::string>& args, bool keys = true) {
    std::string ini =
        "[internet2]\npreconfig_http_proxy=0\n[AmazonSearch]\nAwsHost=" + server.host() +
        "\nAwsServer=9\n";
    if (keys) {
      ini += std::string("AccessKeyId=") + kFakeAmazonAccessKey +
             "\nSecretKey=" + kFakeAmazonSecretKey + "\nAssociateTag=" + kFakeAmazonTag + "\n";
    }
    WriteFile(home / "config" / "dischive" / "dischive.ini", ini);
    std::vector<std::string> all = {"amazon"};
    all.insert(all.end(), args.begin(), args.end());
    return RunCli(all, home.path());
  }

  FakeAmazonServer server;
  TempDir home;
};

TEST_F(AmazonCliTest, SearchLookupAndCover) {
  ProcessResult r = Amazon({"search", "--artist", "Miles Davis", "--images"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  for (const std::string& line : std::vector<std::string>{
           "B000002ADT  Miles Davis / Kind of Blue\n", "  Label: Columbia   Released: 1997-03-25\n",
           "   1. So What\n", "  Disc 2\n", "   2. John McLaughlin\n",
           "  Large image:  http://" + server.host() + "/images/I/B000002ADT._SL500_.jpg\n"}) {
    EXPECT_NE(r.out.find(line), std::string::npos) << line << r.out;
  }

  r = Amazon({"--json", "lookup", "0028944729220", "--index", "Classical", "--reviews"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  const nlohmann::json j = nlohmann::json::parse(r.out);
  ASSERT_EQ(j["albums"].size(), 1u);
  EXPECT_EQ(j["albums"][0]["asin"], "B000001GXD");
  EXPECT_EQ(j["albums"][0]["tracks"][0]["tracks"][1], "Variatio 1");
  EXPECT_FALSE(j["albums"][0].contains("images"));

  // The largest image, written to a new file; a device is never replaced.
  r = Amazon({"cover", "B00005NVR1", "-o", (home / "cover.jpg").string()});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  const std::string jpeg = ReadFile(home / "cover.jpg");
  ASSERT_GT(jpeg.size(), 1000u);
  EXPECT_EQ(jpeg.substr(0, 3), "\xFF\xD8\xFF");
  r = Amazon({"cover", "B00005NVR1", "-o", "/dev/null"});  // written through
  EXPECT_EQ(r.exit_code, 0) << r.err;
  struct stat st {};
  ASSERT_EQ(stat("/dev/null", &st), 0);
  EXPECT_TRUE(S_ISCHR(st.st_mode));
  r = Amazon({"cover", "B00005NVR1", "-o", home.path().string()});  // a folder
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find(home.path().string() + ": "), std::string::npos) << r.err;
  r = Amazon({"cover", "B00005NVR1", "-o", (home / "no" / "such" / "x.jpg").string()});
  EXPECT_NE(r.err.find("/no/such: No such file or directory"), std::string::npos) << r.err;

  EXPECT_EQ(server.bad_signatures(), 0);
}

TEST_F(AmazonCliTest, FailuresNameTheirCause) {
  const struct {
    std::vector<std::string> args;
    bool keys;
    int exit_code;
    const char* message;
  } kCases[] = {
      {{"search", "nothing like this"}, true, 3, "We did not find any matches"},
      {{"lookup", "B0NOTTHERE"}, true, 4, "not a valid value for ItemId"},
      {{"search", "x"},
       false,
       2,
       "set AmazonSearch.AccessKeyId, AmazonSearch.SecretKey, AmazonSearch.AssociateTag"},
      {{"sign", "http://h/onca/xml?a=b"}, false, 2, "set AmazonSearch.SecretKey"},
      {{"sign", "ftp://h/x?a=b"}, true, 2, "ftp://h/x?a=b: not an http"},
      {{"search", "x", "--page", "11"}, true, 2, "--page"},
  };
  for (const auto& c : kCases) {
    const ProcessResult r = Amazon(c.args, c.keys);
    EXPECT_EQ(r.exit_code, c.exit_code) << c.args[1] << r.err;
    EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
  }

  server.SetThrottled(true);
  ProcessResult r = Amazon({"search", "miles"});
  EXPECT_EQ(r.exit_code, 4);
  EXPECT_NE(r.err.find("127.0.0.1:" + std::to_string(server.port())), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("(RequestThrottled)"), std::string::npos) << r.err;
  server.SetThrottled(false);

  // --url-only sends nothing.
  const size_t sent = server.requests().size();
  r = Amazon({"search", "miles", "--url-only", "--page", "3"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_TRUE(r.out.starts_with("http://" + server.host() + "/onca/xml?AWSAccessKeyId="));
  EXPECT_NE(r.out.find("&ItemPage=3&"), std::string::npos) << r.out;
  EXPECT_EQ(server.requests().size(), sent);
}

TEST_F(AmazonCliTest, SignReproducesThePublishedExample) {
  // The published ItemLookup example, signed with its key and time. The
  // command prints the URL as this library builds it: parameters sorted, the
  // Signature appended at the end.
  WriteFile(home / "config" / "dischive" / "dischive.ini",
            "[AmazonSearch]\nSecretKey=1234567890\n");
  const ProcessResult r =
      RunCli({"--json", "amazon", "sign", "--timestamp", "2009-01-01T12:00:00Z",
              "http://webservices.amazon.com/onca/xml?Service=AWSECommerceService&AWSAccessKeyId="
              "00000000000000000000&Operation=ItemLookup&ItemId=0679722769&ResponseGroup="
              "ItemAttributes,Offers,Images,Reviews&Version=2009-01-06"},
             home.path());
  ASSERT_EQ(r.exit_code, 0) << r.err;
  const nlohmann::json j = nlohmann::json::parse(r.out);
  EXPECT_EQ(j["signature"], "Nace%2BU3Az4OhN7tISqgs1vdLBHBEijWcBeCqL5xN9xg%3D");
  EXPECT_EQ(j["url"],
            "http://webservices.amazon.com/onca/xml?AWSAccessKeyId=00000000000000000000&ItemId="
            "0679722769&Operation=ItemLookup&ResponseGroup=ItemAttributes%2COffers%2CImages%"
            "2CReviews&Service=AWSECommerceService&Timestamp=2009-01-01T12%3A00%3A00Z&Version="
            "2009-01-06&Signature=Nace%2BU3Az4OhN7tISqgs1vdLBHBEijWcBeCqL5xN9xg%3D");
}

}  // namespace
}  // namespace dischive::test
