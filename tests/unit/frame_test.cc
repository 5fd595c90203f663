#include "redundancy_health/frame/check.h"
#include "redundancy_health/frame/diag_params.h"
#include "redundancy_health/frame/flight_recorder.h"
#include "redundancy_health/frame/log.h"
#include "tests/unit/daemon_support.h"

namespace {

using FrameTest = DaemonTest;

TEST_F(FrameTest, FaultPathMatchesByteForByte) {
  EXPECT_TRUE(have_error_injection("/a", "/a"));
  EXPECT_EQ(errno, EDOM);
  for (const char* path : {"", "/", "/a/b", "/A", "//a"})
    EXPECT_FALSE(have_error_injection("/a", path)) << path;
  EXPECT_FALSE(have_error_injection("", ""));
}

int failing_close(int error) {
  errno = error;
  return -1;
}

TEST_F(FrameTest, ChecksQuoteTheirExpression) {
  EXPECT_ABORT("EXCEPTION: 4 + 3 = 7", CHECK_ZERO(4 + 3));
  EXPECT_ABORT("EXCEPTION: -5 = -5", CHECK_NOT_NEGATIVE(-5));
  EXPECT_ABORT("EXCEPTION: ctx->rpc_fd == CS_OK = 0", CHECK_TRUE(ctx->rpc_fd == CS_OK));
  EXPECT_ABORT("EXCEPTION: ctx->rpc_msg is NULL", CHECK_NOT_NULL(ctx->rpc_msg));
  EXPECT_ABORT("EXCEPTION: failing_close(EBADF) ended with EBADF",
               CHECK_CLOSE(failing_close(EBADF)));
  CHECK_CLOSE_AS("fclose(f)", failing_close(ENOSPC));
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_EQ(logged(3), std::vector<std::string>({"fclose(f) = -1; errno=28"}));
  EXPECT_EQ(g_flight_recorder.count, 0u) << "for the platform log alone";
}

}  // namespace
