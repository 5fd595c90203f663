#ifndef RPC_DIAGNOSTICS_H_
#define RPC_DIAGNOSTICS_H_

#include <stdint.h>

// Status of a response on the command socket.
constexpr uint32_t kHandled = 0;
constexpr uint32_t kInvalidMessage = 6;

// Runs one diagnostic command, "word" or "word=argument", up to the first NUL or the end. Returns
// kHandled if the command is known, whatever its result, otherwise kInvalidMessage. "sync" blocks
// until its exchange ends. On a thread of the command server.
uint32_t run_diagnostic(const uint8_t* message, uint32_t size);

#endif  // RPC_DIAGNOSTICS_H_
