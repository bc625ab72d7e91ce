#include "source/FileSystemUtils.h"

#include <gtest/gtest.h>

#include <string>

#include <sys/stat.h>
#include <unistd.h>

#include "source/posix/testdata/ChildRun.h"
#include "tests/support/TempDir.h"

namespace {

using namespace FileSystemUtils;

struct stat StatOf(const std::string& inPath) {
  struct stat info {};
  EXPECT_EQ(::lstat(inPath.c_str(), &info), 0) << inPath;
  return info;
}

void MakeFile(const std::string& inPath, mode_t inMode, uid_t inOwner = 0, gid_t inGroup = 0) {
  WriteFile(inPath, "data");
  ASSERT_EQ(::chown(inPath.c_str(), inOwner, inGroup), 0);
  ASSERT_EQ(::chmod(inPath.c_str(), inMode), 0);
}

// A TempDir that other users may pass through.
class SharedTempDir : public TempDir {
 public:
  explicit SharedTempDir(const std::string& inTag) : TempDir(inTag) { ::chmod(Path().c_str(), 0755); }
};

TEST(FileSystemUtilsTest, PathStrings) {
  EXPECT_EQ(GetPathSeparator(), "/");
  EXPECT_EQ(GetPathSeparatorChar(), '/');

  EXPECT_EQ(GetParentPath("a"), "");
  EXPECT_EQ(GetParentPath("/a"), "/");
  EXPECT_EQ(GetParentPath("/"), "/");
  EXPECT_EQ(GetParentPath("/a/b"), "/a");
  EXPECT_EQ(GetParentPath("/a/b/"), "/a/b");
  EXPECT_EQ(GetParentPath("a b/c d"), "a b");

  EXPECT_EQ(GetLeafName("a"), "a");
  EXPECT_EQ(GetLeafName("/a/b"), "b");
  EXPECT_EQ(GetLeafName("/a/b/"), "");
  EXPECT_EQ(GetLeafName("/x/\xC3\xA9 'q'"), "\xC3\xA9 'q'");

  EXPECT_EQ(AppendPath("/x", "/y"), "/x/y");
  EXPECT_EQ(AppendPath("/x/", "y"), "/x/y");
  EXPECT_EQ(AppendPath("/x", "y"), "/x/y");
  EXPECT_EQ(AppendPath("/x/", "//y"), "/x//y");
  EXPECT_EQ(AppendPath("/x/", "/"), "/x/");
  EXPECT_EQ(AppendPath("x", "y/../z"), "x/y/../z");
}

TEST(FileSystemUtilsDeathTest, WrongUseIsAnAssertion) {
  EXPECT_DEATH(AppendPath("", "y"),
               "^source/posix/FileSystemUtilsPosix\\.cpp:[0-9]+: failed assertion `!sPath\\.empty\\(\\)'\n$");
  EXPECT_DEATH(AppendPath("/x", ""),
               "^source/posix/FileSystemUtilsPosix\\.cpp:[0-9]+: failed assertion `!sAppend\\.empty\\(\\)'\n$");
  EXPECT_DEATH(CreateDirectoryChain("/"),
               "^source/posix/FileSystemUtilsPosix\\.cpp:[0-9]+: failed assertion `parentPath != sDir'\n$");
  // A relative name's parent chain ends in "", which is its own parent.
  EXPECT_DEATH(CreateDirectoryChain("no-such-relative-folder-for-porvane"), "failed assertion `parentPath != sDir'");
}

TEST(FileSystemUtilsTest, RemovePathFollowsTheWritePermissionRule) {
  SharedTempDir dir("fs-remove-rule");
  const std::string own = dir / "own";
  ASSERT_EQ(::mkdir(own.c_str(), 0755), 0);
  ASSERT_EQ(::chown(own.c_str(), kNobody, kNobody), 0);

  // As an ordinary user: each branch of the rule, owner, group, other.
  MakeFile(own + "/readonly", 0444, kNobody, kNobody);
  MakeFile(own + "/writable", 0644, kNobody, kNobody);
  MakeFile(own + "/group-writable", 0464, 0, kNobody);
  MakeFile(own + "/group-readonly", 0446, 0, kNobody);  // the other bit does not count
  MakeFile(own + "/other-writable", 0646, 0, 0);
  MakeFile(own + "/other-readonly", 0664, 0, 0);
  const int result = RunInChild(
      [&] {
        if (RemovePath(own + "/readonly")) return 1;
        if (!RemovePath(own + "/writable")) return 2;
        if (!RemovePath(own + "/group-writable")) return 3;
        if (RemovePath(own + "/group-readonly")) return 4;
        if (!RemovePath(own + "/other-writable")) return 5;
        if (RemovePath(own + "/other-readonly")) return 6;
        return 0;
      },
      kNobody);
  EXPECT_EQ(result, 0);
  EXPECT_TRUE(PathExists(own + "/readonly"));
  EXPECT_FALSE(PathExists(own + "/writable"));
  EXPECT_FALSE(PathExists(own + "/group-writable"));
  EXPECT_TRUE(PathExists(own + "/group-readonly"));
  EXPECT_FALSE(PathExists(own + "/other-writable"));
  EXPECT_TRUE(PathExists(own + "/other-readonly"));

  // The superuser gets no exception: its own read-only file stays too.
  ASSERT_EQ(::geteuid(), 0u) << "the tests run as root";
  MakeFile(dir / "root-readonly", 0444);
  EXPECT_FALSE(RemovePath(dir / "root-readonly"));
  EXPECT_TRUE(PathExists(dir / "root-readonly"));
  MakeFile(dir / "root-writable", 0200);
  EXPECT_TRUE(RemovePath(dir / "root-writable"));
  EXPECT_FALSE(PathExists(dir / "root-writable"));

  // Nothing there is success.
  EXPECT_TRUE(RemovePath(dir / "never existed"));
  EXPECT_TRUE(RemovePath(dir / "no folder/none"));
}

TEST(FileSystemUtilsTest, RemovePathTakesWholeTreesAndLinksNotTargets) {
  SharedTempDir dir("fs-remove-tree");
  const std::string work = dir / "work";
  ASSERT_EQ(::mkdir(work.c_str(), 0755), 0);
  ASSERT_EQ(::chown(work.c_str(), kNobody, kNobody), 0);

  // An ordinary user's tree with read-only files and folders goes as a whole.
  const int result = RunInChild(
      [&] {
        const std::string tree = work + "/tree 'x' \xC3\xA9";
        const std::string deep = tree + "/a/b";
        if (!CreateDirectoryChain(deep)) return 1;
        WriteFile(deep + "/file", "x");
        WriteFile(tree + "/a/top", "x");
        ::symlink("/etc/passwd", (tree + "/link").c_str());
        ::chmod((deep + "/file").c_str(), 0444);
        ::chmod((tree + "/a/top").c_str(), 0);
        ::chmod(deep.c_str(), 0555);
        ::chmod((tree + "/a").c_str(), 0500);
        if (!RemovePath(tree)) return 2;
        if (PathExists(tree)) return 3;
        return 0;
      },
      kNobody);
  EXPECT_EQ(result, 0);

  // A link to a folder is removed as a link; the folder keeps its content.
  const std::string target = dir / "target";
  ASSERT_TRUE(CreateDirectoryChain(target + "/inner"));
  WriteFile(target + "/inner/keep", "x");
  ASSERT_EQ(::symlink(target.c_str(), (dir / "link").c_str()), 0);
  EXPECT_TRUE(RemovePath(dir / "link"));
  EXPECT_NE(::access((dir / "link").c_str(), F_OK), 0);
  EXPECT_TRUE(PathExists(target + "/inner/keep"));

  // A dangling link is something, and goes.
  ASSERT_EQ(::symlink((dir / "nowhere").c_str(), (dir / "dangling").c_str()), 0);
  EXPECT_FALSE(PathExists(dir / "dangling"));
  EXPECT_TRUE(RemovePath(dir / "dangling"));
  struct stat info;
  EXPECT_NE(::lstat((dir / "dangling").c_str(), &info), 0);

  // Root removes a read-only tree of its own.
  ASSERT_TRUE(CreateDirectoryChain(dir / "rtree/x/y"));
  MakeFile(dir / "rtree/x/y/f", 0444);
  ::chmod((dir / "rtree/x/y").c_str(), 0500);
  EXPECT_TRUE(RemovePath(dir / "rtree"));
  EXPECT_FALSE(PathExists(dir / "rtree"));
}

TEST(FileSystemUtilsTest, CreateDirectoryChainCopiesTheParent) {
  SharedTempDir dir("fs-create");
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
    EXPECT_TRUE(S_ISDIR(info.st_mode)) << folder;
    EXPECT_EQ(info.st_mode & 07777, 02750u) << folder;
    EXPECT_EQ(info.st_uid, static_cast<uid_t>(kNobody)) << folder;
    EXPECT_EQ(info.st_gid, static_cast<gid_t>(kNobody)) << folder;
  }

  // An existing folder is success and is left as it is.
  ASSERT_EQ(::chmod(chain.c_str(), 0700), 0);
  EXPECT_TRUE(CreateDirectoryChain(chain));
  EXPECT_EQ(StatOf(chain).st_mode & 07777, 0700u);
  EXPECT_TRUE(CreateDirectoryChain(chain + "/"));

  // Below a regular file nothing can be made.
  WriteFile(dir / "file", "x");
  EXPECT_FALSE(CreateDirectoryChain(dir / "file/sub/deeper"));
  EXPECT_FALSE(PathExists(dir / "file/sub"));

  // An ordinary user cannot create in a folder it may not write.
  const int result = RunInChild([&] { return CreateDirectoryChain(dir / "root-owned/x") ? 1 : 0; }, kNobody);
  EXPECT_EQ(result, 0);
  EXPECT_FALSE(PathExists(dir / "root-owned"));
}

}  // namespace
