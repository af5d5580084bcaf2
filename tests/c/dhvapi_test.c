/* Calls the C interface from C, linked against the shared library. */
#define _POSIX_C_SOURCE 200809L
#include <ctype.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

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

static void test_crash_reporter(void) {
  char state[] = "/tmp/dhvapi_test.XXXXXX";
  char expected[64];
  void* holder = NULL;
  void* first;
  struct sigaction before, during, after;
  struct stat st;
  CHECK(mkdtemp(state) != NULL);
  CHECK(setenv("XDG_STATE_HOME", state, 1) == 0);
  sigaction(SIGSEGV, NULL, &before);

  InstallCrashReporter(&holder);
  CHECK(holder != NULL);
  first = holder;
  InstallCrashReporter(&holder); /* the holder keeps what came first */
  CHECK(holder == first);
  sigaction(SIGSEGV, NULL, &during);
  CHECK(during.sa_sigaction != before.sa_sigaction);
  snprintf(expected, sizeof expected, "%s/Brightfern/dischive.dmp", state);
  CHECK(strcmp(GetCrashReportPath(), expected) == 0);
  snprintf(expected, sizeof expected, "%s/Brightfern", state);
  CHECK(stat(expected, &st) == 0 && S_ISDIR(st.st_mode));

  RemoveCrashReporter(&holder);
  CHECK(holder == NULL);
  sigaction(SIGSEGV, NULL, &after);
  CHECK(after.sa_sigaction == before.sa_sigaction);
  RemoveCrashReporter(&holder);
  RemoveCrashReporter(NULL);
  InstallCrashReporter(NULL);
  rmdir(expected);
  rmdir(state);
}

int main(void) {
  test_identifiers();
  test_http_texts();
  test_crash_reporter();
  return failures == 0 ? 0 : 1;
}
