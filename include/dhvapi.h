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

/* Backup files -------------------------------------------------------------- */

/* The metadata section at the end of a backup file. Texts are UTF-8 and
 * NUL-terminated, cut to fit their buffers. */
typedef struct DHV_BACKUP_INFO {
  uint32_t version;             /* 256 */
  char database_name[1024];     /* file name of the database backed up */
  char reserved_texts[6][256];  /* empty in this version */
  uint32_t reserved_numbers[6]; /* 0 in this version */
} DHV_BACKUP_INFO;

/* Writes a backup of the database file (and, when include_covers is non-zero
 * and covers_folder is given, of the "*.jpg" files in that folder) into a new
 * file backup_path; an existing file is never overwritten. The database's
 * write lock is taken for the copy, so the call fails while another process
 * writes to the database. Returns 1 on success, 0 on failure (an empty
 * database path fails); on failure no backup file is left behind. */
int DHVAPI_CALL WriteBackupFile(const char* database_path, const char* covers_folder,
                                const char* backup_path, int include_covers);

/* Returns 1 when the file starts with the backup header, else 0. When info is
 * not NULL and the metadata section is found in the last 8196 bytes, *info is
 * filled; otherwise it is left as it was (set version to 0 beforehand to tell).
 * A metadata section that is found but damaged makes the result 0. */
int DHVAPI_CALL ReadBackupInfo(const char* backup_path, DHV_BACKUP_INFO* info);

#ifdef __cplusplus
}
#endif

#endif /* DHVAPI_H */
