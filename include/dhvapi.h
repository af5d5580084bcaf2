/* DiscHive core: the C interface. Every exported operation takes and returns
 * plain C types. Memory handed out by an operation is allocated with malloc and
 * released by the caller with free(), unless the operation names another
 * release function. Result codes are 32-bit values: 0 is success, the library's
 * own failures are 0x8111xxxx. */
#ifndef DHVAPI_H
#define DHVAPI_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(_WIN32)
#define DHVAPI_CALL __stdcall
#else
#define DHVAPI_CALL
#endif

typedef uint32_t DHV_RESULT;

/* Identifiers --------------------------------------------------------------- */

/* A new random identifier: 16 upper-case hexadecimal digits and a NUL. The
 * caller frees it. NULL only when memory runs out. */
char* DHVAPI_CALL NewRecordIdentifier(void);

#ifdef __cplusplus
}
#endif

#endif /* DHVAPI_H */
