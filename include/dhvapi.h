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

/* Crash reports ------------------------------------------------------------- */

/* Installs the crash report writer for SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT
 * and SIGTRAP and stores in *holder what is needed to put the previous
 * handlers back (*holder stays NULL when installing failed). A failing process
 * writes a plain-text report to GetCrashReportPath() and then dies by its
 * signal as before. The calling thread gets an alternate signal stack, so that
 * a stack overflow is reported too. */
void DHVAPI_CALL InstallCrashReporter(void** holder);
/* Puts back the handlers that *holder keeps and sets *holder to NULL; does
 * nothing when holder or *holder is NULL. */
void DHVAPI_CALL RemoveCrashReporter(void** holder);
/* The report file's full path ("$XDG_STATE_HOME/Brightfern/dischive.dmp", or
 * "dischive.dmp" in the temporary folder when there is no state folder). The
 * text is owned by the library. */
const char* DHVAPI_CALL GetCrashReportPath(void);

/* HTTP transport ------------------------------------------------------------ */

typedef struct HttpRequest HttpRequest;

/* The host's answer to an authentication challenge (error 0, status 401 or 407)
 * or a certificate problem (error 12037, 12038, 12045, ...): 0 returns the
 * response as it is, 12032 sends the request again (after the callback filled
 * user and password, or accepted the certificate), 1223 cancels, anything else
 * ends the request with that value. */
typedef uint32_t(DHVAPI_CALL* HttpPromptCallback)(void* context, HttpRequest* request,
                                                  uint32_t error, uint32_t status);

/* One request and its response. Zero the record, fill it, call
 * PerformHttpRequest, read the outputs and free the three output buffers with
 * free(). */
struct HttpRequest {
  HttpPromptCallback prompt; /* NULL: a 401/407 is returned, a TLS problem ends */
  void* prompt_context;
  uint32_t access_type;      /* 0 system configuration, 1 direct, 3 named proxy */
  char proxy[1024];          /* "host" or "host:port" for access type 3 */
  char proxy_bypass[1024];   /* hosts reached without the proxy, ';' separated */
  char agent[256];           /* user agent */
  uint32_t open_flags;       /* reserved, 0 */
  const char* extra_headers; /* CR LF separated headers to add or replace, or NULL */
  uint32_t decoding;         /* non-zero: accept and decode compressed bodies */
  uint32_t no_authentication;
  char user[256]; /* credentials for a 401/407, set by the prompt */
  char password[256];
  const char* server; /* host name or address */
  const char* object; /* path and query; NULL means "/" */
  uint32_t port;      /* 443 means TLS */
  const char* verb;   /* "GET", "POST", ...; NULL means "GET" */
  const void* body;   /* data to send, or NULL; owned by the caller */
  uint32_t body_length;
  char* sent_headers;       /* out: request headers as sent (malloc) */
  char* response_headers;   /* out: response headers, CR LF separated (malloc) */
  char* response_body;      /* out: body plus a NUL (malloc) */
  uint32_t response_length; /* out: body bytes without the NUL */
  uint32_t status_code;     /* out: HTTP status */
};

/* Proxy and agent settings from the group "internet2". */
typedef struct InternetSettings {
  int32_t preconfigured; /* "preconfig_http_proxy" */
  int32_t use_proxy;     /* "use_http_proxy" with a non-empty address */
  char proxy_address[128];
  char agent[64];
} InternetSettings;

/* Reads the settings from the library's settings store. Returns 0, or
 * 0x80070057 when a value did not fit its field (it is truncated). */
DHV_RESULT DHVAPI_CALL LoadInternetSettings(InternetSettings* settings);

/* Sends the request on a connection of its own. Returns 0 when the exchange
 * took place (check status_code), else the error; outputs made before a
 * failure (a partial body) are still set and must be freed. */
DHV_RESULT DHVAPI_CALL PerformHttpRequest(HttpRequest* request);

/* Appends the request's exchange to *text (malloc'ed or NULL; the caller frees
 * it): sent headers, sent body with the password masked, response headers and
 * a text body. Returns 0, or 0x8007000E when memory runs out. */
DHV_RESULT DHVAPI_CALL FormatHttpTranscript(char** text, const HttpRequest* request);

/* Appends lines to *text with the marker of the direction (1 received "<| ",
 * 2 sent ">| ", other none). Returns 0, or 0x8007000E when memory runs out. */
DHV_RESULT DHVAPI_CALL AppendTranscriptLines(char** text, const char* lines, int direction);

/* The text for a result code, malloc'ed; NULL only when memory runs out. */
char* DHVAPI_CALL FormatErrorMessage(DHV_RESULT code);

/* XML responses. The document handed out is a libxml2 document: read it with
 * libxml2 and release it with xmlFreeDoc. */
typedef struct XmlResponseReader XmlResponseReader;
struct _xmlDoc;

/* A reader whose XPath uses the given namespace declarations
 * ("xmlns:z='uri' ..."), or none when NULL. */
XmlResponseReader* DHVAPI_CALL CreateXmlResponseReader(const char* selection_namespaces);
void DHVAPI_CALL DestroyXmlResponseReader(XmlResponseReader* reader);
/* Parses a body (up to its NUL). Returns 0 and the document, 0x80004005 when
 * it is not well-formed, declares a document type (DTD, entities) or is longer
 * than the setting "internet2" "xml_max_bytes" (default 64 MiB), 0x80070057 for
 * bad arguments. */
DHV_RESULT DHVAPI_CALL LoadXmlResponse(XmlResponseReader* reader, const char* body,
                                       struct _xmlDoc** document);

/* Amazon product search ------------------------------------------------------- */

/* Signed request URLs for the album search of the product search service. The
 * keys and the marketplace come from the settings group "AmazonSearch"
 * ("AccessKeyId", "SecretKey", "AssociateTag", "AwsServer" 0-5), the time from
 * the clock. classical non-zero searches the Classical index instead of Music;
 * response_group is a comma-separated list such as "ItemAttributes,Tracks,Images"
 * (NULL: "ItemAttributes,Tracks"). Each returns a malloc'ed URL, or NULL when
 * the text is NULL or memory runs out. */
char* DHVAPI_CALL LookupItemInIndex(const char* barcode, int classical, const char* response_group);
char* DHVAPI_CALL SearchAlbumsByArtist(const char* artist, int classical, int page,
                                       const char* response_group);
char* DHVAPI_CALL SearchAlbumsByKeywords(const char* keywords, int classical, int page,
                                         const char* response_group);
char* DHVAPI_CALL LookupItem(const char* asin, const char* response_group);

/* Signs a request: query holds "name=value" pairs joined by "&", values already
 * percent-encoded. Returns "http://" host "/onca/xml?" and the pairs sorted by
 * bytes, followed by "&Signature=" and the signature, malloc'ed; NULL when an
 * argument is NULL or memory runs out. */
char* DHVAPI_CALL BuildSignedUrl(const char* host, const char* query, const char* secret_key);

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

/* freedb lookups ----------------------------------------------------------------
 * The host fills one DhvDiscRecord per disc and calls a lookup on a thread of
 * its own. The lookup takes the host's lock around every access to the
 * request, stops without touching the records once the host has set `discs`
 * to NULL under that lock, posts progress texts and sends the match choice
 * through the host's callbacks, and finally stores each disc's result and
 * metadata. Metadata texts and entry arrays are malloc'ed on both sides: the
 * lookup frees what a record held and hands out new ones, which the host frees. */

#define DHV_MAX_DISC_TRACKS 100
#define DHV_VALUE_INT 3  /* DhvMetadataEntry.type: intValue holds the value */
#define DHV_VALUE_TEXT 8 /* DhvMetadataEntry.type: text holds the value */

typedef struct DhvDiscToc {
  uint32_t discId;
  uint32_t altDiscId; /* queried instead of discId when non-zero */
  uint32_t trackCount;
  uint32_t frameOffsets[DHV_MAX_DISC_TRACKS];
  uint32_t discLengthSeconds;
} DhvDiscToc;

typedef struct DhvMetadataEntry {
  uint32_t fieldId;
  uint32_t index; /* 0 disc, n track n */
  uint32_t type;  /* DHV_VALUE_INT or DHV_VALUE_TEXT */
  int32_t intValue;
  char* text; /* UTF-8, malloc'ed */
} DhvMetadataEntry;

typedef struct DhvDiscMetadata {
  uint32_t count;
  uint32_t capacity;
  DhvMetadataEntry* entries; /* malloc'ed */
  char* extraTexts[2];       /* malloc'ed or NULL */
  uint32_t extraWords[3];
} DhvDiscMetadata;

typedef struct DhvDiscRecord {
  DhvDiscToc toc;
  DhvDiscMetadata metadata;
  DHV_RESULT result;
} DhvDiscRecord;

typedef struct DhvFreedbMatch {
  uint32_t discId;
  const char* artist;
  const char* title;
  const char* category;
} DhvFreedbMatch;

/* Sent with the choice message: the host writes `chosen` and returns non-zero,
 * or returns 0 to cancel. */
typedef struct DhvMatchChoice {
  uint32_t count;
  uint32_t chosen; /* 0xFFFFFFFF until the host chooses */
  const DhvFreedbMatch* matches;
} DhvMatchChoice;

typedef void(DHVAPI_CALL* DhvLockCallback)(void* context);
/* A progress text (malloc'ed; the host frees it). */
typedef void(DHVAPI_CALL* DhvPostCallback)(void* owner, uint32_t message, uintptr_t wparam,
                                           char* text);
typedef intptr_t(DHVAPI_CALL* DhvSendCallback)(void* owner, uint32_t message, uintptr_t wparam,
                                               DhvMatchChoice* choice);

typedef struct DhvDiscLookupRequest {
  DhvLockCallback lock;
  DhvLockCallback unlock;
  void* lockContext;
  DhvDiscRecord* discs; /* NULL (set under the lock): the host abandoned the request */
  uint32_t discCount;
  void* owner; /* passed to post and send */
  DhvPostCallback post;
  DhvSendCallback send;
  uint32_t progressMessage; /* wparam: 0, or index | count << 16 for several discs */
  uint32_t choiceMessage;
  uint32_t matchByName; /* later discs: take the match equal to the held artist and title */
} DhvDiscLookupRequest;

/* freedb submission --------------------------------------------------------------
 * Texts are UTF-8 (sent as ISO-8859-1); NULL counts as empty. */

#define DHV_MAX_SUBMISSION_TRACKS 99

typedef struct DhvDiscSubmission {
  const char* category; /* one of the eleven freedb categories, lower case */
  uint32_t discId;
  uint32_t trackCount; /* 1 to DHV_MAX_SUBMISSION_TRACKS */
  const char* artist;
  const char* title;
  const char* trackArtist[DHV_MAX_SUBMISSION_TRACKS]; /* may be NULL or empty */
  const char* trackTitle[DHV_MAX_SUBMISSION_TRACKS];
  const char* trackExtended[DHV_MAX_SUBMISSION_TRACKS];
  /* Track starts in frames, then the lead-out in the slot after the last track. */
  uint32_t frameOffsets[DHV_MAX_SUBMISSION_TRACKS + 1];
  int32_t revision;
  int32_t year;
  const char* extended;
  int32_t hasYearAndGenre; /* 0: no DYEAR and DGENRE lines */
  const char* genre;
  uint32_t discLengthSeconds;
} DhvDiscSubmission;

typedef struct DhvSubmissionRecord {
  DhvDiscSubmission entry;
  DHV_RESULT result; /* written by the submission: 0 when the server took it */
} DhvSubmissionRecord;

/* The request a submission shares with the host, as a lookup's: the lock
 * guards every look at it; the host sets `submissions` to NULL under the lock
 * to abandon the request. */
typedef struct DhvSubmitRequest {
  DhvLockCallback lock;
  DhvLockCallback unlock;
  void* lockContext;
  DhvSubmissionRecord* submissions;
  uint32_t submissionCount;
  void* owner; /* passed to post */
  DhvPostCallback post;
  uint32_t progressMessage; /* wparam: 0, or index | count << 16 for several entries */
} DhvSubmitRequest;

/* Looks the discs up over HTTP (settings "acquire_url", "email_address"). Returns
 * 0, 0x80004004 when abandoned, 0x80070057 for a bad request; each disc's
 * outcome is in its record. */
DHV_RESULT DHVAPI_CALL LookupDiscsFreedb(DhvDiscLookupRequest* request);
/* The same over the CDDB socket protocol ("cddb_server", "cddb_port"). */
DHV_RESULT DHVAPI_CALL LookupDiscsCddbp(DhvDiscLookupRequest* request);

/* Submits each entry of request->submissions by mail through "smtp_server" to
 * "smtp_submit_address", storing each entry's result (0, 0x8111000C invalid,
 * 0x81110012 bad category, 0x81110007-0x8111000B the SMTP step refused).
 * Returns 0, 0x80004004 when abandoned, 0x80070057 for a NULL request. */
DHV_RESULT DHVAPI_CALL SubmitByMail(DhvSubmitRequest* request);
/* The same by HTTP POST to "submit_url" (results 0x81110010 for a status other
 * than 200, 0x8111000D/0x8111000E for the script's 500/501, 0x81110002 for
 * another answer, 0x800C0002 when submit_url is not an http address). */
DHV_RESULT DHVAPI_CALL SubmitByHttp(DhvSubmitRequest* request);
/* Background lookups ----------------------------------------------------------
 * A worker runs HTTP GET requests in the background: a fixed number of slots,
 * one thread per running request, a waiting queue. A finished request is
 * handed to the host window's post callback on the request's thread; the host
 * passes it to CompleteRequest on its own thread, which calls onComplete,
 * starts the next queued request and deletes the finished one (destroy).
 * Submission, completion, cancellation and the idle test belong to the host's
 * thread. */

typedef struct DhvLookupRequest DhvLookupRequest;

/* The window a request reports to. Both callbacks run on a request thread. */
typedef struct DhvHostWindow {
  void* context;
  /* Queues the completion for the host's thread; non-zero when it was queued
   * (the host now owns the request and gives it to CompleteRequest), 0 when
   * the window is gone (the request is then deleted). */
  int(DHVAPI_CALL* post)(void* context, uint32_t message, uintptr_t wparam,
                         DhvLookupRequest* request);
  /* Non-zero while the window exists. */
  int(DHVAPI_CALL* alive)(void* context);
} DhvHostWindow;

/* The host's operations of a request (the request "class"). */
typedef struct DhvLookupRequestOps {
  /* On the host's thread, from CompleteRequest: read the results here. */
  void(DHVAPI_CALL* onComplete)(DhvLookupRequest* request);
  /* On the host's thread, just before the start; may be NULL. */
  void(DHVAPI_CALL* prepare)(DhvLookupRequest* request);
  /* The URL to fetch (http or https); copied at once. */
  const char*(DHVAPI_CALL* getUrl)(DhvLookupRequest* request);
  /* The window to report to, asked on the request's thread; NULL makes that
   * thread delete the request. */
  const DhvHostWindow*(DHVAPI_CALL* getOwnerWindow)(DhvLookupRequest* request);
  /* The message number handed to post. */
  uint32_t(DHVAPI_CALL* getMessageId)(DhvLookupRequest* request);
  /* Called once when the worker deletes the request, after it freed the result
   * texts; release the record here. May be NULL. */
  void(DHVAPI_CALL* destroy)(DhvLookupRequest* request);
} DhvLookupRequestOps;

/* One request: the host allocates and zeroes it, fills ops, context and the
 * inputs, and submits it. The worker owns it from a successful or queued
 * submission until destroy. The result fields are valid in onComplete. */
struct DhvLookupRequest {
  const DhvLookupRequestOps* ops;
  void* context; /* the host's */
  /* Inputs. */
  const char* extraHeaders; /* CR LF separated, or NULL */
  uint32_t decoding;
  uint32_t noAuthentication;
  /* Results (texts malloc'ed by the worker and freed before destroy). */
  uint32_t port;
  DHV_RESULT error; /* the transport's result, 0 when the exchange took place */
  uint32_t statusCode;
  char* server;
  char* object;
  char* transcript;
  char* body; /* NUL-terminated */
  uint32_t bodyLength;
  uint32_t threadId;
  uint32_t minInterval; /* the worker's, copied at the start */
  void* internal;       /* the worker's; leave NULL */
};

/* A worker record; minInterval (milliseconds from the end of one request to
 * the start of the next, process-wide) may be set by the host at any time on
 * its thread. */
typedef struct DhvLookupWorker {
  uint32_t minInterval;
  uint32_t callerValue;
  void* internal;
} DhvLookupWorker;

/* Sets up a worker in the host's record. profileSection: a settings group
 * whose "UserAgent" replaces the agent, or NULL. slots: at least 1. Returns 0,
 * or 0x80070057 for a bad argument. */
DHV_RESULT DHVAPI_CALL ConstructLookupWorker(DhvLookupWorker* worker, uint32_t callerValue,
                                             const char* profileSection, int32_t slots);
/* Cancels every request and releases the worker (the record stays the host's). */
void DHVAPI_CALL DestructLookupWorker(DhvLookupWorker* worker);
/* 1 when the request started; 0 when it was queued, or refused (a URL that is
 * not http or https, or a full worker with noQueue set): a refused request
 * stays the host's and is not destroyed. */
int DHVAPI_CALL SubmitRequest(DhvLookupWorker* worker, DhvLookupRequest* request, int atFront,
                              int noQueue);
/* Deletes the queued requests; running ones finish and are deleted by their
 * threads without being posted. */
void DHVAPI_CALL CancelAllRequests(DhvLookupWorker* worker);
/* 1 when nothing is queued and no request runs, else 0. */
int DHVAPI_CALL IsWorkerIdle(const DhvLookupWorker* worker);
/* Completes a request the post callback handed over, then deletes it. */
void DHVAPI_CALL CompleteRequest(DhvLookupWorker* worker, DhvLookupRequest* request);
/* The body as a malloc'ed text (empty when there is none); NULL only when
 * memory runs out. */
char* DHVAPI_CALL GetResponseText(const DhvLookupRequest* request);

#ifdef __cplusplus
}
#endif

#endif /* DHVAPI_H */
