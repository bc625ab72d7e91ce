#include "LoginWindowPList.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <plist/plist.h>
#include <sys/stat.h>

#include <cstdint>
#include <ctime>
#include <string>

#include "PrivateUserFolders.h"
#include "ScopedEnvironment.h"
#include "TempDir.h"

namespace {

// inText read and written back by libplist, so that two texts holding the
// same property list compare equal whatever their layout.
std::string Normalized(const std::string& inText) {
  plist_t root = nullptr;
  plist_from_xml(inText.data(), static_cast<uint32_t>(inText.size()), &root);
  if (root == nullptr) return "<not a property list>";
  char* xml = nullptr;
  uint32_t length = 0;
  plist_to_xml(root, &xml, &length);
  const std::string text(xml, length);
  plist_to_xml_free(xml);
  plist_free(root);
  return text;
}

std::string PlistText(const std::string& inRootBody) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>" + inRootBody + "</dict></plist>\n";
}

std::string Items(const std::string& inItems) {
  return "<key>AutoLaunchedApplicationDictionary</key><array>" + inItems + "</array>";
}

std::string Item(const std::string& inPath, const std::string& inHide = "<false/>", const std::string& inExtra = "") {
  return "<dict><key>Hide</key>" + inHide + "<key>Path</key><string>" + inPath + "</string>" + inExtra + "</dict>";
}

// Moves the file's modification time to 2001, so that any rewrite shows.
const time_t kAged = 978307200;
void AgeFile(const std::string& inPath) {
  const struct timespec times[2] = {{kAged, 0}, {kAged, 0}};
  ASSERT_EQ(0, ::utimensat(AT_FDCWD, inPath.c_str(), times, 0));
}

time_t ModificationTime(const std::string& inPath) {
  struct stat info;
  return ::stat(inPath.c_str(), &info) == 0 ? info.st_mtim.tv_sec : -1;
}

}  // namespace

TEST(LoginWindowPList, AddingCreatesTheListOnceAndAppends) {
  PrivateUserFolders folders;
  const std::string file = folders.LoginItemsFile();
  ASSERT_TRUE(AddLoginItem("/opt/a"));
  EXPECT_EQ(Normalized(PlistText(Items(Item("/opt/a")))), Normalized(ReadFile(file)));

  AgeFile(file);
  const std::string before = ReadFile(file);
  EXPECT_TRUE(AddLoginItem("/opt/a"));
  EXPECT_EQ(kAged, ModificationTime(file)) << "a listed path must not rewrite the file";
  EXPECT_EQ(before, ReadFile(file));

  // A path differing only in case is a new item, appended at the end.
  EXPECT_TRUE(AddLoginItem("/opt/A"));
  EXPECT_EQ(Normalized(PlistText(Items(Item("/opt/a") + Item("/opt/A")))), Normalized(ReadFile(file)));
}

TEST(LoginWindowPList, RemovingWhatIsNotListedDoesNotWriteAndTheLastItemEmptiesTheFile) {
  PrivateUserFolders folders;
  const std::string file = folders.LoginItemsFile();
  EXPECT_TRUE(RemoveLoginItem("/opt/a"));
  EXPECT_EQ(-1, ModificationTime(file)) << "the file must not be created";

  ASSERT_TRUE(AddLoginItem("/opt/a"));
  AgeFile(file);
  const std::string before = ReadFile(file);
  EXPECT_TRUE(RemoveLoginItem("/opt/b"));
  EXPECT_TRUE(RemoveLoginItem("/OPT/A")) << "paths are compared case and all";
  EXPECT_EQ(kAged, ModificationTime(file));
  EXPECT_EQ(before, ReadFile(file));

  ASSERT_TRUE(RemoveLoginItem("/opt/a"));
  EXPECT_EQ("", ReadFile(file)) << "0 bytes, not an empty property list";
  AgeFile(file);
  EXPECT_TRUE(RemoveLoginItem("/opt/a"));
  EXPECT_EQ(kAged, ModificationTime(file));
  ASSERT_TRUE(AddLoginItem("/opt/c"));
  EXPECT_EQ(Normalized(PlistText(Items(Item("/opt/c")))), Normalized(ReadFile(file)));
}

TEST(LoginWindowPList, RemovingRemovesEveryCopyAndKeepsTheRest) {
  PrivateUserFolders folders;
  const std::string file = folders.LoginItemsFile();
  ASSERT_TRUE(AddLoginItem("/opt/first"));  // creates the preferences folder
  const std::string other = "<key>Other</key><dict><key>Count</key><integer>3</integer></dict>";
  const std::string kept = Item("/opt/b", "<true/>", "<key>Extra</key><integer>7</integer>");
  WriteFile(file, PlistText(other + Items(Item("/opt/a") + kept + Item("/opt/a"))));
  ASSERT_TRUE(RemoveLoginItem("/opt/a"));
  EXPECT_EQ(Normalized(PlistText(other + Items(kept))), Normalized(ReadFile(file)));

  // The last item takes the key with it; other keys stay.
  ASSERT_TRUE(RemoveLoginItem("/opt/b"));
  EXPECT_EQ(Normalized(PlistText(other)), Normalized(ReadFile(file)));
}

TEST(LoginWindowPList, KeyOfAnotherTypeIsKeptButAddingWritesItBack) {
  PrivateUserFolders folders;
  const std::string file = folders.LoginItemsFile();
  ASSERT_TRUE(AddLoginItem("/opt/first"));
  const std::string content = PlistText("<key>AutoLaunchedApplicationDictionary</key><string>not a list</string>");
  WriteFile(file, content);
  AgeFile(file);
  EXPECT_TRUE(RemoveLoginItem("/opt/a"));
  EXPECT_EQ(kAged, ModificationTime(file)) << "removing from a non-list changes nothing";
  EXPECT_TRUE(AddLoginItem("/opt/a"));
  EXPECT_NE(kAged, ModificationTime(file)) << "adding rewrites the file";
  EXPECT_EQ(Normalized(content), Normalized(ReadFile(file)));
}

TEST(LoginWindowPList, FailuresLeaveTheFileAlone) {
  PrivateUserFolders folders;
  const std::string file = folders.LoginItemsFile();
  ASSERT_TRUE(AddLoginItem("/opt/first"));
  // Not a property list; a property list whose root is not a dictionary.
  const std::string kArrayRoot = "<?xml version=\"1.0\"?><plist version=\"1.0\"><array/></plist>";
  for (const std::string& content : {std::string("not a property list\n"), kArrayRoot}) {
    WriteFile(file, content);
    EXPECT_FALSE(AddLoginItem("/opt/a")) << content;
    EXPECT_FALSE(RemoveLoginItem("/opt/a")) << content;
    EXPECT_EQ(content, ReadFile(file));
  }
  // A path that cannot become a Unicode string.
  WriteFile(file, "");
  EXPECT_FALSE(AddLoginItem("/opt/\xff"));
  EXPECT_FALSE(AddLoginItem(std::string("/opt/a\0b", 8)));
  EXPECT_EQ("", ReadFile(file));
  // A preferences folder that would have to be made below a plain file.
  ScopedEnvironmentVariable config("XDG_CONFIG_HOME", file + "/config");
  EXPECT_FALSE(AddLoginItem("/opt/a"));
  EXPECT_FALSE(RemoveLoginItem("/opt/a"));
}
