#include "FileSystemUtils.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "ChildRun.h"
#include "TempDir.h"

namespace {

using namespace FileSystemUtils;

// The link's own status; all zero when there is nothing at inPath.
struct stat StatOf(const std::string& inPath) {
  struct stat info {};
  ::lstat(inPath.c_str(), &info);
  return info;
}

bool Present(const std::string& inPath) { return StatOf(inPath).st_nlink != 0; }

void MakeFile(const std::string& inPath, mode_t inMode, uid_t inOwner, gid_t inGroup) {
  WriteFile(inPath, "data");
  ASSERT_EQ(::chown(inPath.c_str(), inOwner, inGroup), 0);
  ASSERT_EQ(::chmod(inPath.c_str(), inMode), 0);
}

TEST(FileSystemUtilsTest, PathStrings) {
  EXPECT_EQ(GetParentPath("a"), "");
  EXPECT_EQ(GetParentPath("/a"), "/");
  EXPECT_EQ(GetParentPath("/a/b"), "/a");
  EXPECT_EQ(GetParentPath("/a/b/"), "/a/b");
  EXPECT_EQ(GetLeafName("a"), "a");
  EXPECT_EQ(GetLeafName("/a/b/"), "");
  EXPECT_EQ(GetLeafName("/x/\xC3\xA9 'q'"), "\xC3\xA9 'q'");
  EXPECT_EQ(AppendPath("/x", "/y"), "/x/y");
  EXPECT_EQ(AppendPath("/x/", "y"), "/x/y");
  EXPECT_EQ(AppendPath("/x/", "//y"), "/x//y");
}

TEST(FileSystemUtilsDeathTest, WrongUseIsAnAssertion) {
  const auto message = [](const std::string& inExpression) {
    return "^source/posix/FileSystemUtilsPosix\\.cpp:[0-9]+: failed assertion `" + inExpression + "'\n$";
  };
  EXPECT_DEATH(AppendPath("", "y"), message("!sPath\\.empty\\(\\)"));
  EXPECT_DEATH(AppendPath("/x", ""), message("!sAppend\\.empty\\(\\)"));
  EXPECT_DEATH(CreateDirectoryChain("/"), message("parentPath != sDir"));
}

TEST(FileSystemUtilsTest, RemovePathRuleTreesAndLinks) {
  TempDir dir("fs-remove");
  ::chmod(dir.Path().c_str(), 0755);
  const std::string own = dir / "own";
  ASSERT_EQ(::mkdir(own.c_str(), 0755), 0);
  ASSERT_EQ(::chown(own.c_str(), kNobody, kNobody), 0);
  // For an ordinary user, each branch of the write-permission rule: owner,
  // group, other (the other bit does not count for the group).
  const struct { const char* name; mode_t mode; uid_t owner; gid_t group; bool removable; } files[] = {
      {"readonly", 0444, kNobody, kNobody, false}, {"writable", 0644, kNobody, kNobody, true},
      {"group-writable", 0464, 0, kNobody, true},  {"group-readonly", 0446, 0, kNobody, false},
      {"other-writable", 0646, 0, 0, true},        {"other-readonly", 0664, 0, 0, false}};
  for (const auto& file : files) MakeFile(own + "/" + file.name, file.mode, file.owner, file.group);
  // And the user's own tree with read-only files and folders goes as a whole
  // (root could remove it even if those were not handled).
  const std::string tree = own + "/tree 'x' \xC3\xA9";
  const auto asNobody = [&] {
    int wrong = 0;
    for (const auto& file : files) wrong += RemovePath(own + "/" + file.name) != file.removable;
    if (!CreateDirectoryChain(tree + "/a/b")) return 100;
    WriteFile(tree + "/a/b/file", "x");
    ::chmod((tree + "/a/b/file").c_str(), 0444);
    ::chmod((tree + "/a/b").c_str(), 0555);
    ::chmod((tree + "/a").c_str(), 0500);
    return wrong + (RemovePath(tree) ? 0 : 10);
  };
  EXPECT_EQ(RunInChild(asNobody, kNobody), 0);
  for (const auto& file : files) EXPECT_NE(Present(own + "/" + file.name), file.removable) << file.name;
  EXPECT_FALSE(Present(tree));

  // The superuser gets no exception; nothing there is success.
  MakeFile(dir / "root-readonly", 0444, 0, 0);
  EXPECT_FALSE(RemovePath(dir / "root-readonly"));
  EXPECT_TRUE(Present(dir / "root-readonly"));
  EXPECT_TRUE(RemovePath(dir / "no folder/none"));

  // Links go as links, dangling or not; a linked folder keeps its content.
  ASSERT_TRUE(CreateDirectoryChain(dir / "target/inner"));
  ASSERT_EQ(::symlink((dir / "target").c_str(), (dir / "link").c_str()), 0);
  ASSERT_EQ(::symlink((dir / "nowhere").c_str(), (dir / "dangling").c_str()), 0);
  EXPECT_TRUE(RemovePath(dir / "link") && RemovePath(dir / "dangling"));
  EXPECT_FALSE(Present(dir / "link") || Present(dir / "dangling"));
  EXPECT_TRUE(Present(dir / "target/inner"));
}

TEST(FileSystemUtilsTest, CreateDirectoryChainCopiesTheParent) {
  TempDir dir("fs-create");
  const std::string base = dir / "base";
  ASSERT_EQ(::mkdir(base.c_str(), 0700), 0);
  ASSERT_EQ(::chown(base.c_str(), kNobody, kNobody), 0);
  ASSERT_EQ(::chmod(base.c_str(), 02750), 0);

  const mode_t oldMask = ::umask(077);  // the copy is not filtered by the umask
  const std::string chain = base + "/b c/'d'/\xC3\xA9";
  EXPECT_TRUE(CreateDirectoryChain(chain));
  ::umask(oldMask);
  for (const std::string& folder : {base + "/b c", base + "/b c/'d'", chain}) {
    const struct stat info = StatOf(folder);
    EXPECT_TRUE(info.st_mode == (S_IFDIR | 02750) && info.st_uid == kNobody && info.st_gid == kNobody) << folder;
  }

  // An existing folder is success and is left as it is; below a file
  // nothing can be made.
  ASSERT_EQ(::chmod(chain.c_str(), 0700), 0);
  EXPECT_TRUE(CreateDirectoryChain(chain));
  EXPECT_EQ(StatOf(chain).st_mode, S_IFDIR | 0700u);
  WriteFile(dir / "file", "x");
  EXPECT_FALSE(CreateDirectoryChain(dir / "file/sub/deeper"));
}

}  // namespace
