#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tools/commands.h"
#include "tools/output.h"

namespace {

constexpr char kActiveMark[] = "/var/run/em/active";

bool make_mark() {
  mkdir("/var/run/em", 0755);  // one that exists already is as good
  const int fd = open(kActiveMark, O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  return fd >= 0 && close(fd) == 0;
}

bool remove_mark() {
  return unlink(kActiveMark) == 0 || errno == ENOENT;
}

}  // namespace

int set_role(const Options& options, const Words& words) {
  const bool active = words[0] == "active";
  if (!active && words[0] != "standby") return usage_error("no such role: " + words[0]);
  if (!(active ? make_mark() : remove_mark()))
    return report_error(options, std::string(kActiveMark) + ": " + strerror(errno), kFailed);
  printf(options.json ? "{\"role\":\"%s\"}\n" : "this EM is %s\n", words[0].c_str());
  return kDone;
}
