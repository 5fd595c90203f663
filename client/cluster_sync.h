#ifndef CLUSTER_SYNC_H_
#define CLUSTER_SYNC_H_

/* Functions to change files that are replicated between two enclosure managers, through
 * cluster_sync_daemon. C99 and C++. cluster_sync(3) is the manual.
 *
 * Every function that returns an int returns 0 or an error number:
 *   ECONNREFUSED  no daemon answers on the command socket (EACCES, EPERM: not for this user)
 *   ECONNRESET    the daemon exited or closed the connection before it answered
 *   EINPROGRESS   the time limit expired; the daemon has the request and continues
 *   ETIMEDOUT     the time limit expired; nothing was changed. A put will never be published
 *   ECANCELED     the daemon refused the request or reports a failure; see the result
 *   EHOSTDOWN     comparison: the other enclosure manager is away
 *   EPROTO        the answer cannot be understood
 *   EBUSY         the connection has a request whose answer was not received
 *   EXDEV         the destination is in none of the replicated trees; no request was sent
 *   EPERM         the destination is in the copy of the other one's tree; no request was sent
 *   EINVAL        a path or a command is null or empty, or no file of this name is replicated
 *   EISDIR        the destination is a directory, or ends with "/", "." or ".."
 *   ELOOP         the destination or a directory above it in the tree is a symbolic link
 * or that of the system call that failed (ENAMETOOLONG, ENOENT for a missing directory, ENOSPC,
 * ...).
 *
 * Any thread may call any function at any time, but only one thread at a time may use a
 * connection. There is no state outside the arguments. No signal is raised. Descriptors are
 * closed on exec. An interrupted call continues.
 *
 * `socket` is the path of the command socket, null for CLUSTER_SYNC_SOCKET. `timeout_ms` is the
 * time limit of a call in milliseconds: 0 does not wait, a negative value sets no limit. The
 * daemon ends an exchange after 10 seconds without progress, but a request also waits for those
 * before it.
 *
 * Paths may be relative or lead through symbolic links: the tree is recognised by device and
 * inode of the directories above the file, and the daemon gets its own spelling of the path. */

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

/* Before 1.1 this function returned a descriptor, on which a late answer could be mistaken for
 * that of another request. Use cluster_sync_open. */
#pragma GCC poison cluster_sync_connect

#ifdef __cplusplus
extern "C" {
#endif

#define CLUSTER_SYNC_VERSION_MAJOR 1
#define CLUSTER_SYNC_VERSION_MINOR 1
#define CLUSTER_SYNC_VERSION_PATCH 0
#define CLUSTER_SYNC_VERSION "1.1.0"

/* CLUSTER_SYNC_VERSION of the loaded library. */
const char* cluster_sync_version(void);

#define CLUSTER_SYNC_SOCKET "/var/run/em/cmd.2006"

/* The result of a request. The daemon sends these 128 bytes; they never change. */
struct cluster_sync_result {
  uint8_t success;
  uint8_t local_ok;  /* the change is applied on this enclosure manager */
  uint8_t remote_ok; /* and on the other one, unless that is away */
  uint8_t benign;    /* refused for a reason that is not a fault of replication */
  uint8_t canceled;  /* set in every failure */
  uint8_t padding[3];
  uint32_t peer_present; /* 'Y' or 'N': the other enclosure manager is in the group */
  char reason[116];      /* of a failure; NUL-terminated, in the daemon's bytes */
};

/* Writes the daemon's spelling of the path of a replicated file: at most `size` bytes including
 * the NUL. PATH_MAX is always enough. */
int cluster_sync_spell(const char* path, char* spelling, size_t size);

/* One request and its answer. `result` may be null; it is written if 0 or ECANCELED is returned.
 *
 * update renames `source` onto the replicated file `destination`; both must be on the same file
 * system. Call `source` TempUpdate_something. After ETIMEDOUT it still exists; remove it to make
 * sure that it is not published later. delete removes the replicated file. sync only runs an
 * exchange. */
int cluster_sync_update(const char* socket, const char* source, const char* destination,
                        int timeout_ms, struct cluster_sync_result* result);
int cluster_sync_delete(const char* socket, const char* destination, int timeout_ms,
                        struct cluster_sync_result* result);
int cluster_sync_sync(const char* socket, int timeout_ms, struct cluster_sync_result* result);

/* Publishes `size` bytes, or the bytes read from `fd` up to its end, as the replicated file
 * `destination`. It is created or replaced as a whole and belongs to the caller. Its mode is
 * 0644 if `mode` has all of these bits, otherwise 0600. The bytes are written to a temporary
 * file in the same directory and synced. If the file system allows it, that file has no name
 * until it is called TempUpdate_<random> just before the request. After an error it is removed.
 * The time limit covers waiting for input, but not writing. EFBIG above 4 GiB - 1, which no tree
 * can hold. */
int cluster_sync_put(const char* socket, const void* data, size_t size, const char* destination,
                     mode_t mode, int timeout_ms, struct cluster_sync_result* result);
int cluster_sync_put_fd(const char* socket, int fd, const char* destination, mode_t mode,
                        int timeout_ms, struct cluster_sync_result* result);

/* Sends a diagnostic command, "name" or "name=argument". */
int cluster_sync_diag(const char* socket, const char* command, int timeout_ms);

/* The state of this daemon, and what it knows of the pair. Ages and times are in seconds; -1 if
 * something never happened or is not planned. Texts are NUL-terminated. */
struct cluster_sync_state {
  uint32_t size;          /* bytes that the daemon sent; later versions send more */
  uint32_t em_number;     /* of this enclosure manager */
  uint32_t number_source; /* 0: read; 1: no file, so 1; 2: neither 1 nor 2, so 1 */
  uint32_t active;
  uint32_t joined;         /* the daemon is in the group */
  uint32_t peer_present;   /* and another daemon is, too */
  uint32_t exchange_state; /* 0 idle, 1 lock requested, 2 serving the peer, 3 waiting for its
                              listing, 4 sending updates, 5 releasing */
  int32_t exchange_state_age;
  uint32_t activity; /* 0 at rest, 1 listing, 2 hashing, 3 comparing, 4 writing, 5 waiting for
                        the disk, 6 reading */
  int32_t heartbeat_age;
  uint32_t hung; /* no heartbeat for 60 seconds */
  int32_t uptime;
  int32_t last_success_age; /* of exchanges with the other one */
  int32_t last_error_age;
  int32_t consecutive_errors; /* counted on the active enclosure manager */
  int32_t resync_in;
  int32_t waiting; /* callers */
  uint32_t fault;  /* the data replication fault is reported */
  uint32_t both_active;
  uint32_t recorder_paused;
  uint32_t rpc_stage;    /* 0: no request is served */
  uint32_t member_count; /* of the group; the first 8 follow */
  struct {
    uint32_t node;
    uint32_t pid;
  } members[8];
  uint64_t counters[11]; /* in the order of the statistics in cluster_sync_ctl(1) */
  char version[24];
  char last_error[116]; /* the reason that callers got */
  char last_cause[116]; /* the first failure on this enclosure manager in that exchange */
};

/* Asks for the state. The daemon answers at once, whatever it is doing. `size` is sizeof *state;
 * fields that an older daemon does not send are zero. ECANCELED if the daemon is too old to know
 * the request. */
int cluster_sync_get_state(const char* socket, int timeout_ms, struct cluster_sync_state* state,
                           size_t size);

/* The same in steps, for a caller that must not block. A connection carries any number of
 * requests, one after the other. */
struct cluster_sync_connection;

int cluster_sync_open(const char* socket, int timeout_ms,
                      struct cluster_sync_connection** connection);

/* Closes the connection and withdraws a put that was not answered. Null does nothing. */
void cluster_sync_close(struct cluster_sync_connection* connection);

/* The descriptor, only for poll(2): it becomes readable when the answer has arrived. */
int cluster_sync_fd(const struct cluster_sync_connection* connection);

/* Sends a request. EBUSY if the answer to another one has not been received. If `source` is
 * null, send_update asks for a deletion; if both are null, for an exchange. */
int cluster_sync_send_update(struct cluster_sync_connection* connection, const char* source,
                             const char* destination, int timeout_ms);
int cluster_sync_send_diag(struct cluster_sync_connection* connection, const char* command,
                           int timeout_ms);

/* A put. begin checks the destination, any number of writes append to the file, send syncs it
 * and sends the request. After an error of write or send the put is withdrawn. */
int cluster_sync_put_begin(struct cluster_sync_connection* connection, const char* destination,
                           mode_t mode);
int cluster_sync_put_write(struct cluster_sync_connection* connection, const void* data,
                           size_t size);
int cluster_sync_put_send(struct cluster_sync_connection* connection, int timeout_ms);

/* Takes the answer. EAGAIN if it has not arrived in time: call again, or withdraw. ENOMSG if
 * there is no request. `status`, unless null, is set to the number with which the daemon refused
 * the request, otherwise to 0. For a diagnostic command `result` is written only if it is
 * refused. */
int cluster_sync_receive(struct cluster_sync_connection* connection, int timeout_ms,
                         uint32_t* status, struct cluster_sync_result* result);

/* The state in steps. */
int cluster_sync_send_state(struct cluster_sync_connection* connection, int timeout_ms);
int cluster_sync_receive_state(struct cluster_sync_connection* connection, int timeout_ms,
                               struct cluster_sync_state* state, size_t size);

/* Gives up the request, or a put that was begun. Returns ETIMEDOUT if nothing has been changed,
 * EINPROGRESS if the daemon has the request. An outstanding answer remains outstanding. */
int cluster_sync_withdraw(struct cluster_sync_connection* connection);

/* Counts of the files of one tree. */
struct cluster_sync_tree {
  char name[16]; /* "active", "volatile", "own" (this one's, and its copy there), "copy" */
  uint32_t here; /* files on this enclosure manager */
  uint32_t there;
  uint32_t only_here;
  uint32_t only_there;
  uint32_t different; /* in content or mode */
};
#define CLUSTER_SYNC_TREES 4

/* Called for each file that differs: '<' only here, '>' only there, '!' on both but different.
 * `path` is relative to the tree. All texts are valid only during the call. A return value other
 * than 0 ends the report and is returned by the comparison. */
typedef int (*cluster_sync_difference_fn)(void* argument, char sign, const char* tree,
                                          const char* path);

/* Compares the trees of both enclosure managers in an exchange that changes no replicated file.
 * `trees` gets the counts in the order of the names above; `on_difference` may be null. After an
 * error neither is used, except for EPROTO, EIO and a value returned by the function. `result`
 * as for an update. */
int cluster_sync_compare(const char* socket, int timeout_ms,
                         struct cluster_sync_tree trees[CLUSTER_SYNC_TREES],
                         cluster_sync_difference_fn on_difference, void* argument,
                         struct cluster_sync_result* result);

/* The same in steps, on a connection. EAGAIN as for cluster_sync_receive. */
int cluster_sync_send_compare(struct cluster_sync_connection* connection, int timeout_ms);
int cluster_sync_receive_compare(struct cluster_sync_connection* connection, int timeout_ms,
                                 struct cluster_sync_tree trees[CLUSTER_SYNC_TREES],
                                 cluster_sync_difference_fn on_difference, void* argument,
                                 struct cluster_sync_result* result);

/* The reason of a failure, for a program to decide what to do. */
enum cluster_sync_reason_code {
  CLUSTER_SYNC_NO_REASON = 0,         /* no failure */
  CLUSTER_SYNC_NOT_ACTIVE = 1,        /* send the request to the active enclosure manager */
  CLUSTER_SYNC_BUSY = 2,              /* try again */
  CLUSTER_SYNC_NOT_REPLICATED = 3,    /* no file of this name is replicated */
  CLUSTER_SYNC_OTHER_FILE_SYSTEM = 4, /* source and destination differ */
  CLUSTER_SYNC_NO_SUCH_FILE = 5,
  CLUSTER_SYNC_ERROR_HERE = 6,  /* no space, or a failure of the disk or the system, here */
  CLUSTER_SYNC_ERROR_THERE = 7, /* the same on the other enclosure manager */
  CLUSTER_SYNC_TIMED_OUT = 8,
  CLUSTER_SYNC_PROTOCOL = 9,   /* the exchange was disturbed, or versions do not match */
  CLUSTER_SYNC_NO_DAEMON = 10, /* no daemon answers, or the user may not ask it */
  CLUSTER_SYNC_OTHER = 11
};

/* The reason for an error number of this library. `result`, which may be null, belongs to
 * ECANCELED. Later versions may return more reasons: treat an unknown one as CLUSTER_SYNC_OTHER. */
enum cluster_sync_reason_code cluster_sync_reason(int error,
                                                  const struct cluster_sync_result* result);

/* A constant text for an error number of this library. */
const char* cluster_sync_strerror(int error);

#ifdef __cplusplus
}
#endif

#endif /* CLUSTER_SYNC_H_ */
