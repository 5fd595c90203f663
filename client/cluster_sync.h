#ifndef CLUSTER_SYNC_H_
#define CLUSTER_SYNC_H_

/* Asks cluster_sync_daemon to change replicated files, on this enclosure manager and the other one.
 * C99 and C++.
 *
 * Every function returns 0 or an error number:
 *   ECONNREFUSED  no daemon answers on the command socket (EACCES, EPERM: not for this user)
 *   ECONNRESET    the daemon ended or hung up before it answered
 *   ETIMEDOUT     no answer within the time limit; the request may still be served
 *   ECANCELED     the daemon refuses the request or reports a failure; the result says which
 *   EPROTO        what came back cannot be understood
 *   EXDEV         the destination lies in none of the replicated trees; nothing was asked
 *   EINVAL        a path or a command is empty
 *   EISDIR        the destination ends with "/", "." or ".."
 * or that of the system call that failed (ENAMETOOLONG, ENOENT for a missing directory, ENOSPC,
 * ...).
 *
 * Any thread may call any function at any time: there is no state outside the arguments. No signal
 * is raised, and no descriptor survives an exec. An interrupted call goes on.
 *
 * `socket` is the path of the command socket, null for CLUSTER_SYNC_SOCKET. `timeout_ms` limits the
 * wait for the answer in milliseconds; a negative one sets no limit. An exchange that makes no
 * progress is ended by the daemon after 10 seconds, but a request also waits for those before it.
 *
 * Paths may be relative or lead through links: the tree is recognised by device and inode of the
 * directories above, and the daemon gets its own spelling. One that is spelled its way already is
 * sent as it stands, and the daemon judges it. */

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

#define CLUSTER_SYNC_SOCKET "/var/run/em/cmd.2006"

/* What became of a request. */
struct cluster_sync_result {
  uint8_t success;
  uint8_t local_ok;  /* the change stands on this enclosure manager */
  uint8_t remote_ok; /* and on the other one, unless that is away */
  uint8_t benign;    /* the failure left everything as it was wanted */
  uint8_t canceled;
  uint8_t padding[3];
  uint32_t peer_present; /* 'Y' or 'N': whether the other one is in the group */
  char reason[116];      /* of a failure; NUL-terminated, bytes as the daemon wrote them */
};

/* One request and its answer. `result` may be null; it is written when 0 or ECANCELED is returned.
 *
 * update renames `source` onto the replicated file `destination`; both are on one file system, and
 * `source` is best called TempUpdate_something. delete removes the replicated file. sync only runs
 * an exchange. */
int cluster_sync_update(const char* socket, const char* source, const char* destination,
                        int timeout_ms, struct cluster_sync_result* result);
int cluster_sync_delete(const char* socket, const char* destination, int timeout_ms,
                        struct cluster_sync_result* result);
int cluster_sync_sync(const char* socket, int timeout_ms, struct cluster_sync_result* result);

/* Publishes `size` bytes, or what can be read from `fd` up to its end, as the replicated file
 * `destination`, which is made or replaced as a whole and belongs to the caller. The mode becomes
 * 0644 when `mode` has all of these bits, else 0600. The bytes go to a file TempUpdate_<random>
 * beside the destination first and to the disk; the time limit counts from then. After an error
 * that file is gone, so that a request which is served late publishes nothing. EFBIG above 4 GiB -
 * 1, which no tree can hold. */
int cluster_sync_put(const char* socket, const void* data, size_t size, const char* destination,
                     mode_t mode, int timeout_ms, struct cluster_sync_result* result);
int cluster_sync_put_fd(const char* socket, int fd, const char* destination, mode_t mode,
                        int timeout_ms, struct cluster_sync_result* result);

/* Sends a diagnostic command, "name" or "name=argument". */
int cluster_sync_diag(const char* socket, const char* command, int timeout_ms);

/* The same in steps, for a caller that does something else meanwhile. A connection is a descriptor,
 * closed with close(2), that becomes readable when the answer is there; it carries any number of
 * requests, one after the other. Without `source` send_update asks for a deletion, without both
 * for an exchange. receive takes the answer of an update into `*result`, or with null that of a
 * diagnostic command; `status`, unless null, gets the daemon's number for a refusal, else 0. */
int cluster_sync_connect(const char* socket, int timeout_ms, int* connection);
int cluster_sync_send_update(int connection, const char* source, const char* destination,
                             int timeout_ms);
int cluster_sync_send_diag(int connection, const char* command, int timeout_ms);
int cluster_sync_receive(int connection, int timeout_ms, uint32_t* status,
                         struct cluster_sync_result* result);

/* Says what an error number of this library means. A constant text. */
const char* cluster_sync_strerror(int error);

#ifdef __cplusplus
}
#endif

#endif /* CLUSTER_SYNC_H_ */
