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

static void test_http_texts(void) {
  HttpRequest request;
  char* text = NULL;
  char* message = FormatErrorMessage(12029);
  CHECK(message != NULL && strstr(message, "connect") != NULL);
  free(message);

  /* Refused before any network use: no server. */
  memset(&request, 0, sizeof request);
  request.access_type = 1;
  CHECK(PerformHttpRequest(&request) == 87);
  CHECK(request.response_body == NULL);

  CHECK(AppendTranscriptLines(&text, "GET / HTTP/1.1\r\nHost: h\r\n", 2) == 0);
  CHECK(text != NULL && strcmp(text, ">| GET / HTTP/1.1\r\n>| Host: h\r\n") == 0);
  free(text);
}

int main(void) {
  test_identifiers();
  test_http_texts();
  return failures == 0 ? 0 : 1;
}
