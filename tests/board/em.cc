// A board's own library for the role and the number, written only against platform/em.h.

#include "platform/em.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "platform/util.h"

namespace {

NumberSource own_number(std::string* text) {
  FILE* file = fopen("/var/run/em/number", "re");
  if (file == nullptr) return kNumberMissing;
  char bytes[64];
  const size_t size = fread(bytes, 1, sizeof bytes, file);
  fclose(file);
  text->assign(bytes, size);
  while (!text->empty() && strchr(" \t\n\v\f\r", text->back()))
    text->pop_back();
  while (!text->empty() && strchr(" \t\n\v\f\r", text->front()))
    text->erase(0, 1);
  return *text == "1" || *text == "2" ? kNumberRead : kNumberInvalid;
}

}  // namespace

bool this_em_is_active() {
  return access("/var/run/em/active", F_OK) == 0;
}

NumberSource read_em_number(uint32_t* number) {
  std::string text;
  const NumberSource source = own_number(&text);
  *number = text == "2" ? 2 : 1;
  return source;
}

uint32_t get_my_mate_em_num() {
  uint32_t number;
  read_em_number(&number);
  return 3 - number;
}

void check_em_number() {
  std::string text;
  if (own_number(&text) == kNumberInvalid)
    DbgOutput(__FILE__, __LINE__, __func__, 3, "no number: '%s'", text.c_str());
}

int use_replicated_data(uint32_t id, int) {
  if (access("/etc/em/use_replicated_data", X_OK) != 0) return 0;
  const std::string text = std::to_string(id);
  const pid_t child = fork();
  if (child == 0) {
    if (fork() != 0) _exit(0);
    setsid();
    execl("/etc/em/use_replicated_data", "use_replicated_data", text.c_str(), nullptr);
    _exit(127);
  }
  return child > 0 && waitpid(child, nullptr, 0) == child ? 0 : -1;
}
