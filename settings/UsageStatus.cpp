#include "UsageStatus.h"

#include <exception>
#include <string>

#include <boost/date_time/gregorian/gregorian.hpp>

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

void Reactivate(SettingsFile& ioSettings, const std::string& inSection) {
  ioSettings.SetValue(inSection, kStatusKey, kActive);
  ioSettings.SetValue(inSection, kWakeDateKey, "");  // a blank value erases the key
}

}  // namespace

int UsageStatusFile::GetUsageStatus(const char* inSection, unsigned& outStatus) const {
  const std::string section = inSection;
  SettingsFile settings;
  settings.Read(mPath);

  const std::string value = settings.GetValue(section, kStatusKey);
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
  if (value == kHibernate) {
    if (StillHibernating(settings.GetValue(section, kWakeDateKey))) {
      outStatus = kUsageHibernate;
      return 0;
    }
    Reactivate(settings, section);
  } else {
    // A kind seen for the first time, or a word this agent does not know.
    settings.SetValue(section, kStatusKey, kActive);
  }
  settings.Write(mPath);
  outStatus = kUsageActive;
  return 0;
}

int UsageStatusFile::SetUsageStatus(const char* inSection, unsigned inStatus, int inDays) const {
  const std::string section = inSection;
  SettingsFile settings;
  settings.Read(mPath);

  const char* value = kActive;
  if (inStatus == kUsageDisabled) {
    value = kDisabled;
  } else if (inStatus == kUsageHibernate) {
    value = kHibernate;
    settings.SetValue(section, kWakeDateKey, WakeDateText(inDays));
  }
  // An older wake date stays beside "Disabled" or "Active"; only a
  // reactivation removes it.
  settings.SetValue(section, kStatusKey, value);
  settings.Write(mPath);
  return 0;
}
