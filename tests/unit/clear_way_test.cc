#include "redundancy_health/transfer/clear_way.h"

#include <errno.h>
#include <unistd.h>

#include "tests/unit/daemon_support.h"

using ClearWayTest = DaemonTest;

TEST_F(ClearWayTest, RemovesWhatTheSendersTreeCannotHoldAndNothingElse) {
  make_file(0, "file", "x");
  EXPECT_EQ(clear_way(0, tree_path(0, "file/below/new").c_str()), 0);
  EXPECT_FALSE(exists(tree_path(0, "file"))) << "a file where a directory is to be";

  make_file(0, "dir/deep/er", "x");
  make_file(0, "kept/file", "kept");
  ASSERT_EQ(symlink("../../kept", tree_path(0, "dir/deep/link").c_str()), 0);
  EXPECT_EQ(clear_way(0, tree_path(0, "dir").c_str()), 0);
  EXPECT_FALSE(exists(tree_path(0, "dir"))) << "a directory where a file is to be";

  for (const char* path : {"", ".", "./", "kept/.", "kept/", "kept/./", "kept/new", "new/new"}) {
    EXPECT_EQ(clear_way(0, tree_path(0, path).c_str()), 0) << path;
    EXPECT_TRUE(exists(tree_path(0, "kept/file"))) << path;
  }
  ASSERT_EQ(symlink("kept", tree_path(0, "link").c_str()), 0);
  EXPECT_EQ(clear_way(0, tree_path(0, "link/file").c_str()), ELOOP);
  EXPECT_TRUE(exists(tree_path(0, "link/file")));
}
