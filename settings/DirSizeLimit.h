// The size ceiling of the log folder: "MaxTotalDirSize" in section "System"
// of the installation settings, in bytes.
#ifndef PORVANE_SETTINGS_DIRSIZELIMIT_H
#define PORVANE_SETTINGS_DIRSIZELIMIT_H

#include <string>

#include "PorvaneExport.h"

// The ceiling a missing or empty value stands for.
inline constexpr double kDefaultMaxTotalDirSize = 500000;

// Reads inText, the value as the settings file gives it, as a ceiling in
// bytes. True, with outLimit set, when inText (blanks " \t\r\n" around it
// allowed) is
// - empty: the default, kDefaultMaxTotalDirSize, applied here so that every
//   caller gets it;
// - a plain decimal number: one or more digits, optionally "." and more
//   digits, optionally "e" or "E" with an optional sign and digits. Its value
//   is what atof makes of it: "5e5" is 500000, and "1e400" is infinite, a
//   ceiling no folder reaches.
// False, with outLimit untouched, for anything else: a sign, hex, "inf",
// "nan", a unit ("500 KB"), a word. atof would read such a text as 0, -5,
// 500 or 16, and a ceiling of 0 deletes every log; a value that is not a
// number of bytes therefore trims nothing.
PORVANE_API bool ParseMaxTotalDirSize(const std::string& inText, double& outLimit);

#endif  // PORVANE_SETTINGS_DIRSIZELIMIT_H
