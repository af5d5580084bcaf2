// libcurl failures as WinINet numbers, so that callers and the host's prompt
// see the same codes on every platform.
#include "net/curl_error.h"

#include <cerrno>

#include "dischive/errors.h"

namespace dischive::net {
namespace {

// WinINet numbers used below.
constexpr HResult kInetTimeout = 12002;
constexpr HResult kInetInternalError = 12004;
constexpr HResult kInetInvalidUrl = 12005;
constexpr HResult kInetUnrecognizedScheme = 12006;
constexpr HResult kInetNameNotResolved = 12007;
constexpr HResult kInetBadOption = 12009;
constexpr HResult kInetLoginFailure = 12015;
constexpr HResult kInetOperationCancelled = 12017;
constexpr HResult kInetCannotConnect = 12029;
constexpr HResult kInetConnectionAborted = 12030;
constexpr HResult kInetConnectionReset = 12031;
constexpr HResult kInetCertDateInvalid = 12037;
constexpr HResult kInetCertCnInvalid = 12038;
constexpr HResult kInetClientAuthCertNeeded = 12044;
constexpr HResult kInetInvalidCa = 12045;
constexpr HResult kInetInvalidServerResponse = 12152;
constexpr HResult kInetSecureChannelError = 12157;
constexpr HResult kInetDecodingFailed = 12175;
constexpr HResult kNotEnoughMemory = 8;

// OpenSSL's verification results that WinINet reports as a date problem
// (X509_V_ERR_CERT_NOT_YET_VALID, X509_V_ERR_CERT_HAS_EXPIRED) or a name
// problem (X509_V_ERR_HOSTNAME_MISMATCH, X509_V_ERR_IP_ADDRESS_MISMATCH).
constexpr long kX509NotYetValid = 9;
constexpr long kX509Expired = 10;
constexpr long kX509HostnameMismatch = 62;
constexpr long kX509IpAddressMismatch = 64;

HResult CertificateError(long verify_result) {
  switch (verify_result) {
    case kX509NotYetValid:
    case kX509Expired:
      return kInetCertDateInvalid;
    case 0:  // the chain was fine: libcurl's own host name check refused it
    case kX509HostnameMismatch:
    case kX509IpAddressMismatch:
      return kInetCertCnInvalid;
    default:
      return kInetInvalidCa;
  }
}

}  // namespace

HResult TransportErrorFromCurl(const CurlFailure& failure) {
  switch (failure.code) {
    case CURLE_OK:
      return kOk;
    case CURLE_UNSUPPORTED_PROTOCOL:
      return kInetUnrecognizedScheme;
    case CURLE_URL_MALFORMAT:
      return kInetInvalidUrl;
    case CURLE_COULDNT_RESOLVE_PROXY:
    case CURLE_COULDNT_RESOLVE_HOST:
      return kInetNameNotResolved;
    case CURLE_COULDNT_CONNECT:
      return kInetCannotConnect;
    case CURLE_WEIRD_SERVER_REPLY:
    case CURLE_GOT_NOTHING:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
      return kInetInvalidServerResponse;
    case CURLE_BAD_CONTENT_ENCODING:
      return kInetDecodingFailed;
    case CURLE_PARTIAL_FILE:
      return kInetConnectionAborted;
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
      return failure.os_errno == ECONNRESET ? kInetConnectionReset : kInetConnectionAborted;
    case CURLE_OUT_OF_MEMORY:
      return kNotEnoughMemory;
    case CURLE_OPERATION_TIMEDOUT:
      return kInetTimeout;
    case CURLE_SSL_CONNECT_ERROR:
      return kInetSecureChannelError;
    case CURLE_PEER_FAILED_VERIFICATION:
      return CertificateError(failure.ssl_verify_result);
    case CURLE_SSL_CERTPROBLEM:
      return kInetClientAuthCertNeeded;
    case CURLE_ABORTED_BY_CALLBACK:
      return kInetOperationCancelled;
    case CURLE_LOGIN_DENIED:
      return kInetLoginFailure;
    case CURLE_BAD_FUNCTION_ARGUMENT:
    case CURLE_UNKNOWN_OPTION:
      return kInetBadOption;
    case CURLE_FAILED_INIT:
      return kInetInternalError;
    default:
      return kCurlErrorBase + static_cast<HResult>(failure.code);
  }
}

bool IsPromptableError(HResult error) {
  switch (error) {
    case 12039:  // redirected to HTTPS
    case 12014:  // incorrect password
    case 12045:  // invalid certificate authority
    case 12043:  // post over an insecure channel
    case 12038:  // certificate name invalid
    case 12037:  // certificate date invalid
      return true;
    default:
      return false;
  }
}

}  // namespace dischive::net
