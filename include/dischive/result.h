// Result codes shared by every part of the library.
#pragma once

#include <cstdint>
#include <string>

namespace dischive {

/// A 32-bit result code: 0 is success, the library's own failures lie in the
/// facility 0x8111, platform codes (HRESULTs, WinINet and Winsock numbers) pass
/// through unchanged so that FormatErrorMessage can explain them.
using HResult = uint32_t;

inline constexpr HResult kOk = 0;

// The library's own codes.
inline constexpr HResult kNoFreedbMatch = 0x81110001;        ///< no freedb match
inline constexpr HResult kFreedbServiceError = 0x81110002;   ///< unusable answer or service error
inline constexpr HResult kCddbpQueryRefused = 0x81110003;    ///< CDDB socket: query refused
inline constexpr HResult kCddbpReadRefused = 0x81110004;     ///< CDDB socket: read refused
inline constexpr HResult kCddbpConnectRefused = 0x81110005;  ///< CDDB socket: banner refused
inline constexpr HResult kCddbpHelloRefused = 0x81110006;    ///< CDDB socket: hello refused
inline constexpr HResult kSmtpConnectRefused = 0x81110007;   ///< SMTP: banner refused
inline constexpr HResult kSmtpHeloRefused = 0x81110008;      ///< SMTP: HELO refused
inline constexpr HResult kSmtpMailFromRefused = 0x81110009;  ///< SMTP: MAIL FROM refused
inline constexpr HResult kSmtpRcptToRefused = 0x8111000A;    ///< SMTP: RCPT TO refused
inline constexpr HResult kSmtpDataRefused = 0x8111000B;      ///< SMTP: DATA or the message refused
inline constexpr HResult kInvalidSubmission = 0x8111000C;    ///< the entry cannot be submitted
inline constexpr HResult kSubmitScript500 = 0x8111000D;      ///< submission script answered 500
inline constexpr HResult kSubmitScript501 = 0x8111000E;      ///< submission script answered 501
inline constexpr HResult kHttpStatusNotOk = 0x81110010;      ///< HTTP status other than 200
inline constexpr HResult kInvalidCategory = 0x81110012;      ///< not one of the freedb categories

// Platform codes the library returns itself.
inline constexpr HResult kTooManyMatches = 0x8007000E;   ///< E_OUTOFMEMORY, used for match overflow
inline constexpr HResult kAborted = 0x80004004;          ///< E_ABORT: the user cancelled
inline constexpr HResult kFail = 0x80004005;             ///< E_FAIL
inline constexpr HResult kInvalidArgument = 0x80070057;  ///< E_INVALIDARG
inline constexpr HResult kNotHttpAddress = 0x800C0002;   ///< INET_E_INVALID_URL
inline constexpr HResult kErrorCancelled = 1223;         ///< ERROR_CANCELLED from a prompt
inline constexpr HResult kErrorFileNotFound = 2;         ///< ERROR_FILE_NOT_FOUND
inline constexpr HResult kErrorAccessDenied = 5;         ///< ERROR_ACCESS_DENIED
inline constexpr HResult kErrorFileExists = 80;          ///< ERROR_FILE_EXISTS
inline constexpr HResult kErrorInsufficientBuffer = 122;  ///< ERROR_INSUFFICIENT_BUFFER

/// True for 0 and the other non-failure codes (high bit clear and below the
/// Win32 error range is treated as the caller decides; only 0 is success here).
constexpr bool Succeeded(HResult code) {
  return code == kOk;
}

/// Text for a result code: the library's own codes, WinINet/transport errors,
/// Winsock numbers and system errors, from the string catalogue. Implemented by
/// the network transport (FormatErrorMessage in dischive/http.h) and declared
/// here so that every subsystem can explain a code.
std::string FormatErrorMessage(HResult code);

}  // namespace dischive
