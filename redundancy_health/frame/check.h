#ifndef FRAME_CHECK_H_
#define FRAME_CHECK_H_

// Checks of conditions that the design does not expect to fail. A failed check writes one line of
// level 3 to the platform log and aborts. The line quotes the source text of the checked
// expression, and monitors match it. So never correct an odd expression or name that is marked "log
// text".

[[noreturn]] void check_failed(const char* file, int line, const char* function,
                               const char* expression, int value);
[[noreturn]] void check_failed_null(const char* file, int line, const char* function,
                                    const char* expression);
// Aborts on EBADF. Otherwise logs and returns; errno is unchanged.
void check_failed_close(const char* file, int line, const char* function, const char* expression,
                        int value);

// Makes a failed operator new end the process with such a line.
void install_out_of_memory_check();

// For a call that returns 0 or an error code.
#define CHECK_ZERO(expression)                                                                    \
  do {                                                                                            \
    const int _check_value = (expression);                                                        \
    if (_check_value != 0) check_failed(__FILE__, __LINE__, __func__, #expression, _check_value); \
  } while (0)

// For a call that returns a negative value on failure.
#define CHECK_NOT_NEGATIVE(expression)                                                           \
  do {                                                                                           \
    const int _check_value = (expression);                                                       \
    if (_check_value < 0) check_failed(__FILE__, __LINE__, __func__, #expression, _check_value); \
  } while (0)

// For a condition that must hold.
#define CHECK_TRUE(condition)                                                    \
  do {                                                                           \
    if (!(condition)) check_failed(__FILE__, __LINE__, __func__, #condition, 0); \
  } while (0)

// For a pointer that must not be null.
#define CHECK_NOT_NULL(pointer)                                                          \
  do {                                                                                   \
    if ((pointer) == nullptr) check_failed_null(__FILE__, __LINE__, __func__, #pointer); \
  } while (0)

// For a close. Only EBADF aborts, because only that is a bug. The second form logs `text` instead
// of the expression.
#define CHECK_CLOSE(expression) CHECK_CLOSE_AS(#expression, expression)
#define CHECK_CLOSE_AS(text, expression)                                                        \
  do {                                                                                          \
    const int _check_value = (expression);                                                      \
    if (_check_value < 0) check_failed_close(__FILE__, __LINE__, __func__, text, _check_value); \
  } while (0)

#endif  // FRAME_CHECK_H_
