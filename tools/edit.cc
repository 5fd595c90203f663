#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>

#include "platform/descriptor.h"
#include "tools/commands.h"
#include "tools/interrupt.h"
#include "tools/output.h"
#include "tools/publish.h"

namespace {

// A user needs longer. An editor that only passes the file to a running instance returns sooner.
constexpr std::chrono::milliseconds kNoTimeToEdit{300};
constexpr char kEditorHint[] =
    "not changed: the editor returned at once. If it works on in the background, tell it to wait "
    "(for example VISUAL='code --wait')";

// A file at one moment.
struct Version {
  bool exists = false;
  struct stat status = {};
  std::string content;
};

// Reads the regular file `path`, or records that there is none. Returns 0 or an error number.
int read_version(const std::string& path, Version* version) {
  const int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return errno == ENOENT ? 0 : errno;
  version->exists = true;
  int error = fstat(fd, &version->status) == 0 ? 0 : errno;
  if (error == 0 && !S_ISREG(version->status.st_mode)) error = EINVAL;
  char buffer[16384];
  ssize_t n = 1;
  while (error == 0 && n > 0) {
    n = read(fd, buffer, sizeof buffer);
    if (n < 0) error = errno;
    if (n > 0) version->content.append(buffer, static_cast<size_t>(n));
  }
  close(fd);
  return error;
}

bool is_same_version(const Version& version, const std::string& path) {
  struct stat now;
  if (lstat(path.c_str(), &now) != 0) return !version.exists && errno == ENOENT;
  const struct stat& then = version.status;
  return version.exists && now.st_dev == then.st_dev && now.st_ino == then.st_ino &&
         now.st_size == then.st_size && now.st_mtim.tv_sec == then.st_mtim.tv_sec &&
         now.st_mtim.tv_nsec == then.st_mtim.tv_nsec;
}

void remove_copy(const std::string& copy) {
  std::error_code ignored;  // the editor may have left other files
  std::filesystem::remove_all(std::filesystem::path(copy).parent_path(), ignored);
}

// Creates a file with the name of `destination` in a new private directory. Returns its path, or an
// empty text with errno.
std::string make_copy(const std::string& destination, const std::string& content) {
  const char* parent = getenv("TMPDIR");
  std::string path = parent != nullptr && *parent == '/' ? parent : "/tmp";
  path += "/cluster_sync_ctl.XXXXXX";
  if (mkdtemp(path.data()) == nullptr) return "";
  path += "/" + std::filesystem::path(destination).filename().string();
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd >= 0 && write_fully(fd, content.data(), content.size()) == 0 && close(fd) == 0)
    return path;
  const int error = errno;
  if (fd >= 0) close(fd);
  remove_copy(path);
  errno = error;
  return "";
}

// Quotes a text as one word for the shell.
std::string quoted(const std::string& text) {
  std::string word = "'";
  for (const char c : text)
    word += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return word + "'";
}

// Runs the user's editor; its name may include arguments. Returns the status as from waitpid(2).
int run_editor(const std::string& copy) {
  const char* editor = getenv("VISUAL");
  if (editor == nullptr || *editor == '\0') editor = getenv("EDITOR");
  if (editor == nullptr || *editor == '\0') editor = "editor";
  return run_in_foreground((editor + (" " + quoted(copy))).c_str());
}

// Publishes the copy, or reports why not, and returns the exit status. Nothing if the copy is
// unchanged.
std::optional<int> publish_copy(const Options& options, const Version& original, bool succeeded,
                                const std::string& copy, const std::string& destination) {
  Version edited;
  const int error = read_version(copy, &edited);
  if (error != 0 || !edited.exists) return report_error(options, "the copy is gone", kFailed);
  if (edited.content == original.content) return std::nullopt;
  if (signal_that_came() != 0)
    return report_error(options, "interrupted; nothing is published", kFailed);
  if (!succeeded) return report_error(options, "the editor failed; nothing is published", kFailed);
  if (!is_same_version(original, destination))
    return report_error(options, destination + " was changed meanwhile; nothing is published",
                        kFailed);
  const mode_t mode = original.exists ? original.status.st_mode : mode_of_new_file();
  const int fd = open(copy.c_str(), O_RDONLY | O_CLOEXEC);
  const int status = publish(options, fd, destination, wanted_mode(options, mode, destination));
  if (fd >= 0) close(fd);
  return status;
}

}  // namespace

int edit_file(const Options& options, const Words& words) {
  const std::string& destination = words[0];
  Version original;
  const int error = read_version(destination, &original);
  if (error != 0) {
    const char* reason = error == EINVAL ? "not a regular file" : strerror(error);
    return report_error(options, destination + ": " + reason, kFailed);
  }
  const int refused = check_destination(options, destination);
  if (refused != kDone) return refused;
  hold_signals();
  const std::string copy = make_copy(destination, original.content);
  if (copy.empty())
    return report_error(options, std::string("cannot make a copy: ") + strerror(errno), kFailed);

  const auto start = std::chrono::steady_clock::now();
  const bool succeeded = run_editor(copy) == 0;
  const bool at_once = std::chrono::steady_clock::now() - start < kNoTimeToEdit;
  const std::optional<int> status = publish_copy(options, original, succeeded, copy, destination);
  if (status.value_or(kDone) != kDone) {
    fprintf(stderr, "cluster_sync_ctl: what was typed is in %s\n", printable(copy).c_str());
    return *status;
  }
  remove_copy(copy);
  if (status || signal_that_came() != 0) return kDone;
  if (at_once) return report_error(options, kEditorHint, kFailed);
  if (options.json || !options.quiet)
    printf(options.json ? "{\"changed\":false}\n" : "not changed\n");
  return succeeded ? kDone : kFailed;
}
