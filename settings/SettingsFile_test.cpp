#include "SettingsFile.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>

#include "TempDir.h"

namespace {

using Map = std::map<std::string, std::string>;

TEST(SettingsFileTest, ReadParsesEveryKindOfLine) {
  TempDir dir("settings-read");
  // Trimming, folding, comments (indented ones are keys), the "="-less line,
  // duplicates, "[]", unterminated headers and no line end at the very end.
  const std::string lf =
      "top=before any header\n[ System ]\nKey = Value \n  # note\n# a comment\n; another comment\nFlag\n"
      "a=1\nA=2\n   \n\n[SYSTEM] text after the bracket\nb = x = y\n[  ]\nlate=unnamed again\n"
      "[unterminated\nk=\tv\t\n[Other]\nMixed=CaseValue";
  const Map expected = {{"/top", "before any header"}, {"system/key", "Value"}, {"system/# note", "# note"},
                        {"system/flag", "Flag"}, {"system/a", "2"}, {"system/", ""}, {"system/b", "x = y"},
                        {"/late", "unnamed again"}, {"unterminated/k", "v"}, {"other/mixed", "CaseValue"}};
  std::string crlf;
  for (char c : lf) crlf += c == '\n' ? std::string("\r\n") : std::string(1, c);
  SettingsFile file;
  for (const std::string& text : {crlf, lf}) {
    WriteFile(dir / "in.cfg", text);
    EXPECT_EQ(file.Read(dir / "in.cfg"), 0);
    EXPECT_EQ(file.Entries(), expected);
  }

  // Look-ups trim and fold names; values keep their case.
  EXPECT_EQ(file.GetValue(" SYSTEM\t", " key\r\n"), "Value");
  EXPECT_EQ(file.GetValue("", "TOP"), "before any header");
  EXPECT_EQ(file.GetValue("system", "missing"), "");
  // A second Read starts from an empty map; a missing file reads as empty.
  EXPECT_EQ(file.Read(dir / "no such file"), 0);
  EXPECT_TRUE(file.Entries().empty());

  // The helpers: any trim set; ToLower folds in place and returns the result.
  EXPECT_EQ(TrimString("xxaxx", "x"), "a");
  std::string text = "MiXeD \xC3\x89";
  EXPECT_EQ(ToLower(text), "mixed \xC3\x89");
  EXPECT_EQ(text, "mixed \xC3\x89");
}

TEST(SettingsFileTest, SetValueRulesAndRoundTrip) {
  TempDir dir("settings-set");
  SettingsFile file;
  EXPECT_EQ(file.SetValue(" S ", "K", " v "), " v ");  // stored untrimmed
  EXPECT_EQ(file.SetValue("System", "X", "1"), "1");
  EXPECT_EQ(file.SetValue("system", "x", " \t\r\n"), "");  // a blank value erases
  // Empty names and names holding "/" are refused.
  const char* const refused[][2] = {{"", "X"}, {"S", " "}, {"a/b", "X"}, {"S", "x/y"}};
  for (const auto& names : refused) EXPECT_EQ(file.SetValue(names[0], names[1], "1"), "") << names[0] << names[1];
  EXPECT_EQ(file.Entries(), (Map{{"s/k", " v "}}));

  // Through a file whose name has spaces, quotes and non-ASCII bytes, which
  // was longer before (truncated); the reader trims what the setter kept. A
  // file that cannot be opened silently gets nothing.
  file.SetValue("Zed", "Name", "Mixed \xC3\xA9");
  const std::string path = dir / "a 'quoted' \"name\" \xC3\xA9\xFF.cfg";
  WriteFile(path, std::string(10000, 'x'));
  EXPECT_EQ(file.Write(path), 0);
  EXPECT_EQ(file.Write(dir / "missing folder/x.cfg"), 0);
  EXPECT_EQ(ReadFile(path), "[s]\nk= v \n[zed]\nname=Mixed \xC3\xA9\n");
  SettingsFile reread;
  reread.Read(path);
  EXPECT_EQ(reread.Entries(), (Map{{"s/k", "v"}, {"zed/name", "Mixed \xC3\xA9"}}));
}

// What Write makes of the map Read builds from inText.
std::string Rewrite(const TempDir& inDir, const std::string& inText) {
  WriteFile(inDir / "in.cfg", inText);
  SettingsFile file;
  file.Read(inDir / "in.cfg");
  file.Write(inDir / "out.cfg");
  return ReadFile(inDir / "out.cfg");
}

TEST(SettingsFileTest, WriterListsEntriesByPrefixOfTheSectionName) {
  TempDir dir("settings-write");
  // "sys" also gathers the "system" entries, names cut at its length.
  EXPECT_EQ(Rewrite(dir, "[System]\nAlpha=1\n[sys]\nKEY=2\n"), "[sys]\nkey=2\nem/alpha=1\n[system]\nalpha=1\n");
  // "[]" comes first and lists every entry with its first character dropped;
  // a blank-only line's entry goes back as a bare "=" line.
  EXPECT_EQ(Rewrite(dir, "k0=v0\n[b]\nk1=v1\n  \n"), "[]\nk0=v0\n/=\n/k1=v1\n[b]\n=\nk1=v1\n");
}

TEST(SettingsFileTest, BinaryBytesHugeLinesAndManyLines) {
  TempDir dir("settings-bad-input");
  const std::string path = dir / "bad.cfg";
  // Three thousand files of random bytes, NUL included, mostly those with a
  // meaning to the reader.
  std::mt19937 random(20080115);
  const std::string special("[]=#;/ \t\r\n\0Aa", 13);
  SettingsFile file;
  for (int round = 0; round < 3000; ++round) {
    std::string bytes(random() % 1024, '\0');
    for (char& c : bytes) c = random() % 4 == 0 ? static_cast<char>(random()) : special[random() % special.size()];
    WriteFile(path, bytes);
    ASSERT_EQ(file.Read(path), 0);
    for (const auto& [name, value] : file.Entries()) {  // names folded, values trimmed
      std::string folded = name;
      ASSERT_TRUE(name.find('/') != std::string::npos && ToLower(folded) == name && TrimString(value) == value)
          << "round " << round << ": " << name;
    }
  }

  // One line of several megabytes, with a NUL byte and no line end.
  std::string huge = "Key=" + std::string(6 << 20, 'v');
  huge[1000] = '\0';
  WriteFile(path, huge);
  file.Read(path);
  ASSERT_EQ(file.Entries().size(), 1u);
  EXPECT_EQ(file.GetValue("", "key").size(), huge.size() - 4);

  // Many short lines: each distinct key is kept.
  std::string many;
  for (int i = 0; i < 200000; ++i) many += "[s" + std::to_string(i % 7) + "]\nk" + std::to_string(i) + "=1\n";
  WriteFile(path, many);
  file.Read(path);
  EXPECT_EQ(file.Entries().size(), 200000u);
  EXPECT_EQ(file.GetValue("S2", "k199999"), "1");
}

}  // namespace
