#ifndef FRAME_CHECK_H_
#define FRAME_CHECK_H_

// Guards for what the design does not expect. A failed check writes one line of level 3 to the
// platform log and aborts. The line quotes the source text of the checked expression, which
// monitors match: an odd expression or name that is marked "log text" is not to be corrected.

[[noreturn]] void check_failed(const char* file, int line, const char* function,
                               const char* expression, int value);
[[noreturn]] void check_failed_null(const char* file, int line, const char* function,
                                    const char* expression);
// Aborts on EBADF; otherwise logs and returns with errno as it was.
void check_failed_close(const char* file, int line, const char* function, const char* expression,
                        int value);

// From now on a failed operator new ends the process with such a line, too.
void install_out_of_memory_check();

// A call that answers 0 or an error code.
#define CHECK_ZERO(expression)                                                                    \
  do {                                                                                            \
    const int _check_value = (expression);                                                        \
    if (_check_value != 0) check_failed(__FILE__, __LINE__, __func__, #expression, _check_value); \
  } while (0)

// A call that answers a negative value on failure.
#define CHECK_NOT_NEGATIVE(expression)                                                           \
  do {                                                                                           \
    const int _check_value = (expression);                                                       \
    if (_check_value < 0) check_failed(__FILE__, __LINE__, __func__, #expression, _check_value); \
  } while (0)

// A condition that holds.
#define CHECK_TRUE(condition)                                                    \
  do {                                                                           \
    if (!(condition)) check_failed(__FILE__, __LINE__, __func__, #condition, 0); \
  } while (0)

// A pointer that is not null.
#define CHECK_NOT_NULL(pointer)                                                          \
  do {                                                                                   \
    if ((pointer) == nullptr) check_failed_null(__FILE__, __LINE__, __func__, #pointer); \
  } while (0)

// A close: only a descriptor that was never open is a bug worth the process. The second form names
// the call by a text of its own.
#define CHECK_CLOSE(expression) CHECK_CLOSE_AS(#expression, expression)
#define CHECK_CLOSE_AS(text, expression)                                                        \
  do {                                                                                          \
    const int _check_value = (expression);                                                      \
    if (_check_value < 0) check_failed_close(__FILE__, __LINE__, __func__, text, _check_value); \
  } while (0)

#endif  // FRAME_CHECK_H_
