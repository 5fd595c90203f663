#include "platform/em.h"

#include <errno.h>
#include <fcntl.h>
#include <spawn.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "platform/descriptor.h"
#include "platform/util.h"

namespace {

constexpr char kNumberFile[] = "/var/run/em/number";
constexpr char kUseReplicatedData[] = "/etc/em/use_replicated_data";

// Reads the first bytes of the number file without leading and trailing blanks. False if there is
// no file.
bool read_number_file(std::string* text) {
  const Descriptor file(open(kNumberFile, O_RDONLY | O_CLOEXEC));
  if (!file.is_open()) return errno != ENOENT;
  char bytes[64];
  const ssize_t size = read(file.get(), bytes, sizeof bytes);
  text->assign(bytes, size > 0 ? static_cast<size_t>(size) : 0);
  constexpr char blanks[] = " \t\n\v\f\r";
  text->erase(text->find_last_not_of(blanks) + 1);
  text->erase(0, text->find_first_not_of(blanks));
  return true;
}

bool is_executable_file(const char* path) {
  struct stat info;
  return stat(path, &info) == 0 && S_ISREG(info.st_mode) && access(path, X_OK) == 0;
}

// Starts the program as a grandchild, so that this process need not wait for its end. The child
// only starts it and returns the error number as its exit status. Between fork and _exit the child
// must make no other call, because other threads may hold any lock.
int start_detached(const char* const argv[], const posix_spawn_file_actions_t* actions) {
  const pid_t child = fork();
  if (child < 0) return errno;
  if (child == 0) {
    setsid();
    pid_t pid;
    _exit(posix_spawn(&pid, argv[0], actions, nullptr, const_cast<char* const*>(argv), environ));
  }
  int status = 0;
  while (waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) return errno;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : ECHILD;
}

}  // namespace

bool this_em_is_active() {
  return access("/var/run/em/active", F_OK) == 0;
}

uint32_t get_my_mate_em_num() {
  std::string text;
  return read_number_file(&text) && text == "2" ? 1 : 2;
}

NumberSource read_em_number(uint32_t* number) {
  std::string text;
  const bool there = read_number_file(&text);
  *number = text == "2" ? 2 : 1;
  if (!there) return kNumberMissing;
  return text == "1" || text == "2" ? kNumberRead : kNumberInvalid;
}

void check_em_number() {
  std::string text;
  if (!read_number_file(&text) || text == "1" || text == "2") return;
  DbgOutput(__FILE__, __LINE__, __func__, 3, "'%s' in %s is neither 1 nor 2: this EM counts as 1",
            text.c_str(), kNumberFile);
}

int use_replicated_data(uint32_t id, int argument) {
  (void)argument;
  if (!is_executable_file(kUseReplicatedData)) return 0;
  char id_text[16];
  snprintf(id_text, sizeof id_text, "%u", id);
  const char* const argv[] = {kUseReplicatedData, id_text, nullptr};

  posix_spawn_file_actions_t actions;
  int rc = posix_spawn_file_actions_init(&actions);
  if (rc == 0) {
    rc = posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
    if (rc == 0) rc = start_detached(argv, &actions);
    posix_spawn_file_actions_destroy(&actions);
  }
  errno = rc;
  return rc == 0 ? 0 : -1;
}
