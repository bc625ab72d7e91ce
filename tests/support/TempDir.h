// A private temporary folder for one test, removed with everything in it when
// the object goes away.
#ifndef PORVANE_TESTS_SUPPORT_TEMPDIR_H
#define PORVANE_TESTS_SUPPORT_TEMPDIR_H

#include <string>
#include <vector>

class TempDir {
 public:
  // Creates a fresh folder under $TMPDIR (else /tmp) named after inTag.
  explicit TempDir(const std::string& inTag = "porvane");
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& Path() const { return mPath; }
  // Path() + "/" + inRelative.
  std::string operator/(const std::string& inRelative) const { return mPath + "/" + inRelative; }

 private:
  std::string mPath;
};

// Writes inContent to inPath (creating or truncating it); throws on failure.
void WriteFile(const std::string& inPath, const std::string& inContent);
// The whole content of inPath; throws when it cannot be read.
std::string ReadFile(const std::string& inPath);
// The names in inFolder, sorted.
std::vector<std::string> Names(const std::string& inFolder);

#endif  // PORVANE_TESTS_SUPPORT_TEMPDIR_H
