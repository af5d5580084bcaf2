/* Calls the C interface from C, linked against the shared library. */
#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "dhvapi.h"

static int failures = 0;

#define CHECK(cond)                                                            \
  do {                                                                         \
    if (!(cond)) {                                                             \
      fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
      ++failures;                                                              \
    }                                                                          \
  } while (0)

static void test_identifiers(void) {
  char* a = NewRecordIdentifier();
  char* b = NewRecordIdentifier();
  size_t i;
  CHECK(a != NULL && b != NULL);
  if (a == NULL || b == NULL) return;
  CHECK(strlen(a) == 16);
  for (i = 0; a[i] != '\0'; ++i)
    CHECK(isxdigit((unsigned char)a[i]) && !islower((unsigned char)a[i]));
  CHECK(strcmp(a, b) != 0);
  free(a);
  free(b);
}

int main(void) {
  test_identifiers();
  return failures == 0 ? 0 : 1;
}
