// The one place where libcurl failures become the library's result codes.
#pragma once

#include <curl/curl.h>

#include "dischive/result.h"

namespace dischive::net {

/// What is known about a failed transfer besides its CURLcode.
struct CurlFailure {
  CURLcode code = CURLE_OK;
  long ssl_verify_result = 0;  ///< CURLINFO_SSL_VERIFYRESULT (an X509_V_ERR_* value)
  long os_errno = 0;           ///< CURLINFO_OS_ERRNO
};

/// The WinINet number of the same meaning (time-out 12002, name not resolved
/// 12007, cannot connect 12029, certificate problems 12037/12038/12045, ...),
/// or kCurlErrorBase + code for failures WinINet has no number for. 0 for
/// CURLE_OK.
HResult TransportErrorFromCurl(const CurlFailure& failure);

/// True for the errors the host is asked about (certificate problems and the
/// other cases WinINet shows its error dialog for).
bool IsPromptableError(HResult error);

}  // namespace dischive::net
