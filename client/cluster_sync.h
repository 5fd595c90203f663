#ifndef CLUSTER_SYNC_H_
#define CLUSTER_SYNC_H_

/* Asks cluster_sync_daemon to change replicated files, on this enclosure manager and the other one.
 * C99 and C++. cluster_sync(3) says more.
 *
 * Every function that returns an int returns 0 or an error number:
 *   ECONNREFUSED  no daemon answers on the command socket (EACCES, EPERM: not for this user)
 *   ECONNRESET    the daemon ended or hung up before it answered
 *   EINPROGRESS   the time is up; the daemon has the change, and its exchange goes on
 *   ETIMEDOUT     the time is up; nothing has been changed. A put never will be published
 *   ECANCELED     the daemon refuses the request or reports a failure; the result says which
 *   EHOSTDOWN     a comparison: the other one is away
 *   EPROTO        what came back cannot be understood
 *   EBUSY         the connection has a request whose answer was not received
 *   EXDEV         the destination lies in none of the replicated trees; nothing was asked
 *   EPERM         the destination lies in the copy of the other one's tree; nothing was asked
 *   EINVAL        a path or a command is null or empty, or a file of this name is not replicated
 *   EISDIR        the destination is a directory, or ends with "/", "." or ".."
 *   ELOOP         the destination is a symbolic link, or a directory above it is one
 * or that of the system call that failed (ENAMETOOLONG, ENOENT for a missing directory, ENOSPC,
 * ...).
 *
 * Any thread may call any function at any time; one connection serves one thread at a time. There
 * is no state outside the arguments. No signal is raised, and no descriptor survives an exec. An
 * interrupted call goes on.
 *
 * `socket` is the path of the command socket, null for CLUSTER_SYNC_SOCKET. `timeout_ms` limits the
 * time that a call waits, in milliseconds: 0 does not wait, a negative one sets no limit. An
 * exchange that makes no progress is ended by the daemon after 10 seconds, but a request also waits
 * for those before it.
 *
 * Paths may be relative or lead through links: the tree is recognised by device and inode of the
 * directories above, and the daemon gets its own spelling. */

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

/* The functions before 1.1 gave out a descriptor, on which a late answer could be taken for that of
 * another request. Use cluster_sync_open. */
#pragma GCC poison cluster_sync_connect

#ifdef __cplusplus
extern "C" {
#endif

#define CLUSTER_SYNC_VERSION_MAJOR 1
#define CLUSTER_SYNC_VERSION_MINOR 1
#define CLUSTER_SYNC_VERSION_PATCH 0
#define CLUSTER_SYNC_VERSION "1.1.0"

/* CLUSTER_SYNC_VERSION of the library that is loaded. */
const char* cluster_sync_version(void);

#define CLUSTER_SYNC_SOCKET "/var/run/em/cmd.2006"

/* What became of a request. These 128 bytes are what the daemon sends, and never change. */
struct cluster_sync_result {
  uint8_t success;
  uint8_t local_ok;  /* the change stands on this enclosure manager */
  uint8_t remote_ok; /* and on the other one, unless that is away */
  uint8_t benign;    /* refused for a reason that is no fault of replication */
  uint8_t canceled;  /* set in every failure */
  uint8_t padding[3];
  uint32_t peer_present; /* 'Y' or 'N': whether the other one is in the group */
  char reason[116];      /* of a failure; NUL-terminated, bytes as the daemon wrote them */
};

/* Writes how the daemon spells the path of a replicated file, whatever way leads there: at most
 * `size` bytes with the NUL. PATH_MAX is always enough. */
int cluster_sync_spell(const char* path, char* spelling, size_t size);

/* One request and its answer. `result` may be null; it is written when 0 or ECANCELED is returned.
 *
 * update renames `source` onto the replicated file `destination`; both are on one file system, and
 * `source` is best called TempUpdate_something. After ETIMEDOUT it is still there: whoever does not
 * want it published any more removes it. delete removes the replicated file. sync only runs an
 * exchange. */
int cluster_sync_update(const char* socket, const char* source, const char* destination,
                        int timeout_ms, struct cluster_sync_result* result);
int cluster_sync_delete(const char* socket, const char* destination, int timeout_ms,
                        struct cluster_sync_result* result);
int cluster_sync_sync(const char* socket, int timeout_ms, struct cluster_sync_result* result);

/* Publishes `size` bytes, or what can be read from `fd` up to its end, as the replicated file
 * `destination`, which is made or replaced as a whole and belongs to the caller. The mode becomes
 * 0644 when `mode` has all of these bits, else 0600. The bytes are written beside the destination,
 * to a file without a name where the file system can make one, and synced; just before the request
 * it is called TempUpdate_<random>. After an error it is gone. The time limit covers waiting for
 * input, but not writing. EFBIG above 4 GiB - 1, which no tree can hold. */
int cluster_sync_put(const char* socket, const void* data, size_t size, const char* destination,
                     mode_t mode, int timeout_ms, struct cluster_sync_result* result);
int cluster_sync_put_fd(const char* socket, int fd, const char* destination, mode_t mode,
                        int timeout_ms, struct cluster_sync_result* result);

/* Sends a diagnostic command, "name" or "name=argument". */
int cluster_sync_diag(const char* socket, const char* command, int timeout_ms);

/* The state of the daemon here, and what it knows of the pair. Ages and times are in seconds; -1
 * where something never happened or is not planned. Texts are NUL-terminated. */
struct cluster_sync_state {
  uint32_t size;          /* of what the daemon sent; a later one sends more */
  uint32_t em_number;     /* of this enclosure manager */
  uint32_t number_source; /* 0: read; 1: no file, so 1; 2: neither 1 nor 2, so 1 */
  uint32_t active;
  uint32_t joined;         /* the daemon is in the group */
  uint32_t peer_present;   /* and the other one is, too */
  uint32_t exchange_state; /* 0 idle, 1 asking for the lock, 2 serving the other one, 3 waiting for
                              its listing, 4 sending updates, 5 releasing */
  int32_t exchange_state_age;
  uint32_t activity; /* 0 at rest, 1 listing, 2 hashing, 3 comparing, 4 writing, 5 waiting for the
                        medium, 6 reading */
  int32_t heartbeat_age;
  uint32_t hung; /* no heartbeat for 60 seconds */
  int32_t uptime;
  int32_t last_success_age; /* of exchanges with the other one */
  int32_t last_error_age;
  int32_t consecutive_errors; /* counted on the active one */
  int32_t resync_in;
  int32_t waiting; /* callers */
  uint32_t fault;  /* the data replication fault is reported */
  uint32_t both_active;
  uint32_t recorder_paused;
  uint32_t rpc_stage;    /* 0: no request is served */
  uint32_t member_count; /* of the group; the first of them follow */
  struct {
    uint32_t node;
    uint32_t pid;
  } members[8];
  uint64_t counters[11]; /* in the order of the statistics in cluster_sync_ctl(1) */
  char version[24];
  char last_error[116]; /* what callers were told */
  char last_cause[116]; /* the first failure that this enclosure manager met in that exchange */
};

/* Asks for it. Answered at once, whatever the daemon is doing. `size` is sizeof *state; what an
 * older daemon does not send is zero. ECANCELED from one that does not know the question. */
int cluster_sync_get_state(const char* socket, int timeout_ms, struct cluster_sync_state* state,
                           size_t size);

/* The same in steps, for a caller that does something else meanwhile. A connection carries any
 * number of requests, one after the other. */
struct cluster_sync_connection;

int cluster_sync_open(const char* socket, int timeout_ms,
                      struct cluster_sync_connection** connection);

/* Closes it, and withdraws a put that was not answered. Null does nothing. */
void cluster_sync_close(struct cluster_sync_connection* connection);

/* The descriptor, for poll(2) alone: it becomes readable when the answer is there. */
int cluster_sync_fd(const struct cluster_sync_connection* connection);

/* Sends a request. EBUSY while another one's answer has not been received. Without `source`
 * send_update asks for a deletion, without both for an exchange. */
int cluster_sync_send_update(struct cluster_sync_connection* connection, const char* source,
                             const char* destination, int timeout_ms);
int cluster_sync_send_diag(struct cluster_sync_connection* connection, const char* command,
                           int timeout_ms);

/* A put: begin checks the destination, any number of writes append to the file, and send syncs it
 * and sends the request. After an error of write or send the put is withdrawn. */
int cluster_sync_put_begin(struct cluster_sync_connection* connection, const char* destination,
                           mode_t mode);
int cluster_sync_put_write(struct cluster_sync_connection* connection, const void* data,
                           size_t size);
int cluster_sync_put_send(struct cluster_sync_connection* connection, int timeout_ms);

/* Takes the answer. EAGAIN when it is not there in time: call again, or withdraw. ENOMSG when
 * nothing was asked. `status`, unless null, gets the daemon's number for a refusal, else 0. For a
 * diagnostic command `result` is written only when it is refused. */
int cluster_sync_receive(struct cluster_sync_connection* connection, int timeout_ms,
                         uint32_t* status, struct cluster_sync_result* result);

/* The state in steps. */
int cluster_sync_send_state(struct cluster_sync_connection* connection, int timeout_ms);
int cluster_sync_receive_state(struct cluster_sync_connection* connection, int timeout_ms,
                               struct cluster_sync_state* state, size_t size);

/* Gives up what was asked, or a put that was begun, and says what became of it: ETIMEDOUT when
 * nothing has been changed, EINPROGRESS when the daemon has it. An answer that is outstanding
 * stays so. */
int cluster_sync_withdraw(struct cluster_sync_connection* connection);

/* How many files of one tree are where. */
struct cluster_sync_tree {
  char name[16]; /* "active", "volatile", "own" (this one's, and its copy there), "copy" */
  uint32_t here; /* files on this enclosure manager */
  uint32_t there;
  uint32_t only_here;
  uint32_t only_there;
  uint32_t different; /* in content or mode */
};
#define CLUSTER_SYNC_TREES 4

/* Told of each file that differs: '<' only here, '>' only there, '!' on both but different. `path`
 * is relative to the tree and, like all texts, valid during the call. Anything but 0 ends the
 * report, and is what the caller of the comparison gets. */
typedef int (*cluster_sync_difference_fn)(void* argument, char sign, const char* tree,
                                          const char* path);

/* Compares the trees of both enclosure managers, by an exchange that changes no replicated file.
 * `trees` get the counts in the order of the names above; `on_difference` may be null. Both are
 * left alone when an error is returned, but for EPROTO, EIO and what the function said itself.
 * `result` as for an update. */
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

/* Why something failed, for a program to decide what to do. */
enum cluster_sync_reason_code {
  CLUSTER_SYNC_NO_REASON = 0,         /* it did not fail */
  CLUSTER_SYNC_NOT_ACTIVE = 1,        /* ask the other enclosure manager, the active one */
  CLUSTER_SYNC_BUSY = 2,              /* try again */
  CLUSTER_SYNC_NOT_REPLICATED = 3,    /* no file can be replicated under this name */
  CLUSTER_SYNC_OTHER_FILE_SYSTEM = 4, /* source and destination are on different ones */
  CLUSTER_SYNC_NO_SUCH_FILE = 5,
  CLUSTER_SYNC_ERROR_HERE = 6,  /* no room, or a failure of the medium or the system, here */
  CLUSTER_SYNC_ERROR_THERE = 7, /* the same on the other enclosure manager */
  CLUSTER_SYNC_TIMED_OUT = 8,
  CLUSTER_SYNC_PROTOCOL = 9,   /* the exchange was disturbed, or versions do not fit */
  CLUSTER_SYNC_NO_DAEMON = 10, /* none answers, or not this user */
  CLUSTER_SYNC_OTHER = 11
};

/* The reason for an error number of this library; `result` (null without one) is that of an
 * ECANCELED. Later versions may know more reasons: treat an unknown one as CLUSTER_SYNC_OTHER. */
enum cluster_sync_reason_code cluster_sync_reason(int error,
                                                  const struct cluster_sync_result* result);

/* Says what an error number of this library means. A constant text. */
const char* cluster_sync_strerror(int error);

#ifdef __cplusplus
}
#endif

#endif /* CLUSTER_SYNC_H_ */
