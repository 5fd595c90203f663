#ifndef TESTS_UNIT_FAILING_SYSCALL_H_
#define TESTS_UNIT_FAILING_SYSCALL_H_

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

constexpr uint32_t kAnyArgument = 0;

// From here on the system call `number` fails with `error` in this process, when the low half of
// its third argument is `third_argument`. It cannot be undone: for the child of a death test.
// Returns false when the kernel does not let it.
inline bool fail_system_call(long number, uint32_t third_argument, int error) {
  constexpr uint32_t kThirdArgument = offsetof(seccomp_data, args) + 2 * sizeof(uint64_t);
  const uint8_t compared = third_argument == kAnyArgument ? BPF_JGE : BPF_JEQ;
  sock_filter program[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<uint32_t>(number), 0, 3),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kThirdArgument),
      BPF_JUMP(BPF_JMP | compared | BPF_K, third_argument, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<uint32_t>(error)),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  const sock_fprog filter = {sizeof(program) / sizeof(program[0]), program};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

#endif  // TESTS_UNIT_FAILING_SYSCALL_H_
