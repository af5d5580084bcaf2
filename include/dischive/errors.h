// Conversions of platform failures into the library's result codes, and the
// texts that explain a code.
#pragma once

#include <cstdint>
#include <string>

#include "dischive/result.h"

namespace dischive {

/// Codes from the transport library that have no WinINet number of the same
/// meaning are reported as kCurlErrorBase + CURLcode.
inline constexpr HResult kCurlErrorBase = 0xA0CC0000;

/// Winsock number for a socket errno (ECONNREFUSED -> 10061, ...); an errno
/// without a Winsock counterpart gives HResultFromErrno(err).
HResult WinsockErrorFromErrno(int err);
/// Winsock number for a getaddrinfo failure (EAI_NONAME -> 11001, ...).
HResult WinsockErrorFromGai(int gai_error);
/// A Win32-style HRESULT (0x8007xxxx) for a file-system errno (ENOENT -> 2, ...),
/// or 0x80078000 | errno for those without one (FormatErrorMessage gives their
/// strerror text).
HResult HResultFromErrno(int err);

}  // namespace dischive
