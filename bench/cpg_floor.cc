// The floor under an exchange: the same group messages with the same sizes and answers, and nothing
// else. One process answers, the other asks:
//   cpg_floor answer
//   cpg_floor ask ROUNDS < script
// Each line of the script is "COUNT REQUEST_SIZE ANSWER_SIZE" in bytes, headers included; answer
// size 0 waits for the own message to be delivered back. The asking one prints the seconds of every
// round and tells the answering one to end.

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

#include <vector>

namespace {

constexpr uint32_t kRequest = 1;
constexpr uint32_t kAnswer = 2;
constexpr uint32_t kEnd = 3;
constexpr size_t kHeaderSize = 148;  // sent as a piece of its own, as the daemon does

struct Head {
  uint32_t kind;
  uint32_t answer_size;
};

cpg_handle_t g_handle;
size_t g_members = 0;
uint32_t g_answers = 0;
uint32_t g_own = 0;  // own requests delivered back
uint32_t g_nodeid = 0;
uint32_t g_wanted_answer = 0;  // size of an answer to send
bool g_end = false;

[[noreturn]] void fail(const char* what, int rc) {
  fprintf(stderr, "cpg_floor: %s failed: %d\n", what, rc);
  exit(1);
}

void send(uint32_t kind, size_t size, uint32_t answer_size) {
  static std::vector<char> message;
  message.assign(size, 'x');
  const Head head = {kind, answer_size};
  memcpy(message.data(), &head, sizeof(head));
  const struct iovec pieces[2] = {{message.data(), kHeaderSize},
                                  {message.data() + kHeaderSize, size - kHeaderSize}};
  cs_error_t rc;
  while ((rc = cpg_mcast_joined(g_handle, CPG_TYPE_AGREED, pieces, 2)) == CS_ERR_TRY_AGAIN) {
    usleep(10000);
  }
  if (rc != CS_OK) fail("cpg_mcast_joined", rc);
}

void on_message(cpg_handle_t, const struct cpg_name*, uint32_t nodeid, uint32_t, void* message,
                size_t) {
  Head head;
  memcpy(&head, message, sizeof(head));
  if (head.kind == kRequest && nodeid == g_nodeid) {
    ++g_own;
  } else if (head.kind == kRequest) {
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
      send(kAnswer, size, 0);
    }
  }
}

struct Step {
  uint32_t count;
  size_t request_size;
  uint32_t answer_size;
};

std::vector<Step> read_script() {
  std::vector<Step> script;
  Step step;
  while (scanf("%u %zu %u", &step.count, &step.request_size, &step.answer_size) == 3) {
    if (step.request_size < kHeaderSize ||
        (step.answer_size != 0 && step.answer_size < kHeaderSize)) {
      fail("a size below the header's", 0);
    }
    script.push_back(step);
  }
  return script;
}

void run_step(int fd, const Step& step) {
  for (uint32_t i = 0; i < step.count; ++i) {
    const uint32_t& seen = step.answer_size != 0 ? g_answers : g_own;
    const uint32_t before = seen;
    send(kRequest, step.request_size, step.answer_size);
    while (seen == before)  // cppcheck-suppress knownConditionTrueFalse; a reference
      dispatch(fd);
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
    const double begin = now();
    for (const Step& step : script)
      run_step(fd, step);
    printf("%.6f\n", now() - begin);
  }
  send(kEnd, kHeaderSize, 0);
  while (!g_end)
    dispatch(fd);
}

// Runs on a thread of its own: cpg_dispatch(3) keeps a buffer of 1 MiB on the stack.
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
  const bool asks = argc == 3 && strcmp(argv[1], "ask") == 0 && atoi(argv[2]) > 0;
  if (!answers && !asks) {
    fprintf(stderr, "usage: cpg_floor answer | ask ROUNDS < script\n");
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
