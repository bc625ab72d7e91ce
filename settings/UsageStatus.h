// Per-user usage status of each kind of log, kept in "UserSettings.cfg".
//
// The kind is the settings section (the log file's name up to its first "_").
// Keys: "Status" ("Active", "Disabled", "Hibernate") and "HibernateWakeDate"
// (like "2006-Jan-05": the first day a hibernating kind is active again).
#ifndef PORVANE_SETTINGS_USAGESTATUS_H
#define PORVANE_SETTINGS_USAGESTATUS_H

#include <sys/stat.h>

#include <string>
#include <utility>
#include <vector>

#include "SettingsFile.h"

enum UsageStatus : unsigned {
  kUsageActive = 0,
  kUsageDisabled = 1,
  kUsageHibernate = 2,
};

// The status file of one user for the length of one run.
//
// The file is read once, on the first call, and kept in memory: a status
// the receiver sets is in force for the rest of the run at once, even when
// it could not be stored. A store never truncates the file in place: the
// whole text (as SettingsFile::Write would write it) replaces the old file
// through FileSystemUtils::ReplaceWholeFile, which follows a link to its
// target, keeps the file's mode, leaves a file the user may not write by its
// mode bits as it is, and leaves the old file whole on any failure. Before
// writing, a file that changed on disk since it was read (device, inode,
// size or modification time) is read again and only this run's own changes
// are applied to it.
//
// A failed store writes one line to standard error (unless the store before
// failed for the same reason):
//   "porvane: cannot store the usage status in PATH: REASON; the file is left as it was"
// and is kept in AnyStoreFailed(); the changes it carried stay pending and
// go with the next store. A file that could not be read whole (other than
// a missing one) is never replaced: the reason is the read's. An empty path
// (no settings folder) has nowhere to keep anything: a status the receiver
// sets fails to be stored, and the look-ups' own changes are dropped, as a
// missing status reads as Active anyway.
//
// Not thread-safe. Another process changing the file between this run's
// stores is only guarded against by the machine-wide upload lock.
class UsageStatusFile {
 public:
  // inPath: the user settings file (GetUserPaths). Reads nothing yet.
  explicit UsageStatusFile(std::string inPath) : mPath(std::move(inPath)) {}
  UsageStatusFile(const UsageStatusFile&) = delete;
  UsageStatusFile& operator=(const UsageStatusFile&) = delete;

  // Sets outStatus to the status of inSection, reactivating a hibernation
  // whose wake date is today or past (or missing, or not a date) and setting
  // "Active" for a kind seen the first time or holding an unknown value.
  // Those changes are not written here: they wait for the next
  // SetUsageStatus or Flush. Always returns 0; outStatus is only written on
  // those paths.
  int GetUsageStatus(const char* inSection, unsigned& outStatus);

  // Sets inStatus for inSection ("Disabled" for 1; "Hibernate" with a wake
  // date today + inDays for 2; "Active" otherwise) and stores the file with
  // every change still pending. A wake date outside the calendar's years 1400
  // to 9999 is held at the nearest end of that range. Returns 0 when stored
  // (or nothing changed), 1 when the store failed (reported as above); the
  // new status holds for the rest of the run either way.
  int SetUsageStatus(const char* inSection, unsigned inStatus, int inDays);

  // Stores the changes still pending (the look-ups' own, or those of a
  // failed store). True when there were none or they were stored (or, with
  // an empty path, dropped); false when this store failed (reported as
  // above).
  bool Flush();

  // True when any store of this object has failed, even if a later one
  // succeeded: the run then ends with status 1.
  bool AnyStoreFailed() const { return mStoreFailed; }

 private:
  // What the file was on disk when read or last stored.
  struct DiskState {
    bool exists = false;
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    struct timespec modified = {0, 0};
    bool operator==(const DiskState& inOther) const;
  };
  struct Change {
    std::string section, key, value;
  };

  DiskState Observe() const;
  void LoadOnce();
  void Load();
  void Set(const std::string& inSection, const char* inKey, const std::string& inValue);
  bool Store();

  std::string mPath;
  SettingsFile mSettings;
  bool mLoaded = false;
  DiskState mRead;
  int mReadError = 0;            // errno of a read that did not get the whole file
  std::vector<Change> mPending;  // this run's changes not yet on disk
  bool mStoreFailed = false;
  std::string mReportedFailure;  // the reason last reported
};

#endif  // PORVANE_SETTINGS_USAGESTATUS_H
