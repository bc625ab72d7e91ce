// The XDG autostart entry that makes a login item start with the user's
// desktop session: $XDG_CONFIG_HOME/autostart/login-item-<hex MD5 of the
// path>.desktop, one per path, of type Application, whose Exec runs the path
// (quoted and escaped as the Desktop Entry format requires) and whose Name
// is the path's last component.
#ifndef PORVANE_SOURCE_POSIX_AUTOSTARTENTRY_H
#define PORVANE_SOURCE_POSIX_AUTOSTARTENTRY_H

#include <string>

// Writes the entry for inAppPath below inConfigFolder (making "autostart"
// when missing); an entry that is already as it should be is not touched.
// True when the entry is there afterwards.
// REQUIRES: inAppPath is non-empty, valid UTF-8 without NUL bytes.
bool WriteAutostartEntry(const std::string& inConfigFolder, const std::string& inAppPath);

// Removes the entry for inAppPath; true when none is left (also when there
// was none).
bool RemoveAutostartEntry(const std::string& inConfigFolder, const std::string& inAppPath);

#endif  // PORVANE_SOURCE_POSIX_AUTOSTARTENTRY_H
