#include "platform/daemon.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "platform/util.h"

namespace {

// The child's end of the socket pair on which the parent waits; -1 without a waiting parent.
int g_complete_fd = -1;

// Opens and locks the pid file. Returns the descriptor, or -1 with errno set; EWOULDBLOCK if
// another process holds the lock. The lock, not the content, marks a running daemon: after a crash
// the lock is released, even if another process has the same pid. Only the owner may open the file,
// because any user who can open it could hold the lock. So the mode of an existing file is
// corrected.
int lock_pid_file(const char* path) {
  for (;;) {
    const int fd = open(path, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) return -1;
    struct stat locked;
    struct stat named;
    if (flock(fd, LOCK_EX | LOCK_NB) != 0 || fchmod(fd, 0600) != 0 || fstat(fd, &locked) != 0) {
      const int error = errno;
      close(fd);
      errno = error;
      return -1;
    }
    // If not, the previous holder has removed this file.
    if (stat(path, &named) == 0 && named.st_ino == locked.st_ino && named.st_dev == locked.st_dev)
      return fd;
    close(fd);
  }
}

bool write_pid(int fd) {
  const std::string text = std::to_string(getpid()) + "\n";
  return ftruncate(fd, 0) == 0 &&
         write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

// Undoes what the caller has blocked or ignored (nohup(1), a background job of a shell).
void reset_signals() {
  for (int number = 1; number < NSIG; ++number)
    signal(number, SIG_DFL);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
}

// The caller may have closed standard streams. Descriptors opened later must not get their numbers.
void fill_standard_streams() {
  int fd;
  do {
    fd = open("/dev/null", O_RDWR);
  } while (fd >= 0 && fd <= STDERR_FILENO);
  if (fd >= 0) close(fd);
}

// Leaves the working directory, the caller's standard streams and its umask.
bool leave_surroundings() {
  const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
  if (null < 0) return false;
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
    dup2(null, stream);
  close(null);
  umask(0022);
  return chdir("/") == 0;
}

// Forks twice, so that the daemon is not a session leader and no terminal that it opens becomes its
// own. Returns 0 in the daemon. In the caller, returns the id of the intermediate process, which
// must be waited for; -1 with errno set on failure.
pid_t fork_detached() {
  const pid_t between = fork();
  if (between != 0) return between;
  setsid();
  const pid_t pid = fork();
  if (pid != 0) _exit(pid < 0 ? 1 : 0);
  return 0;
}

int run_in_child(const std::string& pid_path, int pid_fd, int (*daemon_main)(int, char**), int argc,
                 char** argv) {
  reset_signals();
  if (!leave_surroundings() || !write_pid(pid_fd)) {
    DbgOutput(__FILE__, __LINE__, __func__, 3, "Could not detach as %s: %s", pid_path.c_str(),
              strerror(errno));
    unlink(pid_path.c_str());
    return 1;
  }
  const int result = daemon_main(argc, argv);
  unlink(pid_path.c_str());  // while it is still locked
  if (g_complete_fd >= 0) close(g_complete_fd);
  return result;
}

// Returns 0 when the child reports that it is complete. Needs no time limit, because the connection
// closes if the child dies.
int wait_for_child(const char* name, int complete_fd) {
  char byte;
  ssize_t size;
  do {
    size = read(complete_fd, &byte, 1);
  } while (size < 0 && errno == EINTR);
  if (size == 1) return 0;
  fprintf(stderr, "%s: ended before its start-up was complete, see the system log\n", name);
  return 1;
}

// Forks with the lock on `pid_fd` held. Returns in both processes.
int fork_and_run(const char* name, const std::string& pid_path, int pid_fd,
                 int (*daemon_main)(int, char**), int argc, char** argv) {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
    fprintf(stderr, "%s: no connection to the new process: %s\n", name, strerror(errno));
    return 1;
  }
  const pid_t pid = fork_detached();
  if (pid == 0) {
    close(ends[0]);
    g_complete_fd = ends[1];
    return run_in_child(pid_path, pid_fd, daemon_main, argc, argv);
  }
  const int error = errno;
  close(ends[1]);
  int result = 1;
  if (pid < 0) {
    fprintf(stderr, "%s: could not start the new process: %s\n", name, strerror(error));
  } else {
    result = wait_for_child(name, ends[0]);
    waitpid(pid, nullptr, 0);
  }
  close(ends[0]);
  return result;
}

}  // namespace

int daemon_create(const char* name, int (*daemon_main)(int, char**), int argc, char** argv) {
  fill_standard_streams();
  const std::string pid_path = std::string("/var/run/") + name + ".pid";
  // Locked before the fork, so that a failure can be reported to the caller. The new process
  // inherits the lock with the open file.
  const int pid_fd = lock_pid_file(pid_path.c_str());
  if (pid_fd < 0) {
    const char* reason = errno == EWOULDBLOCK ? "another instance is running" : strerror(errno);
    fprintf(stderr, "%s: %s: %s\n", name, pid_path.c_str(), reason);
    return 1;
  }
  const int result = fork_and_run(name, pid_path, pid_fd, daemon_main, argc, argv);
  close(pid_fd);
  return result;
}

void daemon_signal_daemonize_complete() {
  if (g_complete_fd < 0) return;
  // If the parent has exited, this does nothing.
  send(g_complete_fd, "", 1, MSG_NOSIGNAL);
  close(g_complete_fd);
  g_complete_fd = -1;
}
