#include <curl/curl.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

#include "dischive/errors.h"
#include "dischive/http.h"
#include "dischive/strings.h"
#include "net/curl_error.h"
#include "support/temp_dir.h"

namespace dischive {
namespace {

TEST(ErrorTextTest, CodesFindTheirTextsInOrder) {
  // Codes with a numbered host text: the library's own (with gaps and the end of
  // the list), the collection service's and the Winsock pairs.
  const std::pair<HResult, uint32_t> numbered[] = {
      {0x81110000, 5034}, {0x81110001, 5035}, {0x8111000F, 5034}, {0x81110010, 5062},
      {0x81110014, 5652}, {0x81110015, 5034}, {0x8111FFFF, 5034}, {0x8CB00001, 5174},
      {0x8CB00006, 5034}, {0x8CB00008, 5246}, {10013, 5108},      {10061, 5114},
      {10101, 5159}};
  for (const auto& [code, id] : numbered)
    EXPECT_EQ(FormatErrorMessage(code), LoadHostString(id)) << std::hex << code;
  const std::pair<HResult, std::string> texts[] = {
      {0x8CB00009, "Error 2360344585 (0x8CB00009)."},
      {10062, "Error 10062 (0x0000274E)."},  // in the Winsock range without a pair
      // The host-lookup numbers never use their pairs.
      {11001, "The host name could not be resolved."},
      // The transport's texts, then libcurl's, then the system's.
      {12002, "The operation timed out."},
      {kHttpBodyTooLarge, "The response is larger than the transport accepts."},
      {kCurlErrorBase + CURLE_SSL_CACERT_BADFILE, curl_easy_strerror(CURLE_SSL_CACERT_BADFILE)},
      {0x80070002, "The system cannot find the file specified."},
      {1223, "The operation was cancelled by the user."},
      {0x80078000u | ENOSPC, std::strerror(ENOSPC)},
      {0x12345678, "Error 305419896 (0x12345678)."}};
  for (const auto& [code, text] : texts)
    EXPECT_EQ(FormatErrorMessage(code), text) << std::hex << code;
}

TEST(ErrorTextTest, BrokenLanguageFormatStillShowsTheCode) {
  test::TempDir dir;
  test::WriteFile(dir / "x.lang", "5051=Fehler %Q\n5035=Kein Treffer\n");
  ASSERT_EQ(LoadLanguageFile(dir / "x.lang"), 2);
  EXPECT_EQ(FormatErrorMessage(0x81110001), "Kein Treffer");
  EXPECT_NE(FormatErrorMessage(0x12345678).find("305419896"), std::string::npos);
  ResetLanguage();
}

TEST(ErrorTextTest, CurlFailuresBecomeWinInetNumbers) {
  struct Case {
    CURLcode code;
    long verify;
    long os_errno;
    HResult expected;
  };
  // Verify results: 10 expired, 0 and 62 the name check, 20 an unknown issuer.
  const Case cases[] = {
      {CURLE_OK, 0, 0, 0},
      {CURLE_RECV_ERROR, 0, ECONNRESET, 12031},
      {CURLE_RECV_ERROR, 0, EPIPE, 12030},
      {CURLE_PEER_FAILED_VERIFICATION, 10, 0, 12037},
      {CURLE_PEER_FAILED_VERIFICATION, 0, 0, 12038},
      {CURLE_PEER_FAILED_VERIFICATION, 62, 0, 12038},
      {CURLE_PEER_FAILED_VERIFICATION, 20, 0, 12045},
      {CURLE_SSL_CACERT_BADFILE, 0, 0, kCurlErrorBase + CURLE_SSL_CACERT_BADFILE}};
  for (const Case& c : cases) {
    const HResult error = net::TransportErrorFromCurl({c.code, c.verify, c.os_errno});
    EXPECT_EQ(error, c.expected) << c.code << " " << c.verify;
  }
}

}  // namespace
}  // namespace dischive
