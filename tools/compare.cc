#include <errno.h>
#include <stdint.h>
#include <stdio.h>

#include <string>

#include "client/cluster_sync.h"
#include "tools/commands.h"
#include "tools/output.h"

namespace {

// The lines of the files are printed after the counts of the trees. Until then they are kept in a
// file, because there may be hundreds of thousands.
struct Lines {
  FILE* file;
  bool json;
  bool any;
};

int keep_line(void* argument, char sign, const char* tree, const char* path) {
  auto* lines = static_cast<Lines*>(argument);
  if (lines->json) {
    fprintf(lines->file, "%s{\"sign\":\"%c\",\"tree\":\"%s\",\"path\":%s}", lines->any ? "," : "",
            sign, tree, json_string(path).c_str());
  } else {
    fprintf(lines->file, "%c %s/%s\n", sign, tree, printable(path).c_str());
  }
  lines->any = true;
  return ferror(lines->file) ? EIO : 0;
}

void copy_lines(FILE* from) {
  char buffer[8192];
  rewind(from);
  for (size_t size; (size = fread(buffer, 1, sizeof buffer, from)) > 0;)
    fwrite(buffer, 1, size, stdout);
}

void print_json(const cluster_sync_tree (&trees)[CLUSTER_SYNC_TREES], FILE* lines) {
  const char* separator = "";
  printf("{\"trees\":[");
  for (const cluster_sync_tree& tree : trees) {
    printf(
        "%s{\"tree\":\"%s\",\"here\":%u,\"there\":%u,\"only_here\":%u,\"only_there\":%u,"
        "\"different\":%u}",
        separator, tree.name, tree.here, tree.there, tree.only_here, tree.only_there,
        tree.different);
    separator = ",";
  }
  printf("],\"differences\":[");
  copy_lines(lines);
  printf("]}\n");
}

void print_text(const cluster_sync_tree (&trees)[CLUSTER_SYNC_TREES], FILE* lines) {
  for (const cluster_sync_tree& tree : trees)
    printf("%-9s %7u here %7u there %7u only here %7u only there %7u differ\n", tree.name,
           tree.here, tree.there, tree.only_here, tree.only_there, tree.different);
  copy_lines(lines);
}

// Reports that the comparison failed, so it is unknown whether the trees are equal.
int report_unknown(const Options& options, int error, const cluster_sync_result& result) {
  const std::string text = error == ECANCELED ? result.reason : client_error_text(options, error);
  return report_error(options, "cannot compare: " + text);
}

}  // namespace

int compare_trees(const Options& options, const Words& /*words*/) {
  Lines lines = {tmpfile(), options.json, false};
  if (lines.file == nullptr) return report_unknown(options, errno, {});
  cluster_sync_tree trees[CLUSTER_SYNC_TREES];
  cluster_sync_result result;
  const int error = cluster_sync_compare(options.socket.c_str(), options.timeout_ms, trees,
                                         keep_line, &lines, &result);
  if (error == 0) (options.json ? print_json : print_text)(trees, lines.file);
  fclose(lines.file);
  if (error != 0) return report_unknown(options, error, result);
  return lines.any ? kFailed : kDone;
}
