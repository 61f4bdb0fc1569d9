/* Access tokens between local processes, for C: libzelttoken (-lzelttoken, pkg-config zelttoken).
 * C11.
 *
 * Each call makes one exchange with the daemon, zelttokenmgrd(8): it connects, sends one request,
 * reads one answer and closes. It tries /tmp/zelttokenmgr.sock first and then
 * /run/zelttokenmgr/socket, and sends nothing unless the process that listens runs as root, as
 * zelttokenmgr or as the caller's effective user. It waits 30 seconds at most for each of
 * connecting, sending and receiving.
 *
 * Strings end with a NUL byte and are UTF-8. A payload is one JSON value (RFC 8259); the service
 * decides what it holds.
 *
 * The calls share no state. Any number of threads may make them, also in atexit(3) handlers, but
 * not in signal handlers. They leave errno as it was, raise no signal, and inherit no descriptors
 * to programs that are started meanwhile. zelttoken(3) is the manual page.
 */
#ifndef ZELTTOKEN_H
#define ZELTTOKEN_H

#include <stdbool.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* What the calls return. The numbers never change; later versions may add some. */
enum {
  ZELT_OK = 0,
  ZELT_REFUSED = 1,     /* The daemon refused. Only its log gives the reason. */
  ZELT_UNAVAILABLE = 2, /* The daemon cannot be reached, or memory ran out. Nothing was sent. */
  ZELT_INTERRUPTED = 3, /* No valid answer arrived. The request may have been carried out. */
  ZELT_INVALID = 4,  /* An argument cannot be sent: a null pointer, a payload that is not one JSON
                        value, text that is not UTF-8, a process id below 1, more than 128 KiB.
                        Nothing was sent. */
  ZELT_MALFORMED = 5 /* The token is valid for the service, but the payload cannot be judged. */
};

/* The size of an array that holds the longest token and its NUL byte. */
enum { ZELT_TOKEN_SIZE = 65 };

/* Issues a new token of the service, which this process owns, with the grants in the payload.
 * Writes it to `token`, the empty string unless it returns ZELT_OK. */
int zelt_issue(const char* service, const char* payload, char token[ZELT_TOKEN_SIZE]);

/* Asks whether the token permits the operation in the payload. Sets `*permitted`, to false unless
 * it returns ZELT_OK. Returns ZELT_REFUSED for a token that is unknown or for another service. */
int zelt_validate(const char* service, const char* token, const char* payload, bool* permitted);

/* Deletes the token, which this process must own. */
int zelt_revoke(const char* service, const char* token);

/* Transfers the token, which this process must own, to the living process `new_owner`. */
int zelt_transfer(const char* service, const char* token, pid_t new_owner);

/* Returns a text in English for what a call returned. It is valid for ever. */
const char* zelt_error_text(int error);

#ifdef __cplusplus
}
#endif

#endif
