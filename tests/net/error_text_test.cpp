#include <curl/curl.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "dischive/errors.h"
#include "dischive/http.h"
#include "dischive/strings.h"
#include "net/curl_error.h"
#include "support/temp_dir.h"

namespace dischive {
namespace {

std::string fmt_error(uint32_t code) {
  char text[64];
  std::snprintf(text, sizeof text, "Error %u (0x%08X).", code, code);
  return text;
}

TEST(ErrorTextTest, CodesFindTheirTextsInOrder) {
  struct Case {
    HResult code;
    std::string expected;
  };
  const auto res = [](uint32_t id) { return LoadHostString(id); };
  const Case cases[] = {
      // The library's own codes, with gaps and the end of the list.
      {0x81110000, res(5034)},
      {0x81110001, res(5035)},
      {0x8111000F, res(5034)},
      {0x81110010, res(5062)},
      {0x81110014, res(5652)},
      {0x81110015, res(5034)},
      {0x8111FFFF, res(5034)},
      // The collection service's codes.
      {0x8CB00001, res(5174)},
      {0x8CB00006, res(5034)},
      {0x8CB00008, res(5246)},
      {0x8CB00009, fmt_error(0x8CB00009)},
      // Winsock pairs; a number in the range without a pair falls through.
      {10013, res(5108)},
      {10061, res(5114)},
      {10101, res(5159)},
      {10062, fmt_error(10062)},
      // The host-lookup numbers never use their pairs.
      {11001, "The host name could not be resolved."},
      // The transport's texts, then libcurl's, then the system's.
      {12002, "The operation timed out."},
      {kHttpBodyTooLarge, "The response is larger than the transport accepts."},
      {kCurlErrorBase + CURLE_SSL_CACERT_BADFILE, curl_easy_strerror(CURLE_SSL_CACERT_BADFILE)},
      {0x80070002, "The system cannot find the file specified."},
      {1223, "The operation was cancelled by the user."},
      {0x80078000u | ENOSPC, std::strerror(ENOSPC)},
      {0x12345678, "Error 305419896 (0x12345678)."},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(FormatErrorMessage(c.code), c.expected) << std::hex << c.code;
  }
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
  const Case cases[] = {
      {CURLE_OK, 0, 0, 0},
      {CURLE_RECV_ERROR, 0, ECONNRESET, 12031},
      {CURLE_RECV_ERROR, 0, EPIPE, 12030},
      {CURLE_PEER_FAILED_VERIFICATION, 10, 0, 12037},  // expired
      {CURLE_PEER_FAILED_VERIFICATION, 0, 0, 12038},   // name check
      {CURLE_PEER_FAILED_VERIFICATION, 62, 0, 12038},
      {CURLE_PEER_FAILED_VERIFICATION, 20, 0, 12045},  // unknown issuer
      {CURLE_SSL_CACERT_BADFILE, 0, 0, kCurlErrorBase + CURLE_SSL_CACERT_BADFILE},
  };
  for (const Case& c : cases) {
    const HResult error = net::TransportErrorFromCurl({c.code, c.verify, c.os_errno});
    EXPECT_EQ(error, c.expected) << c.code << " " << c.verify;
  }
}

}  // namespace
}  // namespace dischive
