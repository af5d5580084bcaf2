// Texts for result codes. The order of the checks is fixed: the library's own
// codes, the collection-service codes, Winsock numbers, the transport's
// (WinINet-numbered) errors, system errors, and finally "Error %u".
#include <curl/curl.h>
#include <fmt/printf.h>

#include <cstring>
#include <utility>

#include "dischive/errors.h"
#include "dischive/result.h"
#include "dischive/strings.h"

namespace dischive {
namespace {

// Text numbers of the codes 0x81110000 + index; 0 falls back to 5034.
constexpr uint32_t kOwnCodeStrings[] = {5034, 5035, 5039, 5038, 5043, 5044, 5045,
                                        5046, 5047, 5048, 5049, 5050, 5052, 5069,
                                        5070, 0,    5062, 5179, 5429, 5696, 5652};

// Text numbers of the codes 0x8CB00000 + index (index 0 is never reached).
constexpr uint32_t kServiceCodeStrings[] = {5652, 5174, 5175, 5176, 5177, 5178, 0, 0, 5246};

// Winsock numbers and their texts, searched in this order. The four host-lookup
// codes 11001-11004 lie outside the Winsock range checked before the search, so
// they never reach it and fall through to the transport's texts; that is kept.
constexpr std::pair<uint32_t, uint32_t> kWinsockStrings[] = {
    {10013, 5108}, {10048, 5109}, {10049, 5110}, {10047, 5111}, {10037, 5112}, {10053, 5113},
    {10061, 5114}, {10054, 5115}, {10039, 5116}, {10014, 5117}, {10064, 5118}, {10065, 5119},
    {10036, 5120}, {10004, 5121}, {10022, 5122}, {10056, 5123}, {10024, 5124}, {10040, 5125},
    {10050, 5126}, {10052, 5127}, {10051, 5128}, {10055, 5129}, {10042, 5130}, {10057, 5131},
    {10038, 5132}, {10045, 5133}, {10046, 5134}, {10067, 5135}, {10043, 5136}, {10041, 5137},
    {10058, 5138}, {10044, 5139}, {10060, 5140}, {10035, 5142}, {11001, 5143}, {10093, 5151},
    {11004, 5152}, {11003, 5153}, {10091, 5156}, {11002, 5157}, {10092, 5158}, {10101, 5159}};

// The transport's own texts, under the WinINet numbers its failures are
// reported with; the host-lookup Winsock numbers are explained here too.
constexpr std::pair<uint32_t, const char*> kTransportTexts[] = {
    {11001, "The host name could not be resolved."},
    {11002, "The host name could not be resolved now; try again later."},
    {11003, "A non-recoverable error occurred while resolving the host name."},
    {11004, "The host name has no address."},
    {12001, "No more handles could be generated at this time."},
    {12002, "The operation timed out."},
    {12003, "The server returned an extended error."},
    {12004, "An internal error occurred in the HTTP transport."},
    {12005, "The URL is invalid."},
    {12006, "The URL does not use a recognized protocol."},
    {12007, "The server name could not be resolved."},
    {12009, "A request option is invalid."},
    {12016, "The requested operation is invalid."},
    {12019, "The request is in the wrong state for this operation."},
    {12013, "The user name is not valid."},
    {12014, "The password is not valid."},
    {12015, "The login request was denied."},
    {12017, "The operation was cancelled."},
    {12023, "Direct network access is not possible."},
    {12028, "The requested item could not be found."},
    {12029, "The attempt to connect to the server failed."},
    {12030, "The connection with the server was terminated abnormally."},
    {12031, "The connection with the server was reset."},
    {12032, "The request must be sent again."},
    {12033, "The proxy request is not valid."},
    {12037, "The server's security certificate has expired or is not yet valid."},
    {12038, "The server's security certificate does not match the host name."},
    {12039, "The request was redirected to a secure connection."},
    {12043, "The data would be sent over an insecure connection."},
    {12044, "The server asks for a client certificate."},
    {12045, "The certificate authority of the server is not trusted."},
    {12150, "The requested header could not be found."},
    {12152, "The server returned an invalid or unrecognized response."},
    {12153, "The supplied header is invalid."},
    {12155, "The header already exists."},
    {12156, "The redirection failed."},
    {12157, "An error occurred in the secure channel."},
    {12169, "The server's security certificate is not valid."},
    {12170, "The server's security certificate has been revoked."},
    {12175, "The content of the response could not be decoded."},
    // The transport's own limit, beside libcurl's texts.
    {kCurlErrorBase + 63, "The response is larger than the transport accepts."},
};

// Texts of the Win32 codes and HRESULTs the library passes through.
constexpr std::pair<uint32_t, const char*> kSystemTexts[] = {
    {2, "The system cannot find the file specified."},
    {3, "The system cannot find the path specified."},
    {4, "The system cannot open the file."},
    {5, "Access is denied."},
    {8, "Not enough memory is available to process this command."},
    {11, "The file is not in a format that can be read."},
    {19, "The media is write protected."},
    {30, "The system cannot read from the specified device."},
    {32, "The process cannot access the file because it is being used by another process."},
    {33, "The process cannot access the file because another process has locked it."},
    {80, "The file exists."},
    {87, "The parameter is incorrect."},
    {112, "There is not enough space on the disk."},
    {122, "The data area passed to a system call is too small."},
    {206, "The file name or extension is too long."},
    {1223, "The operation was cancelled by the user."},
    {0x80004004, "Operation aborted."},
    {0x80004005, "Unspecified error."},
    {0x8007000E, "Too many matches; not enough memory to hold them."},
    {0x80070057, "One or more arguments are invalid."},
    {0x800C0002, "The address is not a valid HTTP address."},
};

template <typename Table>
const char* FindText(const Table& table, uint32_t code) {
  for (const auto& [key, text] : table) {
    if (key == code) return text;
  }
  return nullptr;
}

std::string SystemText(HResult code) {
  uint32_t win32 = code;
  if ((code & 0xFFFF0000u) == 0x80070000u) {
    if ((code & 0x8000u) != 0) return std::strerror(static_cast<int>(code & 0x7FFFu));
    win32 = code & 0xFFFFu;
  }
  if (const char* text = FindText(kSystemTexts, win32)) return text;
  if (const char* text = FindText(kSystemTexts, code)) return text;
  return {};
}

}  // namespace

std::string FormatErrorMessage(HResult code) {
  if (code >= 0x81110000u && code <= 0x8111FFFFu) {
    const uint32_t index = code - 0x81110000u;
    const uint32_t id = index < std::size(kOwnCodeStrings) ? kOwnCodeStrings[index] : 0;
    return LoadHostString(id != 0 ? id : strings::kUnknownError);
  }
  if (code >= 0x8CB00001u && code <= 0x8CB00008u) {
    const uint32_t id = kServiceCodeStrings[code - 0x8CB00000u];
    return LoadHostString(id != 0 ? id : strings::kUnknownError);
  }
  if (code >= 10000 && code <= 10129) {
    for (const auto& [winsock, id] : kWinsockStrings) {
      if (winsock == code) return LoadHostString(id);
    }
  }
  if (const char* text = FindText(kTransportTexts, code)) return text;
  if (code > kCurlErrorBase && code < kCurlErrorBase + CURL_LAST) {
    return curl_easy_strerror(static_cast<CURLcode>(code - kCurlErrorBase));
  }
  if (std::string text = SystemText(code); !text.empty()) return text;
  // A language file may carry a broken format; the code must still show.
  try {
    return fmt::sprintf(LoadHostString(strings::kErrorWithCode), code, code);
  } catch (const fmt::format_error&) {
    return fmt::sprintf("Error %u (0x%08X).", code, code);
  }
}

}  // namespace dischive
