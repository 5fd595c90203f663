// A digest cache file beside a data file, as the scans of both sides and the updates meet it.

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include "redundancy_health/exchange/reconcile.h"
#include "redundancy_health/transfer/outgoing.h"
#include "tests/fuzz/sandbox.h"

namespace {

constexpr time_t kModified = 1000000000;

// Mode bits: 1 a data file that gets a digest cache file of the scan, 2 a header that fits it.
void write_files(Input* in) {
  const uint8_t mode = in->u8();
  const std::string dir = std::string(root_paths[kThisEmRoot]) + "dir/";
  const off_t size = mode & 1 ? static_cast<off_t>(kChunkSize) + 1 : 10;
  const std::string data = dir + "data";
  const int fd = open(data.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  const struct timespec times[2] = {{kModified, 0}, {kModified, 0}};
  if (ftruncate(fd, size) != 0 || futimens(fd, times) != 0) abort();
  close(fd);

  FILE* digest = fopen((dir + ".$SyncDigest$data").c_str(), "we");
  if (mode & 2) {
    fprintf(digest, "Digest-V1 %lld %lld\n", static_cast<long long>(size),
            static_cast<long long>(kModified));
  }
  const std::vector<uint8_t> bytes = in->rest();
  fwrite(bytes.data(), 1, bytes.size(), digest);
  fclose(digest);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in(data, size);
  start_run(true);
  replant();
  write_files(&in);
  g_context.cur_exchange_em_is_active = 1;
  compare_synced_files(&g_context, nullptr, 0);  // to an empty peer everything is to be sent
  while (g_context.update_queue != nullptr)
    update_next_chunk(&g_context);
  reset_cpg_result(&g_context);
  deliver(kPeerNode, MSG_LOCK_REL, 0, 0, nullptr, 0);
  deliver(kPeerNode, MSG_LOCK_REQ, kPeerExchange, 0, nullptr, 0);
  deliver(kPeerNode, MSG_LISTING_REQ, kPeerExchange, 0, nullptr, 0);
  end_run();
  return 0;
}
