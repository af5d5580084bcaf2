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

static void test_service(void) {
  DhvServiceParam params[3] = {{"Name", "1"}, {"name", "2"}, {"name", "3"}};
  DhvServiceResult result;
  char* log = NULL;
  CHECK(strcmp(FindServiceParam(params, 3, "name"), "2") == 0);
  CHECK(FindServiceParam(params, 3, "nam") == NULL);
  CHECK(FindServiceParam(params, 0, "name") == NULL);
  ClearServiceErrorMessage();
  CHECK(GetServiceErrorMessage() == NULL);
  CHECK(SendServiceRequest(NULL, NULL, 0, NULL, NULL, NULL, NULL, 0, &result) == 0x80070057u);
  CHECK(SendServiceRequest("list", NULL, 2, NULL, NULL, NULL, NULL, 0, &result) == 0x80070057u);
  /* Nobody listens on port 1: the transport's "cannot connect", nothing logged. */
  SetServiceHostName("127.0.0.1:1");
  CHECK(SendServiceRequest("list", params, 3, NULL, NULL, &log, NULL, 0, &result) == 12029);
  CHECK(result.params == NULL && result.albums == NULL && log == NULL);
  CHECK(SendServiceRequest("put", NULL, 0, "/nonexistent/doc.xml", NULL, NULL, NULL, 0, NULL) ==
        0x80070002u);
  SetServiceHostName(NULL);
}

int main(void) {
  test_identifiers();
  test_http_texts();
  test_service();
  return failures == 0 ? 0 : 1;
}
