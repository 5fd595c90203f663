// The floor of an exchange: the same group messages with the same sizes and answers and nothing
// else, or with the minimum of file work for each. One process answers, the other asks:
//   cpg_floor answer
//   cpg_floor ask ROUNDS [--work] < script
// Each line of the script is "COUNT REQUEST_SIZE ANSWER_SIZE [WORK]" in bytes, including headers.
// Answer size 0 waits for the own message to be delivered. With --work, WORK is done:
//   scan                             the answering side lists its trees, then the asking side
//   push FROM TO OFFSET SIZE WHOLE   the bytes are sent and written to TO, a file of WHOLE bytes
//   publish FROM TO SIZE             a new file FROM is renamed to TO before the message
//   report                           the outcome is reported after the message
// The asking process prints the seconds of every round and stops the answering one.

#include <corosync/cpg.h>
#include <poll.h>
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "bench/bare_work.h"

namespace {

constexpr uint32_t kRequest = 1;
constexpr uint32_t kAnswer = 2;
constexpr uint32_t kEnd = 3;
constexpr size_t kHeaderSize = 148;  // sent as a separate piece, like the daemon

enum Work : uint32_t { kNone, kScan, kPush, kPublish, kReport };
const char* const kWorkNames[] = {"", "scan", "push", "publish", "report"};

struct Step {
  uint32_t count;
  uint32_t request_size;
  uint32_t answer_size;
  uint32_t work;  // Work
  std::string from;
  std::string to;
  uint32_t offset;
  uint32_t size;
  uint32_t file_size;
};

// The start of a message. In a request with work, the path follows, and the bytes are at the end.
struct Head {
  uint32_t kind;
  uint32_t answer_size;
  uint32_t work;
  uint32_t offset;
  uint32_t size;
  uint32_t file_size;
};

cpg_handle_t g_handle;
size_t g_members = 0;
uint32_t g_answers = 0;
uint32_t g_own = 0;  // own requests that were delivered
uint32_t g_nodeid = 0;
uint32_t g_wanted_answer = 0;  // size of an answer to send
bool g_end = false;
bool g_works = false;  // --work

[[noreturn]] void fail(const char* what, int rc) {
  fprintf(stderr, "cpg_floor: %s failed: %d\n", what, rc);
  exit(1);
}

// A buffer of `size` bytes that begins with `head`. Valid until the next call.
std::vector<char>& make_message(const Head& head, size_t size) {
  static std::vector<char> message;
  message.resize(size);
  memcpy(message.data(), &head, sizeof(head));
  return message;
}

void send(std::vector<char>& message) {
  const struct iovec pieces[2] = {{message.data(), kHeaderSize},
                                  {message.data() + kHeaderSize, message.size() - kHeaderSize}};
  cs_error_t rc;
  while ((rc = cpg_mcast_joined(g_handle, CPG_TYPE_AGREED, pieces, 2)) == CS_ERR_TRY_AGAIN) {
    usleep(10000);
  }
  if (rc != CS_OK) fail("cpg_mcast_joined", rc);
}

void send_request(const Step& step) {
  const uint32_t work = g_works ? step.work : kNone;
  std::vector<char>& message =
      make_message({kRequest, step.answer_size, work, step.offset, step.size, step.file_size},
                   step.request_size);
  if (work == kPush) {
    memcpy(message.data() + sizeof(Head), step.to.c_str(), step.to.size() + 1);
    read_part(step.from.c_str(), step.offset, &*message.end() - step.size, step.size);
  }
  send(message);
}

// Work of the answering side.
void serve(const Head& head, const char* message, size_t size) {
  const char* path = message + sizeof(head);
  const char* data = message + size - head.size;
  if (head.work == kScan) scan_trees();
  if (head.work == kPush && head.size == head.file_size) write_whole(path, data, head.size);
  if (head.work == kPush && head.size != head.file_size) {
    write_part(path, head.file_size, head.offset, data, head.size);
  }
}

void on_message(cpg_handle_t, const struct cpg_name*, uint32_t nodeid, uint32_t, void* message,
                size_t size) {
  Head head;
  memcpy(&head, message, sizeof(head));
  if (head.kind == kRequest && nodeid == g_nodeid) {
    ++g_own;
  } else if (head.kind == kRequest) {
    serve(head, static_cast<const char*>(message), size);
    g_wanted_answer = head.answer_size;
  }
  if (head.kind == kAnswer) ++g_answers;
  if (head.kind == kEnd) g_end = true;
}

void on_config(cpg_handle_t, const struct cpg_name*, const struct cpg_address*, size_t members,
               const struct cpg_address*, size_t, const struct cpg_address*, size_t) {
  g_members = members;
}

void dispatch(int fd) {
  struct pollfd ready = {fd, POLLIN, 0};
  if (poll(&ready, 1, 30000) <= 0) fail("waiting for a message", 0);
  const cs_error_t rc = cpg_dispatch(g_handle, CS_DISPATCH_ALL);
  if (rc != CS_OK) fail("cpg_dispatch", rc);
}

void answer(int fd) {
  while (!g_end) {
    dispatch(fd);
    if (g_wanted_answer != 0) {
      const uint32_t size = g_wanted_answer;
      g_wanted_answer = 0;
      send(make_message({kAnswer, 0, kNone, 0, 0, 0}, size));
    }
  }
}

Step read_step(const std::string& line) {
  Step step = {};
  std::istringstream words(line);
  std::string work;
  words >> step.count >> step.request_size >> step.answer_size;
  if (words.fail()) fail(line.c_str(), 0);
  words >> work;
  while (kWorkNames[step.work] != work)
    if (++step.work > kReport) fail(line.c_str(), 0);
  if (step.work == kPush) {
    words >> step.from >> step.to >> step.offset >> step.size >> step.file_size;
  } else if (step.work == kPublish) {
    words >> step.from >> step.to >> step.size;
  }
  const size_t room = std::max(kHeaderSize, sizeof(Head) + step.to.size() + 1) +
                      (step.work == kPush ? step.size : 0);
  if (step.request_size < room || (step.answer_size != 0 && step.answer_size < kHeaderSize)) {
    fail("a size below what is in the message", 0);
  }
  return step;
}

std::vector<Step> read_script() {
  std::vector<Step> script;
  for (std::string line; std::getline(std::cin, line);)
    script.push_back(read_step(line));
  return script;
}

// Makes a new file for the round to publish.
void prepare(const Step& step, int round) {
  const std::vector<char> content(step.size, static_cast<char>('a' + round % 26));
  FILE* file = fopen(step.from.c_str(), "w");
  if (file == nullptr || fwrite(content.data(), 1, step.size, file) != step.size) {
    fail("preparing a file", 0);
  }
  fclose(file);
}

void run_step(int fd, const Step& step) {
  for (uint32_t i = 0; i < step.count; ++i) {
    const uint32_t& seen = step.answer_size != 0 ? g_answers : g_own;
    const uint32_t before = seen;
    if (g_works && step.work == kPublish) publish(step.from.c_str(), step.to.c_str());
    send_request(step);
    while (seen == before)  // cppcheck-suppress knownConditionTrueFalse; a reference
      dispatch(fd);
    if (g_works && step.work == kScan) scan_trees();
    if (g_works && step.work == kReport) report_outcome();
  }
}

double now() {
  struct timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

void ask(int fd, int rounds) {
  const std::vector<Step> script = read_script();
  while (g_members < 2)
    dispatch(fd);
  for (int round = 0; round < rounds; ++round) {
    for (const Step& step : script)
      if (g_works && step.work == kPublish) prepare(step, round);
    const double begin = now();
    for (const Step& step : script)
      run_step(fd, step);
    printf("%.6f\n", now() - begin);
  }
  send(make_message({kEnd, 0, kNone, 0, 0, 0}, kHeaderSize));
  while (!g_end)
    dispatch(fd);
}

// On a separate thread: cpg_dispatch(3) keeps a buffer of 1 MiB on the stack.
void run(int argc, char** argv) {
  cpg_model_v1_data_t model = {};
  model.model = CPG_MODEL_V1;
  model.cpg_deliver_fn = on_message;
  model.cpg_confchg_fn = on_config;
  cs_error_t rc = cpg_model_initialize(&g_handle, CPG_MODEL_V1,
                                       reinterpret_cast<cpg_model_data_t*>(&model), nullptr);
  if (rc != CS_OK) fail("cpg_model_initialize", rc);
  struct cpg_name group = {};
  strcpy(group.value, "cpg-floor");
  group.length = static_cast<uint32_t>(strlen(group.value));
  rc = cpg_join(g_handle, &group);
  if (rc != CS_OK) fail("cpg_join", rc);
  int fd;
  cpg_fd_get(g_handle, &fd);
  cpg_local_get(g_handle, &g_nodeid);
  if (argc == 2) {
    answer(fd);
  } else {
    ask(fd, atoi(argv[2]));
  }
  cpg_finalize(g_handle);
}

struct Arguments {
  int argc;
  char** argv;
};

void* run_thread(void* argument) {
  const auto* arguments = static_cast<Arguments*>(argument);
  run(arguments->argc, arguments->argv);
  return nullptr;
}

}  // namespace

int main(int argc, char** argv) {
  const bool answers = argc == 2 && strcmp(argv[1], "answer") == 0;
  g_works = argc == 4 && strcmp(argv[3], "--work") == 0;
  const bool asks = (argc == 3 || g_works) && strcmp(argv[1], "ask") == 0 && atoi(argv[2]) > 0;
  if (!answers && !asks) {
    fprintf(stderr, "usage: cpg_floor answer | ask ROUNDS [--work] < script\n");
    return 2;
  }
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstacksize(&attributes, 4 << 20);
  pthread_t thread;
  Arguments arguments = {argc, argv};
  if (pthread_create(&thread, &attributes, run_thread, &arguments) != 0) return 1;
  pthread_join(thread, nullptr);
  return 0;
}
