#include "LoginWindowPList.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "PrivateHome.h"

// An item as this code writes it, and a root dictionary holding inBefore, then the list of inItems.
static std::string Item(const std::string& inPath) {
  return "<dict><key>Hide</key><false/><key>Path</key><string>" + inPath + "</string></dict>";
}
static std::string Root(const std::string& inItems, const std::string& inBefore = "") {
  return "<dict>" + inBefore + "<key>AutoLaunchedApplicationDictionary</key><array>" + inItems + "</array></dict>";
}

// The root dictionary in inFile, without the writer's line breaks and indentation.
static std::string RootIn(const std::string& inFile) {
  std::string text = ReadFile(inFile);
  text.erase(std::remove_if(text.begin(), text.end(), [](char c) { return c == '\n' || c == '\t'; }), text.end());
  return text.substr(text.find("<dict>"), text.rfind("</plist>") - text.find("<dict>"));
}

TEST(LoginWindowPList, PathsAreListedOnceAndGoWithEveryCopyBesideOneAutostartEntryEach) {
  PrivateHome home;
  home.Set("XDG_CONFIG_HOME", home / "new/config");  // made when missing
  const std::string file = home / "new/config/loginwindow.plist";
  EXPECT_TRUE(RemoveLoginItem("/a") && access(file.c_str(), F_OK) != 0) << "no list to remove from: none made";
  EXPECT_TRUE(AddLoginItem("/a") && RootIn(file) == Root(Item("/a")));
  EXPECT_TRUE(RemoveLoginItem("/a") && ReadFile(file).empty()) << "no key left: 0 bytes, not an empty list";
  // Elements that are not items of the path stay, as do other keys; an unchanged list is not written.
  const std::string other = "<key>Other</key><integer>3</integer>", b = "<dict><key>Path</key><string>/b</string>"
      "<key>X</key><true/></dict>", junk = "<string>/a</string><dict><key>Path</key><integer>1</integer></dict>";
  const std::string text = "<plist version=\"1.0\">" + Root(Item("/a") + junk + b + Item("/a"), other) + "</plist>";
  WriteFile(file, text);
  EXPECT_TRUE(AddLoginItem("/a") && RemoveLoginItem("/A") && ReadFile(file) == text);
  ASSERT_TRUE(AddLoginItem("/c") && RemoveLoginItem("/a"));
  EXPECT_EQ(RootIn(file), Root(junk + b + Item("/c"), other));
  EXPECT_TRUE(RemoveLoginItem("/b") && RemoveLoginItem("/c") && RootIn(file) == Root(junk, other));
  // Each path also has one autostart entry, which a desktop session reads.
  const std::string app = "/opt/My App/run$1 100%.sh", autostart = home / "new/config/autostart/";
  ASSERT_TRUE(AddLoginItem(app) && AddLoginItem(app) && AddLoginItem("/usr/bin/plain"));
  const std::string entry = autostart + "login-item-92a317832e1edb72dc1ca2cffa5da1b6.desktop";
  EXPECT_EQ(ReadFile(entry), "[Desktop Entry]\nType=Application\nName=run$1 100%.sh\nExec=\"/opt/My App/run\\\\$1 100%%.sh\"\n");
  ChildProcess validate({"/usr/bin/desktop-file-validate", entry}, {}, home / "tmp/validate");
  EXPECT_TRUE(validate.Wait() && validate.ExitCode() == 0) << validate.Stdout();
  ASSERT_TRUE(RemoveLoginItem(app));
  EXPECT_EQ(Names(autostart), std::vector<std::string>{"login-item-df65cda9d616840a58a240e89b855373.desktop"});
}

TEST(LoginWindowPList, FailuresLeaveTheFileAsItWas) {
  PrivateHome home;
  const std::string file = home / "config/loginwindow.plist", text = "<plist version=\"1.0\"><array/></plist>";
  // A path must become a Unicode string: well-formed UTF-8.
  EXPECT_TRUE(AddLoginItem("/opt/\xC2\xA9\xDF\x80\xE0\xA0\x80\xE1\x80\x80\xED\x9F\xBF\xEF\xBF\xBD\xF0\x90\x80\x80"
                           "\xF1\x80\x80\x80\xF3\xA0\x80\x81\xF4\x8F\xBF\xBD"));
  for (const std::string bad : {"\x80", "\xC1\xBF", "\xC2\xC0", "\xC2\x7F", "\xE0\x9F\xBF", "\xED\xA0\x80",
                                "\xE1\x80\xC0", "\xF0\x8F\xBF\xBF", "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xE1\x80"})
    EXPECT_FALSE(AddLoginItem("/opt/" + bad)) << bad;
  ASSERT_TRUE(AddLoginItem("/opt/a") && Names(home / "config/autostart").size() == 2);
  WriteFile(file, text);  // a property list, but not a dictionary
  EXPECT_FALSE(AddLoginItem("/opt/a") || RemoveLoginItem("/opt/a") || ReadFile(file) != text);
  EXPECT_EQ(Names(home / "config/autostart").size(), 1u) << "a removed item loses its entry whatever the list holds";
  // An item the list refuses (its key holds no array) is started by nothing either; the add still succeeds.
  WriteFile(file, "<plist><dict><key>AutoLaunchedApplicationDictionary</key><string>x</string></dict></plist>");
  EXPECT_TRUE(AddLoginItem("/opt/a") && Names(home / "config/autostart").size() == 1);
}
