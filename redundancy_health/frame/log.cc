#include "redundancy_health/frame/log.h"

#include <fcntl.h>
#include <stdarg.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <charconv>
#include <string>
#include <string_view>

#include "platform/descriptor.h"
#include "platform/escape.h"
#include "redundancy_health/frame/checked_lock.h"
#include "redundancy_health/frame/diag_params.h"
#include "redundancy_health/frame/flight_recorder.h"

namespace {

constexpr char kLogFile[] = "/tmp/cluster_sync_daemon.log";
constexpr char kOldLogFile[] = "/tmp/cluster_sync_daemon.log.0";

uint32_t read_max_log_size() {
  HOLD_MUTEX(g_diag_params.mutex);
  return static_cast<uint32_t>(g_diag_params.max_log_size);
}

// What happens to a line in the private log file.
enum class LogFile {
  kReady,
  kSkipped,  // the path is not the daemon's own file: only the flight recorder gets the line
  kFailed,   // the line is lost
};

// In /tmp any user can create a file, a link or a FIFO.
bool is_own_file(const struct stat& status) {
  return S_ISREG(status.st_mode) && status.st_uid == geteuid() && status.st_nlink == 1;
}

LogFile make_room_in_log_file(uint32_t max_log_size) {
  struct stat status;
  if (lstat(kLogFile, &status) != 0) return errno == ENOENT ? LogFile::kReady : LogFile::kFailed;
  if (!is_own_file(status)) return LogFile::kSkipped;
  if (static_cast<uint64_t>(status.st_size) <= max_log_size) return LogFile::kReady;
  if (rename(kLogFile, kOldLogFile) == 0) return LogFile::kReady;
  return errno == EISDIR ? LogFile::kSkipped : LogFile::kFailed;
}

// Creates the file with mode 0600: the log has names of files that only root may list.
void append_to_log_file(const char* text) {
  Descriptor fd(
      open(kLogFile, O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600));
  struct stat status;
  if (!fd.is_open() || fstat(fd.get(), &status) != 0 || !is_own_file(status)) return;
  if ((status.st_mode & 077) != 0 && fchmod(fd.get(), 0600) != 0) return;
  FILE* f = fdopen(fd.get(), "a");
  if (f == nullptr) return;
  fd.release();
  fprintf(f, "%s\n", text);
  CHECK_CLOSE(fclose(f));
}

// The part of a prefix that all lines of a thread have in common during one second.
struct Stamp {
  time_t second;
  size_t length;
  char text[100];
};

const Stamp& current_stamp() {
  static thread_local Stamp stamp = {-1, 0, {}};
  const time_t now = time(nullptr);
  if (now != stamp.second) {
    char thread_name[50];
    GetThreadName(thread_name, sizeof(thread_name));
    const int r = snprintf(stamp.text, sizeof(stamp.text), "%10lld (%5d-%s) ",
                           static_cast<long long>(now), getpid(), thread_name);
    CHECK_TRUE(r >= 0);
    stamp.length = static_cast<size_t>(r);
    stamp.second = now;
  }
  return stamp;
}

// A log line. Prefix and message are formatted in place, on the stack unless they are long, because
// several lines are written for each replicated file.
class Line {
 public:
  Line(const char* function, int line) {
    const Stamp& stamp = current_stamp();
    char* end = static_cast<char*>(mempcpy(space_, stamp.text, stamp.length));
    end = static_cast<char*>(mempcpy(end, function, strnlen(function, kNameSize)));
    *end++ = ':';
    end = std::to_chars(end, end + 12, line).ptr;
    end = stpcpy(end, ": ");
    length_ = prefix_length_ = static_cast<size_t>(end - space_);
  }
  Line(const Line&) = delete;
  Line& operator=(const Line&) = delete;
  ~Line() {
    if (text_ != space_) free(text_);
  }
  __attribute__((format(printf, 2, 0))) void add_v(const char* format, va_list args) {
    va_list again;
    va_copy(again, args);
    const int r = vsnprintf(text_ + length_, sizeof(space_) - length_, format, args);
    CHECK_TRUE(r >= 0);
    const size_t length = length_ + static_cast<size_t>(r);
    if (length >= sizeof(space_)) {
      text_ = static_cast<char*>(malloc(length + 1));
      CHECK_NOT_NULL(text_);
      memcpy(text_, space_, length_);
      vsnprintf(text_ + length_, length + 1 - length_, format, again);
    }
    va_end(again);
    length_ = length;
  }
  // Without this, a newline in a file name would start a new line in the log file.
  void escape() {
    const std::string_view made(message(), length_ - prefix_length_);
    if (!may_need_escapes(made)) return;
    const std::string escaped = std::string(text_, prefix_length_) + escape_control_bytes(made);
    if (text_ != space_) free(text_);
    text_ = strdup(escaped.c_str());
    CHECK_NOT_NULL(text_);
    length_ = escaped.size();
  }
  const char* message() const {
    return text_ + prefix_length_;
  }
  // Writes the line to the private log file and the flight recorder.
  void keep(int level, int dump) const {
    const uint32_t max_log_size = read_max_log_size();
    if (max_log_size != 0) {
      const LogFile log_file = make_room_in_log_file(max_log_size);
      if (log_file == LogFile::kFailed) return;
      if (log_file == LogFile::kReady) append_to_log_file(text_);
    }
    record_line(level, dump, text_, length_);
  }

 private:
  static constexpr size_t kNameSize = 200;  // longer than any function name; the rest is cut
  char space_[512];
  char* text_ = space_;
  size_t length_ = 0;
  size_t prefix_length_ = 0;
};

// `file` is null for a line that does not go to the platform log.
__attribute__((format(printf, 6, 0))) void write_line(const char* file, int line,
                                                      const char* function, int level, int dump,
                                                      const char* format, va_list args) {
  const int saved_errno = errno;
  Line text(function, line);
  text.add_v(format, args);
  text.escape();
  if (file != nullptr) DbgOutput(file, line, function, level, "%s", text.message());
  text.keep(level, dump);
  errno = saved_errno;
}

}  // namespace

void log_line(const char* file, int line, const char* function, int level, int dump,
              const char* format, ...) {
  va_list args;
  va_start(args, format);
  write_line(file, line, function, level, dump, format, args);
  va_end(args);
}

void private_log(int level, const char* function, int line, int dump, const char* format, ...) {
  va_list args;
  va_start(args, format);
  write_line(nullptr, line, function, level, dump, format, args);
  va_end(args);
}

void on_severe_error() {
  LOG_PLATFORM_ONLY(3, "EXCEPTION: Exiting daemon due to unrecoverable error");
  abort();
}

int32_t get_uptime() {
  // The uptime of sysinfo(2), rounded up, but faster: sysinfo also counts memory, and this is
  // called for every message.
  struct timespec uptime;
  if (clock_gettime(CLOCK_BOOTTIME, &uptime) != 0) {
    LOG(3, "Call to sysinfo() failed: %s", strerror(errno));
    return -1;
  }
  return static_cast<int32_t>(uptime.tv_sec + (uptime.tv_nsec != 0));
}

int64_t get_uptime_ms() {
  struct timespec uptime;
  if (clock_gettime(CLOCK_BOOTTIME, &uptime) != 0) return -1;
  return int64_t{uptime.tv_sec} * 1000 + uptime.tv_nsec / 1000000;
}
