// What kind of log a file holds: the one rule the agent and the receiver
// share, so that a reply per kind means the same on both ends.
#ifndef PORVANE_SETTINGS_LOGKIND_H
#define PORVANE_SETTINGS_LOGKIND_H

#include <string>

#include "PorvaneExport.h"

// The text of inFileName (a file name, not a path) before its first "_":
// "u123_20080115.log" is of kind "u123". A name without "_" is of the empty
// kind "", under which the agent stores no status.
PORVANE_API std::string LogKindOf(const std::string& inFileName);

#endif  // PORVANE_SETTINGS_LOGKIND_H
