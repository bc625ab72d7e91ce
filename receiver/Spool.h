// The folder where the receiver keeps what it was sent, one file per name.
#ifndef PORVANE_RECEIVER_SPOOL_H
#define PORVANE_RECEIVER_SPOOL_H

#include <string>
#include <string_view>

class Spool {
 public:
  // REQUIRES: inFolder names an existing folder; it must remain so while the
  // Spool is used.
  explicit Spool(std::string inFolder);

  // The name an upload called inFileName is stored under: its last path
  // component. "" when that is unusable ("", ".", "..", or holding a zero
  // byte), so nothing can ever be written outside the folder.
  static std::string StoredName(std::string_view inFileName);

  // Writes inContent as <folder>/<inStoredName>, replacing any earlier file
  // of that name at once (written aside, then renamed over it), so readers
  // see either the old or the new content. Returns 0, or the errno value of
  // the step that failed (nothing is left behind then).
  // REQUIRES: inStoredName is a non-empty result of StoredName.
  // Thread-safe: concurrent stores of one name leave one of them whole.
  int Store(const std::string& inStoredName, std::string_view inContent) const;

  const std::string& Folder() const { return mFolder; }

 private:
  std::string mFolder;
};

#endif  // PORVANE_RECEIVER_SPOOL_H
