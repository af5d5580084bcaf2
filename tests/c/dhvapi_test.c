/* Calls the C interface from C, linked against the shared library. */
#define _POSIX_C_SOURCE 200809L
#include <arpa/inet.h>
#include <ctype.h>
#include <netinet/in.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
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

/* A one-answer-per-connection HTTP server on 127.0.0.1 for `answers`
 * connections. */
struct TinyServer {
  int fd;
  int port;
  int answers;
  pthread_t thread;
};

static void* serve(void* arg) {
  struct TinyServer* server = (struct TinyServer*)arg;
  static const char reply[] =
      "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: 5\r\n"
      "Connection: close\r\n\r\nhello";
  int i;
  for (i = 0; i < server->answers; ++i) {
    char buffer[4096];
    size_t got = 0;
    int client = accept(server->fd, NULL, NULL);
    if (client < 0) break;
    while (got < sizeof buffer - 1) {
      ssize_t n = recv(client, buffer + got, sizeof buffer - 1 - got, 0);
      if (n <= 0) break;
      got += (size_t)n;
      buffer[got] = '\0';
      if (strstr(buffer, "\r\n\r\n") != NULL) break;
    }
    if (send(client, reply, sizeof reply - 1, 0) < 0) perror("send");
    close(client);
  }
  return NULL;
}

static int start_server(struct TinyServer* server, int answers) {
  struct sockaddr_in address;
  socklen_t length = sizeof address;
  memset(&address, 0, sizeof address);
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  server->answers = answers;
  server->fd = socket(AF_INET, SOCK_STREAM, 0);
  if (server->fd < 0 || bind(server->fd, (struct sockaddr*)&address, sizeof address) != 0 ||
      listen(server->fd, 8) != 0 ||
      getsockname(server->fd, (struct sockaddr*)&address, &length) != 0) {
    return 0;
  }
  server->port = ntohs(address.sin_port);
  return pthread_create(&server->thread, NULL, serve, server) == 0;
}

/* The host side of the worker: posted requests wait in a small mailbox that
 * the main thread empties. */
struct Mailbox {
  pthread_mutex_t lock;
  DhvLookupRequest* posted[8];
  int count;
  int open;
};

struct Fetch {
  DhvLookupRequest request; /* first: the record the worker sees */
  char url[128];
  int completed;
  int destroyed;
  char body[16];
  uint32_t status;
};

static int DHVAPI_CALL post_request(void* context, uint32_t message, uintptr_t wparam,
                                    DhvLookupRequest* request) {
  struct Mailbox* box = (struct Mailbox*)context;
  int queued = 0;
  (void)wparam;
  pthread_mutex_lock(&box->lock);
  if (box->open && message == 0x8100 && box->count < 8) {
    box->posted[box->count++] = request;
    queued = 1;
  }
  pthread_mutex_unlock(&box->lock);
  return queued;
}

static int DHVAPI_CALL window_alive(void* context) {
  return ((struct Mailbox*)context)->open;
}

static struct Mailbox mailbox = {PTHREAD_MUTEX_INITIALIZER, {NULL}, 0, 1};
static const DhvHostWindow window = {&mailbox, post_request, window_alive};

static void DHVAPI_CALL on_complete(DhvLookupRequest* request) {
  struct Fetch* fetch = (struct Fetch*)request->context;
  char* text = GetResponseText(request);
  ++fetch->completed;
  fetch->status = request->statusCode;
  if (text != NULL) {
    strncpy(fetch->body, text, sizeof fetch->body - 1);
    free(text);
  }
}
static const char* DHVAPI_CALL get_url(DhvLookupRequest* request) {
  return ((struct Fetch*)request->context)->url;
}
static const DhvHostWindow* DHVAPI_CALL get_window(DhvLookupRequest* request) {
  (void)request;
  return &window;
}
static uint32_t DHVAPI_CALL get_message(DhvLookupRequest* request) {
  (void)request;
  return 0x8100;
}
static void DHVAPI_CALL destroy(DhvLookupRequest* request) {
  ++((struct Fetch*)request->context)->destroyed;
}
static const DhvLookupRequestOps fetch_ops = {on_complete, NULL,        get_url,
                                              get_window,  get_message, destroy};

static void init_fetch(struct Fetch* fetch, const char* url) {
  memset(fetch, 0, sizeof *fetch);
  fetch->request.ops = &fetch_ops;
  fetch->request.context = fetch;
  strncpy(fetch->url, url, sizeof fetch->url - 1);
}

/* Completes what was posted until the worker is idle (at most 10 s). */
static void pump(DhvLookupWorker* worker) {
  int rounds;
  for (rounds = 0; rounds < 1000 && !IsWorkerIdle(worker); ++rounds) {
    DhvLookupRequest* ready[8];
    int count, i;
    struct timespec pause = {0, 10000000};
    pthread_mutex_lock(&mailbox.lock);
    count = mailbox.count;
    memcpy(ready, mailbox.posted, sizeof ready);
    mailbox.count = 0;
    pthread_mutex_unlock(&mailbox.lock);
    for (i = 0; i < count; ++i)
      CompleteRequest(worker, ready[i]);
    if (count == 0) nanosleep(&pause, NULL);
  }
}

static void test_lookup_worker(void) {
  struct TinyServer server;
  DhvLookupWorker worker;
  struct Fetch first, second, refused;
  char url[128];
  CHECK(ConstructLookupWorker(&worker, 7, NULL, 0) == 0x80070057);
  if (!start_server(&server, 2)) {
    CHECK(!"loopback server");
    return;
  }
  CHECK(ConstructLookupWorker(&worker, 7, NULL, 1) == 0);
  snprintf(url, sizeof url, "http://127.0.0.1:%d/a", server.port);
  init_fetch(&first, url);
  init_fetch(&second, url);
  init_fetch(&refused, "ftp://127.0.0.1/a");

  CHECK(SubmitRequest(&worker, &refused.request, 0, 0) == 0);
  CHECK(refused.destroyed == 0 && refused.request.internal == NULL);
  CHECK(IsWorkerIdle(&worker) == 1);
  CHECK(SubmitRequest(&worker, &first.request, 0, 0) == 1);
  CHECK(SubmitRequest(&worker, &second.request, 0, 0) == 0); /* queued */
  CHECK(IsWorkerIdle(&worker) == 0);
  pump(&worker);
  CHECK(IsWorkerIdle(&worker) == 1);
  CHECK(first.completed == 1 && first.destroyed == 1 && first.status == 200);
  CHECK(second.completed == 1 && second.destroyed == 1 && second.status == 200);
  CHECK(strcmp(first.body, "hello") == 0 && strcmp(second.body, "hello") == 0);
  CHECK(first.request.body == NULL && first.request.transcript == NULL);
  DestructLookupWorker(&worker);
  pthread_join(server.thread, NULL);
  close(server.fd);
}

int main(void) {
  test_identifiers();
  test_http_texts();
  test_crash_reporter();
  test_lookup_worker();
  return failures == 0 ? 0 : 1;
}
