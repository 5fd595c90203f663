#include "redundancy_health/transfer/clear_way.h"

#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/unit/daemon_support.h"

using ClearWayTest = DaemonTest;

TEST_F(ClearWayTest, RemovesWhatTheSendersTreeCannotHold) {
  make_file(0, "file", "x");
  make_file(0, "file beside", "x");
  EXPECT_EQ(clear_way(0, tree_path(0, "file/below/new").c_str()), 0);
  EXPECT_FALSE(exists(tree_path(0, "file"))) << "a file where a directory is to be";

  make_file(0, "dir/deep/er", "x");
  make_file(0, "outside", "kept");
  ASSERT_EQ(symlink(tree_path(0, "outside").c_str(), tree_path(0, "dir/deep/link").c_str()), 0);
  EXPECT_EQ(clear_way(0, tree_path(0, "dir").c_str()), 0);
  EXPECT_FALSE(exists(tree_path(0, "dir"))) << "a directory where a file is to be";
  EXPECT_EQ(read_file(tree_path(0, "outside")), "kept") << "links are not followed";
  EXPECT_TRUE(exists(tree_path(0, "file beside")));
}

TEST_F(ClearWayTest, KeepsEveryDirectoryThatAPathOnlyPassesOrNamesItself) {
  make_file(1, "dir/kept", "x");
  for (const char* path : {"", ".", "./", "dir/.", "dir/", "dir/./", "dir/new", "new", "new/new"}) {
    EXPECT_EQ(clear_way(1, tree_path(1, path).c_str()), 0) << path;
    EXPECT_TRUE(exists(tree_path(1, "dir/kept"))) << path;
  }
}

TEST_F(ClearWayTest, NeitherRemovesNorPassesASymbolicLink) {
  make_file(2, "elsewhere/kept", "x");
  ASSERT_EQ(symlink("elsewhere", tree_path(2, "link").c_str()), 0);
  EXPECT_EQ(clear_way(2, tree_path(2, "link/kept").c_str()), ELOOP);
  EXPECT_EQ(clear_way(2, tree_path(2, "link/deeper/kept").c_str()), ELOOP);
  EXPECT_TRUE(exists(tree_path(2, "link")));
  EXPECT_TRUE(exists(tree_path(2, "elsewhere/kept")));
}
