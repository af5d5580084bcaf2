#include "dischive/errors.h"

#include <netdb.h>

#include <cerrno>

namespace dischive {

HResult WinsockErrorFromErrno(int err) {
  switch (err) {
    case EINTR:
      return 10004;
    case EBADF:
      return 10009;
    case EACCES:
      return 10013;
    case EFAULT:
      return 10014;
    case EINVAL:
      return 10022;
    case EMFILE:
      return 10024;
    case EAGAIN:
      return 10035;
    case EINPROGRESS:
      return 10036;
    case EALREADY:
      return 10037;
    case ENOTSOCK:
      return 10038;
    case EDESTADDRREQ:
      return 10039;
    case EMSGSIZE:
      return 10040;
    case EPROTOTYPE:
      return 10041;
    case ENOPROTOOPT:
      return 10042;
    case EPROTONOSUPPORT:
      return 10043;
    case ESOCKTNOSUPPORT:
      return 10044;
    case EOPNOTSUPP:
      return 10045;
    case EPFNOSUPPORT:
      return 10046;
    case EAFNOSUPPORT:
      return 10047;
    case EADDRINUSE:
      return 10048;
    case EADDRNOTAVAIL:
      return 10049;
    case ENETDOWN:
      return 10050;
    case ENETUNREACH:
      return 10051;
    case ENETRESET:
      return 10052;
    case ECONNABORTED:
      return 10053;
    case EPIPE:
    case ECONNRESET:
      return 10054;
    case ENOBUFS:
      return 10055;
    case EISCONN:
      return 10056;
    case ENOTCONN:
      return 10057;
    case ESHUTDOWN:
      return 10058;
    case ETIMEDOUT:
      return 10060;
    case ECONNREFUSED:
      return 10061;
    case EHOSTDOWN:
      return 10064;
    case EHOSTUNREACH:
      return 10065;
    default:
      return HResultFromErrno(err);
  }
}

HResult WinsockErrorFromGai(int gai_error) {
  switch (gai_error) {
    case EAI_NONAME:
      return 11001;  // WSAHOST_NOT_FOUND
    case EAI_AGAIN:
      return 11002;  // WSATRY_AGAIN
    case EAI_FAIL:
      return 11003;  // WSANO_RECOVERY
#ifdef EAI_NODATA
    case EAI_NODATA:
      return 11004;  // WSANO_DATA
#endif
    case EAI_FAMILY:
      return 10047;
    case EAI_MEMORY:
      return 10055;
    case EAI_SYSTEM:
      return WinsockErrorFromErrno(errno);
    default:
      return 11003;
  }
}

HResult HResultFromErrno(int err) {
  uint32_t win32;
  switch (err) {
    case ENOENT:
      win32 = 2;
      break;  // ERROR_FILE_NOT_FOUND
    case ENOTDIR:
      win32 = 3;
      break;  // ERROR_PATH_NOT_FOUND
    case EMFILE:
      win32 = 4;
      break;  // ERROR_TOO_MANY_OPEN_FILES
    case EPERM:
    case EACCES:
      win32 = 5;
      break;  // ERROR_ACCESS_DENIED
    case ENOMEM:
      win32 = 8;
      break;  // ERROR_NOT_ENOUGH_MEMORY
    case EROFS:
      win32 = 19;
      break;  // ERROR_WRITE_PROTECT
    case EIO:
      win32 = 30;
      break;  // ERROR_READ_FAULT
    case EBUSY:
      win32 = 32;
      break;  // ERROR_SHARING_VIOLATION
    case EEXIST:
      win32 = 80;
      break;  // ERROR_FILE_EXISTS
    case EINVAL:
      win32 = 87;
      break;  // ERROR_INVALID_PARAMETER
    case ENOSPC:
      win32 = 112;
      break;  // ERROR_DISK_FULL
    case ENAMETOOLONG:
      win32 = 206;
      break;  // ERROR_FILENAME_EXCED_RANGE
    case EWOULDBLOCK:
      win32 = 33;
      break;  // ERROR_LOCK_VIOLATION
    default:
      return 0x80070000u | (static_cast<uint32_t>(err) & 0xFFFF) | 0x8000u;
  }
  return 0x80070000u | win32;
}

}  // namespace dischive
