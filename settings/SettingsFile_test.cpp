#include "settings/SettingsFile.h"

#include <gtest/gtest.h>

#include <cctype>
#include <map>
#include <random>
#include <string>

#include <unistd.h>

#include "tests/support/TempDir.h"

namespace {

using Map = std::map<std::string, std::string>;

std::string ReadWrite(const Map& inEntries, const TempDir& inDir) {
  // Builds the map through a file, so the writer sees exactly what a reader
  // would have produced.
  std::string text;
  for (const auto& entry : inEntries) {
    const size_t slash = entry.first.find('/');
    text += "[" + entry.first.substr(0, slash) + "]\n" + entry.first.substr(slash + 1) + "=" + entry.second + "\n";
  }
  WriteFile(inDir / "in.cfg", text);
  SettingsFile file;
  file.Read(inDir / "in.cfg");
  EXPECT_EQ(file.Entries(), inEntries);
  file.Write(inDir / "out.cfg");
  return ReadFile(inDir / "out.cfg");
}

TEST(SettingsFileTest, ReadParsesEveryKindOfLine) {
  TempDir dir("settings-read");
  const std::string lf =
      "top=before any header\n"
      "[ System ]\n"
      "Key = Value \n"
      "  # note\n"
      "# a comment\n"
      "; another comment\n"
      "Flag\n"
      "a=1\n"
      "A=2\n"
      "   \n"
      "\n"
      "[SYSTEM] text after the bracket\n"
      "b = x = y\n"
      "[  ]\n"
      "late=unnamed again\n"
      "[unterminated\n"
      "k=\tv\t\n"
      "[Other]\n"
      "Mixed=CaseValue";  // no line end at the very end
  const Map expected = {
      {"/top", "before any header"}, {"system/key", "Value"}, {"system/# note", "# note"},
      {"system/flag", "Flag"},       {"system/a", "2"},       {"system/", ""},
      {"system/b", "x = y"},         {"/late", "unnamed again"}, {"unterminated/k", "v"},
      {"other/mixed", "CaseValue"},
  };

  SettingsFile file;
  WriteFile(dir / "lf.cfg", lf);
  EXPECT_EQ(file.Read(dir / "lf.cfg"), 0);
  EXPECT_EQ(file.Entries(), expected);

  std::string crlf;
  for (char c : lf) crlf += c == '\n' ? std::string("\r\n") : std::string(1, c);
  WriteFile(dir / "crlf.cfg", crlf);
  SettingsFile crlfFile;
  crlfFile.Read(dir / "crlf.cfg");
  EXPECT_EQ(crlfFile.Entries(), expected);

  // Look-ups fold and trim names; values keep their case.
  EXPECT_EQ(file.GetValue("system", "KEY"), "Value");
  EXPECT_EQ(file.GetValue(" SYSTEM\t", " key\r\n"), "Value");
  EXPECT_EQ(file.GetValue("", "TOP"), "before any header");
  EXPECT_EQ(file.GetValue("other", "mixed"), "CaseValue");
  // Every miss answers with the one shared empty string.
  EXPECT_EQ(file.GetValue("system", "missing"), "");
  EXPECT_EQ(&file.GetValue("system", "missing"), &file.GetValue("nowhere", "key"));

  // A second Read starts from an empty map; a missing file reads as empty.
  EXPECT_EQ(file.Read(dir / "no such file"), 0);
  EXPECT_TRUE(file.Entries().empty());
  EXPECT_EQ(file.Read(dir.Path()), 0);  // a folder cannot be read either
  EXPECT_TRUE(file.Entries().empty());
}

TEST(SettingsFileTest, SetValueStoresUntrimmedErasesBlankAndRefusesBadNames) {
  TempDir dir("settings-set");
  SettingsFile file;
  const std::string& stored = file.SetValue(" S ", "K", " v ");
  EXPECT_EQ(stored, " v ");
  EXPECT_EQ(&stored, &file.GetValue("s", "k"));
  EXPECT_EQ(file.Entries(), (Map{{"s/k", " v "}}));

  EXPECT_EQ(file.SetValue("System", "X", "1"), "1");
  EXPECT_EQ(file.SetValue("system", "x", " \t\r\n"), "");
  EXPECT_EQ(file.GetValue("System", "X"), "");
  EXPECT_EQ(file.SetValue("system", "never there", ""), "");

  EXPECT_EQ(file.SetValue("", "X", "1"), "");
  EXPECT_EQ(file.SetValue("  ", "X", "1"), "");
  EXPECT_EQ(file.SetValue("S", " ", "1"), "");
  EXPECT_EQ(file.SetValue("a/b", "X", "1"), "");
  EXPECT_EQ(file.SetValue("S", "x/y", "1"), "");
  EXPECT_EQ(file.Entries(), (Map{{"s/k", " v "}}));

  // Round trip: the reader trims what the setter kept.
  file.SetValue("Zed", "Name", "Mixed Case");
  EXPECT_EQ(file.Write(dir / "round.cfg"), 0);
  EXPECT_EQ(ReadFile(dir / "round.cfg"), "[s]\nk= v \n[zed]\nname=Mixed Case\n");
  SettingsFile reread;
  reread.Read(dir / "round.cfg");
  EXPECT_EQ(reread.Entries(), (Map{{"s/k", "v"}, {"zed/name", "Mixed Case"}}));
}

TEST(SettingsFileTest, WriterListsEntriesByPrefixOfTheSectionName) {
  TempDir dir("settings-write");
  // "sys" gathers the "system" entries with their names cut at its length,
  // then "system" is written again with its own.
  EXPECT_EQ(ReadWrite({{"sys/key", "2"}, {"system/alpha", "1"}}, dir),
            "[sys]\nkey=2\nem/alpha=1\n[system]\nalpha=1\n");
  // The unnamed section comes first and lists every entry, first character
  // dropped.
  EXPECT_EQ(ReadWrite({{"/k0", "v0"}, {"b/k1", "v1"}}, dir), "[]\nk0=v0\n/k1=v1\n[b]\nk1=v1\n");
  // A blank-only line's entry goes back as a bare "=" line.
  EXPECT_EQ(ReadWrite({{"s/", ""}, {"s/a", "1"}}, dir), "[s]\n=\na=1\n");

  // Write truncates a longer file in place.
  WriteFile(dir / "long.cfg", std::string(10000, 'x'));
  SettingsFile small;
  small.SetValue("a", "b", "c");
  small.Write(dir / "long.cfg");
  EXPECT_EQ(ReadFile(dir / "long.cfg"), "[a]\nb=c\n");

  // A file that cannot be opened silently gets nothing.
  EXPECT_EQ(small.Write(dir / "missing folder/x.cfg"), 0);
  EXPECT_EQ(small.Write(dir.Path()), 0);
}

TEST(SettingsFileTest, PathsWithSpacesQuotesAndNonAsciiBytes) {
  TempDir dir("settings-names");
  const std::string path = dir / "a 'quoted' \"name\" \xC3\xA9\xFF.cfg";
  SettingsFile file;
  file.SetValue("Sect", "Key", "V\xC3\xA9");
  file.Write(path);
  SettingsFile reread;
  reread.Read(path);
  EXPECT_EQ(reread.GetValue("sect", "key"), "V\xC3\xA9");
}

// Properties every map must have, whatever the input bytes.
void ExpectWellFormed(const SettingsFile& inFile) {
  for (const auto& entry : inFile.Entries()) {
    ASSERT_NE(entry.first.find('/'), std::string::npos);
    for (char c : entry.first) ASSERT_FALSE(c >= 'A' && c <= 'Z') << entry.first;
    if (!entry.second.empty()) {
      ASSERT_EQ(std::string(" \t\r\n").find(entry.second.front()), std::string::npos);
      ASSERT_EQ(std::string(" \t\r\n").find(entry.second.back()), std::string::npos);
    }
  }
}

TEST(SettingsFileTest, RandomBytesNeverBreakTheReader) {
  TempDir dir("settings-fuzz");
  const std::string path = dir / "fuzz.cfg";
  std::mt19937 random(20080115);
  const std::string special("[]=#;/ \t\r\n\0Aa", 13);
  for (int round = 0; round < 3000; ++round) {
    std::string bytes(random() % 600, '\0');
    for (char& c : bytes) {
      const unsigned pick = random() % 4;
      c = pick == 0 ? static_cast<char>(random() % 256) : special[random() % special.size()];
    }
    // Fresh files each round: rewriting a truncated file makes the file
    // system flush it on close, which only slows the test down.
    ::unlink(path.c_str());
    ::unlink((dir / "out.cfg").c_str());
    WriteFile(path, bytes);
    SettingsFile file;
    ASSERT_EQ(file.Read(path), 0);
    ExpectWellFormed(file);
    // What was read can be written and read again.
    file.Write(dir / "out.cfg");
    SettingsFile again;
    ASSERT_EQ(again.Read(dir / "out.cfg"), 0);
    ExpectWellFormed(again);
  }

  // One line of several megabytes, with NUL bytes and no line end.
  std::string huge = "Key=";
  huge.append(6 << 20, 'v');
  huge[1000] = '\0';
  WriteFile(path, huge);
  SettingsFile file;
  file.Read(path);
  ASSERT_EQ(file.Entries().size(), 1u);
  EXPECT_EQ(file.GetValue("", "key").size(), huge.size() - 4);

  // Many short lines: each distinct key is kept.
  std::string many;
  for (int i = 0; i < 200000; ++i) many += "[s" + std::to_string(i % 7) + "]\nk" + std::to_string(i) + "=1\n";
  WriteFile(path, many);
  file.Read(path);
  EXPECT_EQ(file.Entries().size(), 200000u);
  EXPECT_EQ(file.GetValue("S3", "k199999"), "");
  EXPECT_EQ(file.GetValue("S2", "k199999"), "1");
}

TEST(SettingsFileTest, HelpersTrimAndFold) {
  EXPECT_EQ(TrimString(" \t\r\na b\n\r\t "), "a b");
  EXPECT_EQ(TrimString(" \t\r\n"), "");
  EXPECT_EQ(TrimString("xxaxx", "x"), "a");
  std::string text = "MiXeD \xC3\x89";
  EXPECT_EQ(ToLower(text), "mixed \xC3\x89");
  EXPECT_EQ(text, "mixed \xC3\x89");
}

}  // namespace
