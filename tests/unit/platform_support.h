#ifndef TESTS_UNIT_PLATFORM_SUPPORT_H_
#define TESTS_UNIT_PLATFORM_SUPPORT_H_

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <set>
#include <string>

inline std::string read_file(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

inline void write_file(const std::string& path, const std::string& content, mode_t mode = 0644) {
  std::ofstream(path, std::ios::binary) << content;
  chmod(path.c_str(), mode);
}

inline bool exists(const std::string& path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0;
}

// Permission bits, -1 when there is no such file.
inline int mode_of(const std::string& path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0 ? static_cast<int>(info.st_mode & 07777) : -1;
}

inline std::set<std::string> names_in(const std::string& directory) {
  std::set<std::string> names;
  DIR* dir = opendir(directory.c_str());
  if (dir == nullptr) return names;
  while (const dirent* entry = readdir(dir))
    names.insert(entry->d_name);
  closedir(dir);
  names.erase(".");
  names.erase("..");
  return names;
}

#endif  // TESTS_UNIT_PLATFORM_SUPPORT_H_
