#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "platform/descriptor.h"
#include "platform/util.h"
#include "redundancy_health/catalog/confined_path.h"
#include "redundancy_health/catalog/kept_set.h"
#include "redundancy_health/catalog/pinned_path.h"
#include "redundancy_health/catalog/roots.h"
#include "tools/commands.h"
#include "tools/output.h"
#include "tools/publish.h"

namespace fs = std::filesystem;

namespace {

constexpr int kFileFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;

struct FoundSet {
  KeptSet set;
  std::string directory;
};
using FoundSets = std::map<uint32_t, FoundSet>;  // by number, so oldest first

// The requested file.
struct KeptFile {
  std::string path;      // where it is kept
  std::string original;  // its path in the tree
  uint32_t root_index;
};

// Finds the sets. Returns 0 or an error number. Without the directory there are none.
int find_sets(FoundSets* sets) {
  std::error_code error;
  fs::directory_iterator entries(kKeptDirectory, error);
  for (; !error && entries != fs::directory_iterator(); entries.increment(error)) {
    KeptSet set;
    if (parse_kept_set_name(entries->path().filename().c_str(), &set))
      sets->insert({set.number, {set, entries->path()}});
  }
  return error.value() == ENOENT ? 0 : error.value();
}

// Relative paths and sizes of the files in a directory. Skips files that disappear meanwhile.
std::map<std::string, uint64_t> files_in(const std::string& directory) {
  std::map<std::string, uint64_t> files;
  std::error_code error;
  fs::recursive_directory_iterator entries(directory, error);
  for (; !error && entries != fs::recursive_directory_iterator(); entries.increment(error)) {
    std::error_code gone;
    if (!entries->is_regular_file(gone) || entries->is_symlink(gone)) continue;
    const uint64_t size = entries->file_size(gone);
    if (!gone) files[entries->path().string().substr(directory.size() + 1)] = size;
  }
  return files;
}

std::string time_text(time_t time) {
  char text[40] = "";
  struct tm parts;
  if (localtime_r(&time, &parts) != nullptr)
    strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts);
  return text;
}

void print_file(const KeptSet& set, const std::string& path, uint64_t size) {
  printf("%s  %-6s  %-8s %10llu  %s\n", time_text(set.time).c_str(), kept_trees[set.root_index],
         kept_kinds[set.kind], static_cast<unsigned long long>(size),
         printable(std::to_string(set.number) + "/" + path).c_str());
}

std::string file_json(const KeptSet& set, const std::string& path, uint64_t size) {
  return "{\"name\":" + json_string(std::to_string(set.number) + "/" + path) +
         ",\"time\":" + std::to_string(set.time) + ",\"tree\":\"" + kept_trees[set.root_index] +
         "\",\"path\":" + json_string(path) + ",\"size\":" + std::to_string(size) + ",\"kind\":\"" +
         kept_kinds[set.kind] + "\"}";
}

int list_kept(const Options& options) {
  FoundSets sets;
  const int error = find_sets(&sets);
  if (error != 0)
    return report_error(options, std::string(kKeptDirectory) + ": " + strerror(error), kFailed);
  const char* separator = "";
  if (options.json) printf("{\"kept\":[");
  for (const auto& [number, found] : sets) {
    for (const auto& [path, size] : files_in(found.directory)) {
      if (options.json)
        printf("%s%s", separator, file_json(found.set, path, size).c_str());
      else
        print_file(found.set, path, size);
      separator = ",";
    }
  }
  if (options.json) printf("]}\n");
  return kDone;
}

// Opens the kept file NUMBER/PATH. Returns a descriptor, or -1 with errno.
int open_kept_file(const std::string& name, KeptFile* file) {
  char* end = nullptr;
  const unsigned long number = strtoul(name.c_str(), &end, 10);
  FoundSets sets;
  const int error = find_sets(&sets);
  const auto found = sets.find(static_cast<uint32_t>(number));
  if (error != 0 || *end != '/' || found == sets.end() || !relative_path_is_confined(end + 1)) {
    errno = error != 0 ? error : ENOENT;
    return -1;
  }
  file->path = found->second.directory + end;
  file->root_index = found->second.set.root_index;
  file->original = std::string(root_paths[file->root_index]) + (end + 1);
  return open(file->path.c_str(), kFileFlags);
}

// Opens the current file in the tree, or an empty one if there is none. Returns a descriptor, or -1
// with errno.
int open_current(const KeptFile& file) {
  PinnedPath current;
  const int error = pin_path(file.root_index, file.original.c_str(), &current);
  const int fd = error == 0 ? openat(current.dir_fd(), current.name, kFileFlags) : -1;
  if (error != 0) errno = error;
  return fd < 0 && file_is_gone(errno) ? open("/dev/null", kFileFlags) : fd;
}

int copy_to_output(const Options& options, int fd) {
  char buffer[65536];
  for (ssize_t n; (n = read(fd, buffer, sizeof buffer)) != 0;) {
    const int error = n < 0 ? errno : write_fully(STDOUT_FILENO, buffer, static_cast<size_t>(n));
    if (error != 0) return report_error(options, strerror(error), kFailed);
  }
  return kDone;
}

int restore_file(const Options& options, const KeptFile& file, int fd,
                 const std::string& destination) {
  struct stat status;
  if (fstat(fd, &status) != 0) return report_error(options, strerror(errno), kFailed);
  if (destination == "-") return copy_to_output(options, fd);
  const std::string& wanted = destination.empty() ? file.original : destination;
  return publish(options, fd, wanted, wanted_mode(options, status.st_mode, wanted));
}

// diff(1) reads the file in the tree from its standard input, because a local user could redirect
// its path meanwhile.
int show_difference(const Options& options, const KeptFile& file, const std::string& name) {
  const Descriptor current(open_current(file));
  if (!current.is_open() || dup2(current.get(), STDIN_FILENO) < 0)
    return report_error(options, file.original + ": " + strerror(errno), kFailed);
  const std::string kept_label = "kept: " + printable(name);
  const std::string current_label = printable(file.original);
  const char* const command[] = {"/usr/bin/diff",
                                 "-u",
                                 "--label",
                                 kept_label.c_str(),
                                 "--label",
                                 current_label.c_str(),
                                 "--",
                                 file.path.c_str(),
                                 "-",
                                 nullptr};
  const int status = execute_normal(command);
  return status == 0 ? kDone : status == 1 ? kFailed : kNoAnswer;
}

}  // namespace

int show_kept(const Options& options, const Words& words) {
  if (words.empty()) return list_kept(options);
  const bool restores = words[0] == "restore";
  if (!restores && words[0] != "diff") return usage_error("not known: kept " + words[0]);
  if (words.size() < 2 || (!restores && words.size() > 2))
    return usage_error("wrong number of arguments: kept " + words[0]);
  KeptFile file;
  const Descriptor fd(open_kept_file(words[1], &file));
  if (!fd.is_open()) return report_error(options, words[1] + ": " + strerror(errno), kFailed);
  return restores ? restore_file(options, file, fd.get(), words.size() > 2 ? words[2] : "")
                  : show_difference(options, file, words[1]);
}
