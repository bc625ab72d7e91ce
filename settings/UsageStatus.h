// Per-user usage status of each kind of log, kept in "UserSettings.cfg".
//
// The kind is the settings section (the log file's name up to its first "_").
// Keys: "Status" ("Active", "Disabled", "Hibernate") and "HibernateWakeDate"
// (like "2006-Jan-05": the first day a hibernating kind is active again).
#ifndef PORVANE_SETTINGS_USAGESTATUS_H
#define PORVANE_SETTINGS_USAGESTATUS_H

#include <string>
#include <utility>

enum UsageStatus : unsigned {
  kUsageActive = 0,
  kUsageDisabled = 1,
  kUsageHibernate = 2,
};

// The status file of one user. Every call reads the file afresh (a reply can
// change a status mid-pass) and rewrites it whole when it changes anything.
class UsageStatusFile {
 public:
  // inPath: the user settings file (GetUserPaths). An empty path reads as an
  // empty file and loses every write: each kind then counts as Active.
  explicit UsageStatusFile(std::string inPath) : mPath(std::move(inPath)) {}

  // Sets outStatus to the stored status of inSection, reactivating a
  // hibernation whose wake date is today or past (or missing, or not a date)
  // and writing "Active" for a kind seen the first time or holding an
  // unknown value. Always returns 0; outStatus is only written on those
  // paths.
  int GetUsageStatus(const char* inSection, unsigned& outStatus) const;

  // Stores inStatus for inSection ("Disabled" for 1; "Hibernate" with a wake
  // date today + inDays for 2; "Active" otherwise) and rewrites the file.
  // A wake date outside the calendar's years 1400 to 9999 is held at the
  // nearest end of that range. Always returns 0.
  int SetUsageStatus(const char* inSection, unsigned inStatus, int inDays) const;

 private:
  std::string mPath;
};

#endif  // PORVANE_SETTINGS_USAGESTATUS_H
