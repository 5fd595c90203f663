#include <errno.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <fstream>
#include <iostream>
#include <map>
#include <optional>
#include <tuple>
#include <utility>
#include <vector>

#include "platform/em.h"
#include "tools/commands.h"
#include "tools/output.h"
#include "tools/tree_listing.h"

namespace {

// First and last line of a listing; what is between is whole only when both are there.
constexpr char kFirstLine[] = "cluster_sync trees of EM ";
constexpr char kLastLine[] = "end of trees, lines: ";

// A line is "tag digest begin end permission path" with fixed widths before the path.
constexpr size_t kPermissionColumn = 61;
constexpr size_t kPathColumn = 63;

// Trees of one EM as text lines; control bytes and backslashes in paths are escaped.
struct Listing {
  std::string em;
  std::vector<std::string> lines;
};

// Chunks of each file, keyed by tag and path: the lines up to the path.
using Files = std::map<std::pair<char, std::string>, std::vector<std::string>>;

struct Difference {
  std::string tree;
  std::string path;
  const char* what;
};

// One line whatever the path, and no two paths alike.
std::string escaped(const std::string& line) {
  std::string text;
  for (const char c : line)
    text += c == '\\' ? "\\x5c" : printable(std::string(1, c));
  return text;
}

Listing make_listing(unsigned em, const std::vector<TreeListing>& trees) {
  Listing listing = {std::to_string(em), {}};
  for (const TreeListing& tree : trees) {
    for (const std::string& line : tree.lines)
      listing.lines.push_back(escaped(line));
  }
  return listing;
}

void print_listing(const Listing& listing) {
  printf("%s%s\n", kFirstLine, listing.em.c_str());
  for (const std::string& line : listing.lines)
    printf("%s\n", line.c_str());
  printf("%s%zu\n", kLastLine, listing.lines.size());
}

bool starts_with(const std::string& line, const char* text) {
  return line.compare(0, strlen(text), text) == 0;
}

// Reads a listing that print_listing made; nothing when it is none or not whole.
std::optional<Listing> read_listing(std::istream& in) {
  Listing listing;
  std::string line;
  if (!std::getline(in, line) || !starts_with(line, kFirstLine)) return std::nullopt;
  listing.em = line.substr(strlen(kFirstLine));
  while (std::getline(in, line)) {
    if (starts_with(line, kLastLine)) {
      const bool whole = line.substr(strlen(kLastLine)) == std::to_string(listing.lines.size());
      return whole ? std::optional(listing) : std::nullopt;
    }
    if (line.size() <= kPathColumn || strchr("AV12", line[0]) == nullptr) return std::nullopt;
    listing.lines.push_back(line);
  }
  return std::nullopt;
}

Files group_by_file(const Listing& listing) {
  Files files;
  for (const std::string& line : listing.lines)
    files[{line[0], line.substr(kPathColumn)}].push_back(line.substr(0, kPathColumn));
  return files;
}

// Tells apart what two lists of chunks of one file differ in.
const char* compare_chunks(std::vector<std::string> here, std::vector<std::string> there) {
  for (auto* chunks : {&here, &there}) {
    for (std::string& chunk : *chunks)
      chunk[kPermissionColumn] = ' ';
  }
  return here == there ? "the mode differs" : "the content differs";
}

std::string tree_name(char tag) {
  if (tag == 'A') return "active";
  if (tag == 'V') return "volatile";
  return std::string("em") + tag;
}

std::vector<Difference> compare(const Listing& here, const Listing& there) {
  const Files ours = group_by_file(here);
  const Files theirs = group_by_file(there);
  std::vector<Difference> differences;
  const auto add = [&](const Files::key_type& key, const char* what) {
    differences.push_back({tree_name(key.first), key.second, what});
  };
  for (const auto& [key, chunks] : ours) {
    const auto other = theirs.find(key);
    if (other == theirs.end())
      add(key, "only here");
    else if (other->second != chunks)
      add(key, compare_chunks(chunks, other->second));
  }
  for (const auto& [key, chunks] : theirs) {
    if (!ours.contains(key)) add(key, "only there");
  }
  std::sort(differences.begin(), differences.end(), [](const auto& a, const auto& b) {
    return std::tie(a.tree, a.path) < std::tie(b.tree, b.path);
  });
  return differences;
}

// The listing that the option names. Fills `error` when there is none.
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
  if (!listing) *error = name + " is no whole output of verify --list";
  return listing;
}

void print_json(const std::vector<TreeListing>& trees, const Listing* listing,
                const std::vector<Difference>* differences) {
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
    for (const Difference& difference : *differences) {
      printf("%s{\"tree\":\"%s\",\"path\":%s,\"what\":\"%s\"}", separator, difference.tree.c_str(),
             json_string(difference.path).c_str(), difference.what);
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

void print_differences(const std::vector<Difference>& differences) {
  for (const Difference& difference : differences)
    printf("%s/%s: %s\n", difference.tree.c_str(), difference.path.c_str(), difference.what);
  if (differences.empty())
    printf("no difference\n");
  else
    printf("%zu files differ\n", differences.size());
}

}  // namespace

int verify_trees(const Options& options, const Words& /*words*/) {
  const bool comparing = !options.against.empty();
  if (options.list && comparing) return usage_error("--list and --against exclude each other");
  const unsigned em = 3 - get_my_mate_em_num();
  std::vector<std::string> failures;
  const std::vector<TreeListing> trees = list_trees(em, &failures);
  for (const std::string& failure : failures)
    fprintf(stderr, "cluster_sync_ctl: %s\n", printable(failure).c_str());
  if (!failures.empty()) return report_error(options, "the trees could not be read in full");

  const Listing here = make_listing(em, trees);
  std::vector<Difference> differences;
  if (comparing) {
    std::string error;
    const std::optional<Listing> there = open_listing(options.against, &error);
    if (!there) return report_error(options, error);
    if (there->em == here.em)
      fprintf(stderr, "cluster_sync_ctl: both listings are of EM %s\n", here.em.c_str());
    differences = compare(here, *there);
  }
  if (options.json)
    print_json(trees, options.list ? &here : nullptr, comparing ? &differences : nullptr);
  else if (options.list)
    print_listing(here);
  else if (comparing)
    print_differences(differences);
  else
    print_trees(trees);
  return differences.empty() ? kDone : kFailed;
}
