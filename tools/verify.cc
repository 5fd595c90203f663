#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <fstream>
#include <iostream>
#include <map>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "platform/em.h"
#include "tools/commands.h"
#include "tools/output.h"
#include "tools/tree_listing.h"

namespace {

// First and last line of a listing. Without both, it is incomplete.
constexpr char kFirstLine[] = "cluster_sync trees of EM %u, SHA-256, begun at %lld";
constexpr char kLastLine[] = "end of trees, lines: ";

constexpr unsigned kPause = 1;   // s before the second check
constexpr time_t kOnItsWay = 2;  // s that a change may need to reach the other EM

// Tag of the tree and path of a file.
using FileKey = std::pair<char, std::string>;

// The trees of one EM as text lines. Unprintable bytes and backslashes in paths are escaped.
struct Listing {
  unsigned em;
  time_t begun;  // by the clock of that EM
  std::vector<std::string> lines;
  std::set<FileKey> fresh;  // of this EM only
};

// For each file, its chunks: the lines without the path.
using Files = std::map<FileKey, std::vector<std::string>>;

// For each differing file, what differs.
using Differences = std::map<FileKey, const char*>;

constexpr char kChangedMeanwhile[] = "changed meanwhile";

// Makes one line of any path; different paths stay different.
std::string escaped(const std::string& line) {
  std::string text;
  for (const char c : line)
    text += c == '\\' ? std::string("\\x5c") : std::string(1, c);
  return printable(text);
}

// Reads the trees. If some cannot be read, reports that on standard error and returns false.
bool read_trees(unsigned em, time_t since, std::vector<TreeListing>* trees) {
  std::vector<std::string> failures;
  *trees = list_trees(em, since, &failures);
  for (const std::string& failure : failures)
    fprintf(stderr, "cluster_sync_ctl: %s\n", printable(failure).c_str());
  return failures.empty();
}

Listing make_listing(unsigned em, time_t begun, const std::vector<TreeListing>& trees) {
  Listing listing = {em, begun, {}, {}};
  for (const TreeListing& tree : trees) {
    for (const std::string& line : tree.lines)
      listing.lines.push_back(escaped(line));
    for (const std::string& path : tree.fresh)
      listing.fresh.insert({tree.tag, escaped(path)});
  }
  return listing;
}

void print_listing(const Listing& listing) {
  printf(kFirstLine, listing.em, static_cast<long long>(listing.begun));
  printf("\n");
  for (const std::string& line : listing.lines)
    printf("%s\n", line.c_str());
  printf("%s%zu\n", kLastLine, listing.lines.size());
}

bool starts_with(const std::string& line, const char* text) {
  return line.compare(0, strlen(text), text) == 0;
}

// Reads a listing written by print_listing. Nothing if it is invalid or incomplete.
std::optional<Listing> read_listing(std::istream& in) {
  Listing listing = {};
  std::string line;
  long long begun = 0;
  int end = 0;
  if (!std::getline(in, line) ||
      sscanf(line.c_str(), "cluster_sync trees of EM %u, SHA-256, begun at %lld%n", &listing.em,
             &begun, &end) != 2 ||
      static_cast<size_t>(end) != line.size())
    return std::nullopt;
  listing.begun = begun;
  while (std::getline(in, line)) {
    if (starts_with(line, kLastLine)) {
      const bool whole = line.substr(strlen(kLastLine)) == std::to_string(listing.lines.size());
      return whole ? std::optional(listing) : std::nullopt;
    }
    if (line.size() <= kListPathColumn || strchr("AV12", line[0]) == nullptr) return std::nullopt;
    listing.lines.push_back(line);
  }
  return std::nullopt;
}

Files group_by_file(const Listing& listing) {
  Files files;
  for (const std::string& line : listing.lines)
    files[{line[0], line.substr(kListPathColumn)}].push_back(line.substr(0, kListPathColumn));
  return files;
}

// Describes the difference between two lists of chunks of one file.
const char* compare_chunks(std::vector<std::string> here, std::vector<std::string> there) {
  for (auto* chunks : {&here, &there}) {
    for (std::string& chunk : *chunks)
      chunk[kListPermissionColumn] = ' ';
  }
  return here == there ? "the mode differs" : "the content differs";
}

std::string tree_name(char tag) {
  if (tag == 'A') return "active";
  if (tag == 'V') return "volatile";
  return std::string("em") + tag;
}

Differences compare(const Listing& here, const Listing& there) {
  const Files ours = group_by_file(here);
  const Files theirs = group_by_file(there);
  Differences differences;
  for (const auto& [key, chunks] : ours) {
    const auto other = theirs.find(key);
    if (other == theirs.end())
      differences[key] = "only here";
    else if (other->second != chunks)
      differences[key] = compare_chunks(chunks, other->second);
  }
  for (const auto& [key, chunks] : theirs) {
    if (!ours.contains(key)) differences[key] = "only there";
  }
  return differences;
}

// Checks each difference again. Removes those that have disappeared, and marks files that changed
// here since the other list was begun as changed meanwhile. Returns false if the trees can no
// longer be read.
bool look_again(unsigned em, const Listing& there, Differences* differences) {
  sleep(kPause);
  std::vector<TreeListing> trees;
  if (!read_trees(em, there.begun - kOnItsWay, &trees)) return false;
  const Listing here = make_listing(em, 0, trees);
  const Differences now = compare(here, there);
  for (auto difference = differences->begin(); difference != differences->end();) {
    const auto found = now.find(difference->first);
    if (found == now.end()) {
      difference = differences->erase(difference);
      continue;
    }
    difference->second = here.fresh.contains(found->first) ? kChangedMeanwhile : found->second;
    ++difference;
  }
  return true;
}

size_t count_lasting(const Differences& differences) {
  size_t lasting = 0;
  for (const auto& [key, what] : differences)
    lasting += what != kChangedMeanwhile;
  return lasting;
}

// The listing named by the option. Sets `error` if it cannot be read.
std::optional<Listing> open_listing(const std::string& name, std::string* error) {
  std::ifstream file;
  if (name != "-") {
    file.open(name);
    if (!file) {
      *error = name + ": " + strerror(errno);
      return std::nullopt;
    }
  }
  std::optional<Listing> listing = read_listing(name == "-" ? std::cin : file);
  if (!listing) *error = name + " is not a complete output of verify --list";
  return listing;
}

void print_json(const std::vector<TreeListing>& trees, const Listing* listing,
                const Differences* differences) {
  const char* separator = "";
  printf("{\"trees\":[");
  for (const TreeListing& tree : trees) {
    printf("%s{\"tree\":\"%s\",\"files\":%llu,\"bytes\":%llu,\"digest\":\"%s\"}", separator,
           tree.name.c_str(), static_cast<unsigned long long>(tree.files),
           static_cast<unsigned long long>(tree.bytes), tree.digest.c_str());
    separator = ",";
  }
  printf("]");
  if (listing != nullptr) {
    separator = "";
    printf(",\"lines\":[");
    for (const std::string& line : listing->lines) {
      printf("%s%s", separator, json_string(line).c_str());
      separator = ",";
    }
    printf("]");
  }
  if (differences != nullptr) {
    separator = "";
    printf(",\"differences\":[");
    for (const auto& [key, what] : *differences) {
      printf("%s{\"tree\":\"%s\",\"path\":%s,\"what\":\"%s\"}", separator,
             tree_name(key.first).c_str(), json_string(key.second).c_str(), what);
      separator = ",";
    }
    printf("]");
  }
  printf("}\n");
}

void print_trees(const std::vector<TreeListing>& trees) {
  for (const TreeListing& tree : trees)
    printf("%-9s%10llu files%16llu bytes  %s\n", tree.name.c_str(),
           static_cast<unsigned long long>(tree.files), static_cast<unsigned long long>(tree.bytes),
           tree.digest.c_str());
}

void print_differences(const Differences& differences) {
  for (const auto& [key, what] : differences)
    printf("%s/%s: %s\n", tree_name(key.first).c_str(), key.second.c_str(), what);
  const size_t lasting = count_lasting(differences);
  if (lasting == 0)
    printf("no difference\n");
  else
    printf("%zu files differ\n", lasting);
}

void warn_of_equal_numbers(const Listing& here, const Listing& there) {
  if (here.em != there.em) return;
  fprintf(stderr,
          "cluster_sync_ctl: both lists are of EM %u: the other list is from this EM, or both EMs "
          "have the same number in /var/run/em/number\n",
          here.em);
}

}  // namespace

int verify_trees(const Options& options, const Words& /*words*/) {
  const bool comparing = !options.against.empty();
  if (options.list && comparing) return usage_error("--list and --against exclude each other");
  constexpr char kUnread[] = "the trees could not be read in full";
  const unsigned em = 3 - get_my_mate_em_num();
  const time_t begun = time(nullptr);
  std::vector<TreeListing> trees;
  if (!read_trees(em, begun, &trees)) return report_error(options, kUnread);

  const Listing here = make_listing(em, begun, trees);
  Differences differences;
  if (comparing) {
    std::string error;
    const std::optional<Listing> there = open_listing(options.against, &error);
    if (!there) return report_error(options, error);
    warn_of_equal_numbers(here, *there);
    differences = compare(here, *there);
    if (!differences.empty() && !look_again(em, *there, &differences))
      return report_error(options, kUnread);
  }
  if (options.json)
    print_json(trees, options.list ? &here : nullptr, comparing ? &differences : nullptr);
  else if (options.list)
    print_listing(here);
  else if (comparing)
    print_differences(differences);
  else
    print_trees(trees);
  return count_lasting(differences) == 0 ? kDone : kFailed;
}
