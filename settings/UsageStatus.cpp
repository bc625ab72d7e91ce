#include "UsageStatus.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>

#include <boost/date_time/gregorian/gregorian.hpp>

#include "FileSystemUtils.h"
#include "SettingsFile.h"

namespace {

const char* const kStatusKey = "Status";
const char* const kWakeDateKey = "HibernateWakeDate";
const char* const kActive = "Active";
const char* const kDisabled = "Disabled";
const char* const kHibernate = "Hibernate";

// Whether a hibernation stored as inWakeDate is still running today. A wake
// date that is missing, special or not a date at all ends it: a damaged
// entry must not silence a kind of log for good.
bool StillHibernating(const std::string& inWakeDate) {
  if (inWakeDate.empty()) return false;
  try {
    const boost::gregorian::date wake = boost::gregorian::from_string(inWakeDate);
    if (wake.is_special()) return false;
    return (wake - boost::gregorian::day_clock::local_day()).days() > 0;
  } catch (const std::exception&) {
    return false;
  }
}

// Today plus inDays in the stored form ("2006-Jan-05"). A count that leaves
// the calendar's range (years 1400 to 9999) is held at its nearest end, so
// a huge server-given count means "as long as can be said" instead of an
// exception out of the upload run.
std::string WakeDateText(int inDays) {
  using boost::gregorian::date;
  const date today = boost::gregorian::day_clock::local_day();
  const date first(1400, 1, 1);
  const date last(9999, 12, 31);
  const long long target = static_cast<long long>(inDays);
  date wake = today;
  if (target > (last - today).days()) {
    wake = last;
  } else if (target < (first - today).days()) {
    wake = first;
  } else {
    wake = today + boost::gregorian::date_duration(inDays);
  }
  return boost::gregorian::to_simple_string(wake);
}

// One line on standard error for a store that failed.
void ReportStoreFailure(const std::string& inPath, const std::string& inReason) {
  const std::string where = inPath.empty() ? "(no user settings file: its folder was not found)" : inPath;
  std::fputs(("porvane: cannot store the usage status in " + where + ": " + inReason +
              "; the file is left as it was\n").c_str(),
             stderr);
}

}  // namespace

bool UsageStatusFile::DiskState::operator==(const DiskState& inOther) const {
  return exists == inOther.exists && device == inOther.device && inode == inOther.inode && size == inOther.size &&
         modified.tv_sec == inOther.modified.tv_sec && modified.tv_nsec == inOther.modified.tv_nsec;
}

UsageStatusFile::DiskState UsageStatusFile::Observe() const {
  DiskState state;
  struct stat info;
  if (mPath.empty() || ::stat(mPath.c_str(), &info) != 0) return state;
  state.exists = true;
  state.device = info.st_dev;
  state.inode = info.st_ino;
  state.size = info.st_size;
  state.modified = info.st_mtim;
  return state;
}

void UsageStatusFile::Load() {
  // Observed before the read: a change in between makes the next store read
  // again, never miss the change.
  mRead = Observe();
  // A missing file is an empty one; any other failure to read it whole
  // keeps it from being replaced with what little was read.
  mReadError = mSettings.Load(mPath);
  if (mReadError == ENOENT) mReadError = 0;
}

void UsageStatusFile::LoadOnce() {
  if (mLoaded) return;
  Load();
  mLoaded = true;
}

void UsageStatusFile::Set(const std::string& inSection, const char* inKey, const std::string& inValue) {
  const std::string before = mSettings.GetValue(inSection, inKey);
  mSettings.SetValue(inSection, inKey, inValue);
  // Only what changed the map is this run's to apply again; the unnamed
  // section, which the setter refuses, changes nothing.
  if (mSettings.GetValue(inSection, inKey) != before) mPending.push_back(Change{inSection, inKey, inValue});
}

bool UsageStatusFile::Store() {
  if (!mPath.empty() && !(Observe() == mRead)) {
    // Someone else wrote the file meanwhile: theirs, plus only our changes.
    Load();
    for (const Change& change : mPending) mSettings.SetValue(change.section, change.key, change.value);
  }
  std::string reason;
  if (mPath.empty()) {
    reason = "nowhere to write it";
  } else if (mReadError != 0) {
    reason = std::string("it could not be read whole: ") + std::strerror(mReadError);
  } else if (!FileSystemUtils::ReplaceWholeFile(mPath, mSettings.Text())) {
    reason = std::strerror(errno);
  } else {
    mRead = Observe();
    mPending.clear();
    return true;
  }
  // A store tried again for the same reason (the end of the run retries
  // what failed) says nothing new.
  if (reason != mReportedFailure) ReportStoreFailure(mPath, reason);
  mReportedFailure = reason;
  mStoreFailed = true;
  return false;
}

int UsageStatusFile::GetUsageStatus(const char* inSection, unsigned& outStatus) {
  const std::string section = inSection;
  LoadOnce();

  const std::string value = mSettings.GetValue(section, kStatusKey);
  // Stored words match exactly: "active" or "disabled" are unknown words and
  // go the way of a fresh entry.
  if (value == kActive) {
    outStatus = kUsageActive;
    return 0;
  }
  if (value == kDisabled) {
    outStatus = kUsageDisabled;
    return 0;
  }
  if (value == kHibernate && StillHibernating(mSettings.GetValue(section, kWakeDateKey))) {
    outStatus = kUsageHibernate;
    return 0;
  }
  // A kind seen for the first time, a word this agent does not know, or a
  // hibernation that has ended. Losing these writes costs nothing (a
  // missing status is Active), so they wait for a store that matters.
  Set(section, kStatusKey, kActive);
  if (value == kHibernate) Set(section, kWakeDateKey, "");  // a blank value erases the key
  outStatus = kUsageActive;
  return 0;
}

int UsageStatusFile::SetUsageStatus(const char* inSection, unsigned inStatus, int inDays) {
  const std::string section = inSection;
  LoadOnce();

  const char* value = kActive;
  if (inStatus == kUsageDisabled) {
    value = kDisabled;
  } else if (inStatus == kUsageHibernate) {
    value = kHibernate;
    Set(section, kWakeDateKey, WakeDateText(inDays));
  }
  // An older wake date stays beside "Disabled" or "Active"; only a
  // reactivation removes it.
  Set(section, kStatusKey, value);
  return mPending.empty() || Store() ? 0 : 1;
}

bool UsageStatusFile::Flush() {
  // Without a settings file the look-ups' own changes have nowhere to go and
  // need none: a missing status reads as Active. A status the receiver set
  // has already failed in SetUsageStatus.
  if (mPath.empty()) mPending.clear();
  return mPending.empty() || Store();
}
