#include "FileSystemUtils.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "PrivateHome.h"

using namespace FileSystemUtils;

TEST(FileSystemUtils, ReadWholeFileTakesRegularFilesOnly) {
  PrivateHome dir;
  std::string content = "old";
  ASSERT_TRUE(WriteWholeFile(dir / "file", std::string("a\0\xff", 3)) && mkfifo((dir / "fifo").c_str(), 0600) == 0);
  EXPECT_TRUE(ReadWholeFile(dir / "file", content) == ReadStatus::kComplete && content == std::string("a\0\xff", 3));
  for (const std::string& path : {dir.Root(), dir / "missing", dir / "fifo"})  // opening a pipe would wait for a writer
    EXPECT_TRUE(ReadWholeFile(path, content) == ReadStatus::kCannotOpen && content.empty()) << path;
}

TEST(FileSystemUtils, NewFoldersAreLikeTheirParentAndRemovePathGoesByTheModeBitsEvenForRoot) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to make files of other users";
  PrivateHome home;
  const std::string dir = home / "tmp";
  ASSERT_TRUE(chmod(home.Root().c_str(), 0711) == 0 && chmod(dir.c_str(), 0751) == 0 &&
              chown(dir.c_str(), kNobody, kNobody) == 0);
  // Made by root in nobody's folder, each new folder is nobody's, with the same mode.
  struct stat tree {};
  ASSERT_TRUE(CreateDirectoryChain(dir + "/tree/a") && CreateDirectoryChain(dir + "/tree/a"));
  EXPECT_TRUE(stat((dir + "/tree/a").c_str(), &tree) == 0 && tree.st_mode == (S_IFDIR | 0751) && tree.st_uid == kNobody);
  // Files named by mode and owner: nobody ("n"), root with group nobody ("g"), root and group root ("r").
  for (const std::string name : {"444n", "464n", "644n", "464g", "646g", "446r", "664r", "tree/a/400r"}) {
    WriteFile(dir + "/" + name, "log");
    ASSERT_EQ(chown((dir + "/" + name).c_str(), name.back() == 'n' ? kNobody : 0, name.back() == 'r' ? 0 : kNobody) |
                  chmod((dir + "/" + name).c_str(), std::stoul(GetLeafName(name), nullptr, 8)), 0);
  }
  ASSERT_TRUE(chmod((dir + "/tree/a").c_str(), 0500) == 0 && symlink("none", (dir + "/link").c_str()) == 0);
  EXPECT_FALSE(RemovePath(dir + "/446r") || CreateDirectoryChain(dir + "/446r/x"));
  // Nobody's trees go whole, read-only parts and links included; files go by the owner, else group, else other bit.
  EXPECT_EQ(RunAsUser(kNobody, [&] {
              int kept = RemovePath(dir + "/missing/file") ? 0 : 100;
              for (const std::string& name : Names(dir)) kept += RemovePath(dir + "/" + name) ? 0 : 1;
              return kept;
            }), 4);
  EXPECT_EQ(Names(dir), (std::vector<std::string>{"444n", "464n", "646g", "664r"}));
}
