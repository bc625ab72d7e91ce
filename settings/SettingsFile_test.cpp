#include "SettingsFile.h"

#include <gtest/gtest.h>

#include <string>

#include "PrivateHome.h"

namespace {

// The file Write makes of the map Read builds from inText.
std::string Rewrite(const PrivateHome& inDir, const std::string& inText) {
  WriteFile(inDir / "in.cfg", inText);
  SettingsFile file;
  EXPECT_EQ(file.Read(inDir / "in.cfg"), 0);
  EXPECT_EQ(file.Write(inDir / "out.cfg"), 0);
  return ReadFile(inDir / "out.cfg");
}

TEST(SettingsFileTest, ReadsEveryKindOfLineAndWritesTheMapBack) {
  PrivateHome dir;
  // Trimming and folding, comments (an indented one is a key), the "="-less
  // line, a repeated key, a blank-only line, text after "]", an unclosed
  // header, no line end at the very end; LF and CR LF read alike.
  const std::string lf =
      "[ System ]\nKey = Value \n  # note\n# comment\n; comment\nFlag\na=1\nA=2\n   \n\n[SYSTEM] x\nb = x = y\n"
      "[unclosed\nk=\tv\t\n[Other]\nMixed=CaseValue";
  std::string crlf;
  for (char c : lf) crlf += c == '\n' ? std::string("\r\n") : std::string(1, c);
  const std::string written =
      "[other]\nmixed=CaseValue\n[system]\n=\n# note=# note\na=2\nb=x = y\nflag=Flag\nkey=Value\n[unclosed]\nk=v\n";
  EXPECT_EQ(Rewrite(dir, lf), written);
  EXPECT_EQ(Rewrite(dir, crlf), written);

  SettingsFile file;
  file.Read(dir / "in.cfg");
  EXPECT_EQ(file.GetValue(" SYSTEM\t", " key\r\n"), "Value");
  EXPECT_EQ(file.GetValue("system", "missing"), "");
  // A second Read starts afresh; a missing file reads as empty.
  file.Read(dir / "no such file");
  EXPECT_EQ(file.GetValue("system", "key"), "");
}

TEST(SettingsFileTest, SetValueStoresUntrimmedAndRefusesWhatCannotBeWritten) {
  PrivateHome dir;
  SettingsFile file;
  EXPECT_EQ(file.SetValue(" S ", "K", " v "), " v ");
  EXPECT_EQ(file.SetValue("System", "X", "1"), "1");
  EXPECT_EQ(file.SetValue("system", "x", " \t\r\n"), "");  // a blank value erases
  for (const auto& [section, key] : {std::pair{"", "X"}, {"S", " "}, {"a/b", "X"}, {"S", "x/y"}}) {
    EXPECT_EQ(file.SetValue(section, key, "1"), "") << section << key;
  }
  file.SetValue("Zed", "Name", "Mixed \xC3\xA9");
  // The file is truncated; a file that cannot be opened silently gets nothing.
  const std::string path = dir / "a 'quoted' \xC3\xA9.cfg";
  WriteFile(path, std::string(10000, 'x'));
  EXPECT_EQ(file.Write(path), 0);
  EXPECT_EQ(file.Write(dir / "missing/x.cfg"), 0);
  EXPECT_EQ(ReadFile(path), "[s]\nk= v \n[zed]\nname=Mixed \xC3\xA9\n");
  SettingsFile reread;
  reread.Read(path);
  EXPECT_EQ(reread.GetValue("s", "k"), "v");
}

TEST(SettingsFileTest, WriterListsEntriesByPrefixOfTheSectionName) {
  PrivateHome dir;
  // "sys" also gathers the "system" entries, names cut at its length.
  EXPECT_EQ(Rewrite(dir, "[System]\nAlpha=1\n[sys]\nKEY=2\n"), "[sys]\nkey=2\nem/alpha=1\n[system]\nalpha=1\n");
  // "[]" comes first and lists every entry with its first character dropped.
  EXPECT_EQ(Rewrite(dir, "k0=v0\n[b]\nk1=v1\n"), "[]\nk0=v0\n/k1=v1\n[b]\nk1=v1\n");
}

}  // namespace
