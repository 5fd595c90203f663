#ifndef TESTS_UNIT_CALL_HOOK_H_
#define TESTS_UNIT_CALL_HOOK_H_

#include <functional>
#include <string>

// Runs before every call of the daemon that gives the kernel a name to look up, and before a
// directory is closed; `name` is empty then. A result other than 0 is the errno that the call fails
// with. Takes the place of a race: what another process may do at just that moment.
extern std::function<int(const std::string& name)> g_before_call;

#endif  // TESTS_UNIT_CALL_HOOK_H_
