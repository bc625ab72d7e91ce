#include "source/posix/LoginWindowPList.h"

#include <gtest/gtest.h>
#include <fcntl.h>
#include <plist/plist.h>
#include <sys/stat.h>

#include <cstdint>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "source/posix/testdata/PrivateUserFolders.h"
#include "tests/support/TempDir.h"

namespace {

const char kKey[] = "AutoLaunchedApplicationDictionary";

struct PlistFree {
  void operator()(plist_t inNode) const { plist_free(inNode); }
};
using Plist = std::unique_ptr<void, PlistFree>;

// The file's root as libplist reads it; null when it does not parse.
Plist ReadPlist(const std::string& inPath) {
  const std::string text = ReadFile(inPath);
  plist_t root = nullptr;
  plist_from_xml(text.data(), static_cast<uint32_t>(text.size()), &root);
  return Plist(root);
}

std::string StringValue(plist_t inNode) {
  if (inNode == nullptr || plist_get_node_type(inNode) != PLIST_STRING) return "<not a string>";
  return plist_get_string_ptr(inNode, nullptr);
}

// The "Path" of every item, in order.
std::vector<std::string> ListedPaths(const std::string& inFile) {
  std::vector<std::string> paths;
  Plist root = ReadPlist(inFile);
  if (!root) return {"<unparsable>"};
  plist_t items = plist_dict_get_item(root.get(), kKey);
  if (items == nullptr) return paths;
  for (uint32_t i = 0; i < plist_array_get_size(items); ++i) {
    paths.push_back(StringValue(plist_dict_get_item(plist_array_get_item(items, i), "Path")));
  }
  return paths;
}

// Moves the file's modification time to 2001, so that any rewrite shows.
void AgeFile(const std::string& inPath) {
  const struct timespec times[2] = {{978307200, 0}, {978307200, 0}};
  ASSERT_EQ(0, ::utimensat(AT_FDCWD, inPath.c_str(), times, 0));
}

time_t ModificationTime(const std::string& inPath) {
  struct stat info;
  if (::stat(inPath.c_str(), &info) != 0) return -1;
  return info.st_mtim.tv_sec;
}

std::string PlistText(const std::string& inRootBody) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
         "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" \"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
         "<plist version=\"1.0\">\n<dict>\n" +
         inRootBody + "</dict>\n</plist>\n";
}

std::string Item(const std::string& inPath, const std::string& inExtra = "") {
  return "<dict><key>Hide</key><true/><key>Path</key><string>" + inPath + "</string>" + inExtra + "</dict>\n";
}

}  // namespace

TEST(LoginWindowPList, AddToMissingFileCreatesOneItem) {
  PrivateUserFolders folders;
  ASSERT_TRUE(AddLoginItem("/opt/Tarvo/Tool"));

  Plist root = ReadPlist(folders.LoginItemsFile());
  ASSERT_TRUE(root);
  ASSERT_EQ(PLIST_DICT, plist_get_node_type(root.get()));
  EXPECT_EQ(1u, plist_dict_get_size(root.get()));
  plist_t items = plist_dict_get_item(root.get(), kKey);
  ASSERT_NE(nullptr, items);
  ASSERT_EQ(PLIST_ARRAY, plist_get_node_type(items));
  ASSERT_EQ(1u, plist_array_get_size(items));
  plist_t item = plist_array_get_item(items, 0);
  ASSERT_EQ(PLIST_DICT, plist_get_node_type(item));
  EXPECT_EQ(2u, plist_dict_get_size(item));
  EXPECT_EQ("/opt/Tarvo/Tool", StringValue(plist_dict_get_item(item, "Path")));
  plist_t hide = plist_dict_get_item(item, "Hide");
  ASSERT_NE(nullptr, hide);
  ASSERT_EQ(PLIST_BOOLEAN, plist_get_node_type(hide));
  uint8_t hidden = 1;
  plist_get_bool_val(hide, &hidden);
  EXPECT_EQ(0, hidden);
}

TEST(LoginWindowPList, AddingAListedPathDoesNotRewrite) {
  PrivateUserFolders folders;
  const std::string file = folders.LoginItemsFile();
  ASSERT_TRUE(AddLoginItem("/opt/a"));
  AgeFile(file);
  const std::string before = ReadFile(file);

  EXPECT_TRUE(AddLoginItem("/opt/a"));
  EXPECT_EQ(978307200, ModificationTime(file));
  EXPECT_EQ(before, ReadFile(file));

  // A new path is appended at the end and the file is rewritten.
  EXPECT_TRUE(AddLoginItem("/opt/b"));
  EXPECT_NE(978307200, ModificationTime(file));
  EXPECT_EQ((std::vector<std::string>{"/opt/a", "/opt/b"}), ListedPaths(file));
}

TEST(LoginWindowPList, RemovingWhatIsNotListedDoesNotWrite) {
  PrivateUserFolders folders;
  const std::string file = folders.LoginItemsFile();
  EXPECT_TRUE(RemoveLoginItem("/opt/a"));
  EXPECT_EQ(-1, ModificationTime(file)) << "the file must not be created";

  ASSERT_TRUE(AddLoginItem("/opt/a"));
  AgeFile(file);
  const std::string before = ReadFile(file);
  EXPECT_TRUE(RemoveLoginItem("/opt/b"));
  EXPECT_EQ(978307200, ModificationTime(file));
  EXPECT_EQ(before, ReadFile(file));
}

TEST(LoginWindowPList, RemovingADuplicatedPathRemovesEveryCopy) {
  PrivateUserFolders folders;
  const std::string file = folders.LoginItemsFile();
  ASSERT_TRUE(AddLoginItem("/opt/first"));  // creates the preferences folder
  WriteFile(file, PlistText(std::string("<key>") + kKey + "</key>\n<array>\n" + Item("/opt/a") +
                            Item("/opt/b", "<key>Extra</key><integer>7</integer>") + Item("/opt/a") +
                            "</array>\n"));
  ASSERT_TRUE(RemoveLoginItem("/opt/a"));
  EXPECT_EQ(std::vector<std::string>{"/opt/b"}, ListedPaths(file));

  // The remaining item keeps its own keys and values.
  Plist root = ReadPlist(file);
  ASSERT_TRUE(root);
  plist_t item = plist_array_get_item(plist_dict_get_item(root.get(), kKey), 0);
  ASSERT_EQ(3u, plist_dict_get_size(item));
  uint64_t extra = 0;
  plist_get_uint_val(plist_dict_get_item(item, "Extra"), &extra);
  EXPECT_EQ(7u, extra);
  uint8_t hidden = 0;
  plist_get_bool_val(plist_dict_get_item(item, "Hide"), &hidden);
  EXPECT_EQ(1, hidden);
}

TEST(LoginWindowPList, RemovingTheLastItemRemovesTheKey) {
  PrivateUserFolders folders;
  const std::string file = folders.LoginItemsFile();
  ASSERT_TRUE(AddLoginItem("/opt/a"));
  ASSERT_TRUE(RemoveLoginItem("/opt/a"));
  // The root has no key left: the file is emptied, not written as <dict/>.
  EXPECT_EQ("", ReadFile(file));

  // Removing from the empty file changes nothing; adding starts afresh.
  AgeFile(file);
  EXPECT_TRUE(RemoveLoginItem("/opt/a"));
  EXPECT_EQ(978307200, ModificationTime(file));
  ASSERT_TRUE(AddLoginItem("/opt/c"));
  EXPECT_EQ(std::vector<std::string>{"/opt/c"}, ListedPaths(file));

  // With another root key the key goes but the file keeps the rest.
  WriteFile(file, PlistText("<key>Other</key><string>kept</string>\n<key>" + std::string(kKey) +
                            "</key><array>" + Item("/opt/c") + "</array>\n"));
  ASSERT_TRUE(RemoveLoginItem("/opt/c"));
  Plist root = ReadPlist(file);
  ASSERT_TRUE(root);
  EXPECT_EQ(1u, plist_dict_get_size(root.get()));
  EXPECT_EQ("kept", StringValue(plist_dict_get_item(root.get(), "Other")));
}

TEST(LoginWindowPList, PathsDifferingInCaseAreDifferentItems) {
  PrivateUserFolders folders;
  const std::string file = folders.LoginItemsFile();
  ASSERT_TRUE(AddLoginItem("/opt/Tool"));
  ASSERT_TRUE(AddLoginItem("/opt/tool"));
  EXPECT_EQ((std::vector<std::string>{"/opt/Tool", "/opt/tool"}), ListedPaths(file));
  ASSERT_TRUE(RemoveLoginItem("/OPT/TOOL"));
  EXPECT_EQ((std::vector<std::string>{"/opt/Tool", "/opt/tool"}), ListedPaths(file));
  ASSERT_TRUE(RemoveLoginItem("/opt/tool"));
  EXPECT_EQ(std::vector<std::string>{"/opt/Tool"}, ListedPaths(file));
}

TEST(LoginWindowPList, KeyOfAnotherTypeIsKeptButWrittenBack) {
  PrivateUserFolders folders;
  const std::string file = folders.LoginItemsFile();
  ASSERT_TRUE(AddLoginItem("/opt/first"));
  WriteFile(file, PlistText("<key>" + std::string(kKey) + "</key><string>not a list</string>\n"));
  AgeFile(file);

  EXPECT_TRUE(RemoveLoginItem("/opt/a"));
  EXPECT_EQ(978307200, ModificationTime(file)) << "removing from a non-list changes nothing";

  EXPECT_TRUE(AddLoginItem("/opt/a"));
  EXPECT_NE(978307200, ModificationTime(file)) << "adding rewrites the file";
  Plist root = ReadPlist(file);
  ASSERT_TRUE(root);
  EXPECT_EQ(1u, plist_dict_get_size(root.get()));
  EXPECT_EQ("not a list", StringValue(plist_dict_get_item(root.get(), kKey)));
}

TEST(LoginWindowPList, OtherKeysAreKept) {
  PrivateUserFolders folders;
  const std::string file = folders.LoginItemsFile();
  ASSERT_TRUE(AddLoginItem("/opt/first"));
  WriteFile(file, PlistText("<key>AutoLaunchedApplicationDictionary</key><array>" + Item("/opt/x") +
                            "</array>\n<key>Count</key><integer>3</integer>\n"
                            "<key>Nested</key><dict><key>Inner</key><string>v</string></dict>\n"));
  ASSERT_TRUE(AddLoginItem("/opt/y"));
  EXPECT_EQ((std::vector<std::string>{"/opt/x", "/opt/y"}), ListedPaths(file));
  Plist root = ReadPlist(file);
  ASSERT_TRUE(root);
  EXPECT_EQ(3u, plist_dict_get_size(root.get()));
  uint64_t count = 0;
  plist_get_uint_val(plist_dict_get_item(root.get(), "Count"), &count);
  EXPECT_EQ(3u, count);
  EXPECT_EQ("v", StringValue(plist_dict_get_item(plist_dict_get_item(root.get(), "Nested"), "Inner")));
}

TEST(LoginWindowPList, UnreadableContentFailsAndIsLeftAlone) {
  PrivateUserFolders folders;
  const std::string file = folders.LoginItemsFile();
  ASSERT_TRUE(AddLoginItem("/opt/first"));
  for (const std::string& content :
       {std::string("this is not a property list\n"),
        std::string("<?xml version=\"1.0\"?><plist version=\"1.0\"><array/></plist>")}) {
    SCOPED_TRACE(content);
    WriteFile(file, content);
    EXPECT_FALSE(AddLoginItem("/opt/a"));
    EXPECT_FALSE(RemoveLoginItem("/opt/a"));
    EXPECT_EQ(content, ReadFile(file));
  }

  // A path that cannot become a Unicode string fails before anything is written.
  WriteFile(file, "");
  EXPECT_FALSE(AddLoginItem("/opt/\xff"));
  EXPECT_FALSE(AddLoginItem(std::string("/opt/a\0b", 8)));
  EXPECT_EQ("", ReadFile(file));
}

TEST(LoginWindowPList, FolderThatCannotBeMadeFails) {
  PrivateUserFolders folders;
  // The preferences folder would have to be made below a plain file.
  WriteFile(folders.Root() + "/blocker", "");
  ScopedEnvironmentVariable config("XDG_CONFIG_HOME", folders.Root() + "/blocker/config");
  EXPECT_FALSE(AddLoginItem("/opt/a"));
  EXPECT_FALSE(RemoveLoginItem("/opt/a"));
}
