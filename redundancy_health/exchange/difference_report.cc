#include "redundancy_health/exchange/difference_report.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "redundancy_health/catalog/roots.h"
#include "redundancy_health/exchange/comparison.h"
#include "redundancy_health/frame/checked_lock.h"
#include "redundancy_health/frame/log.h"
#include "redundancy_health/frame/result_codes.h"

namespace {

// Files of one tree.
struct TreeCounts {
  uint32_t here;
  uint32_t there;
  uint32_t only_here;
  uint32_t only_there;
  uint32_t different;
};

const char* tree_name(uint32_t root_index) {
  static const char* const names[kRootCount] = {"active", "own", "copy", "volatile"};
  return names[root_index];
}

// '=' if the file is the same on both sides, otherwise the sign of the difference.
char difference_sign(const Comparison& comparison, const ComparedFile& file) {
  if (!file.there) return '<';
  if (!file.here) return '>';
  for (uint32_t i = file.first; i < file.end; ++i) {
    if (!comparison.index[i]->matched) return '!';
  }
  return '=';
}

void count_files(const Comparison& comparison, TreeCounts (&trees)[kRootCount]) {
  ComparedFile file = {};
  while (next_compared_file(comparison, &file)) {
    TreeCounts* tree = &trees[comparison.index[file.first]->root_index];
    tree->here += file.here;
    tree->there += file.there;
    const char sign = difference_sign(comparison, file);
    tree->only_here += sign == '<';
    tree->only_there += sign == '>';
    tree->different += sign == '!';
  }
}

void write_report(FILE* report, const Comparison& comparison) {
  TreeCounts trees[kRootCount] = {};
  count_files(comparison, trees);
  for (const uint32_t root_index :
       {kActivePersistentRoot, kActiveVolatileRoot, kThisEmRoot, kOtherEmRoot}) {
    const TreeCounts& tree = trees[root_index];
    fprintf(report, "=%s %u %u %u %u %u%c", tree_name(root_index), tree.here, tree.there,
            tree.only_here, tree.only_there, tree.different, '\0');
  }
  ComparedFile file = {};
  while (next_compared_file(comparison, &file)) {
    const char sign = difference_sign(comparison, file);
    const FileEntry* entry = comparison.index[file.first];
    if (sign != '=')
      fprintf(report, "%c%s/%s%c", sign, tree_name(entry->root_index), entry->relative_path, '\0');
  }
}

// Returns a descriptor of the finished report, or -1 with errno.
int make_report(const Comparison& comparison) {
  FILE* report = tmpfile();  // has no name: it disappears with its last descriptor
  if (report == nullptr) return -1;
  write_report(report, comparison);
  int fd = -1;
  if (fflush(report) == 0 && !ferror(report) && lseek(fileno(report), 0, SEEK_SET) == 0)
    fd = fcntl(fileno(report), F_DUPFD_CLOEXEC, 0);
  const int error = errno;
  fclose(report);
  errno = error;
  return fd;
}

void hand_over(SyncContext* ctx, int fd) {
  HOLD_MUTEX(ctx->rpc_mutex);
  ctx->rpc_report = fd;
}

}  // namespace

void report_differences(SyncContext* ctx, const uint8_t* payload, uint32_t payload_size) {
  Comparison comparison;
  gather_comparison(ctx, payload, payload_size, &comparison);
  if (!ctx->cpg_result.canceled) {
    const int fd = make_report(comparison);
    if (fd >= 0) {
      hand_over(ctx, fd);
    } else {
      storage_cfg_set_result(&ctx->cpg_result, RESULT_READ_FAILED,
                             "Could not write differences (%s)", strerror(errno));
      LOG(3, "%s", ctx->cpg_result.reason);
    }
  }
  free_comparison(&comparison);
}
