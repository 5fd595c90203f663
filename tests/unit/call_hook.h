#ifndef TESTS_UNIT_CALL_HOOK_H_
#define TESTS_UNIT_CALL_HOOK_H_

#include <functional>
#include <string>

// Runs before every call of the daemon that passes a name to the kernel, and before a directory is
// closed (then `name` is empty). A result other than 0 is the errno with which the call fails.
// Simulates a race: what another process may do at exactly that moment.
extern std::function<int(const std::string& name)> g_before_call;

#endif  // TESTS_UNIT_CALL_HOOK_H_
