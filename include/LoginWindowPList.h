// The current user's login items: the applications started at log-in.
//
// The list lives in "loginwindow.plist" in the user's preferences folder
// ($XDG_CONFIG_HOME, else ~/.config; created when missing), an XML property
// list whose root dictionary holds the array "AutoLaunchedApplicationDictionary".
// Each element is a dictionary for one item with at least "Path" (the
// application's full path) and "Hide" (a boolean; items made here get false).
// Other keys of the root and of the items are kept as they are.
//
// Paths are compared exactly: byte for byte, case included, nothing
// normalised. The file is read whole and written back whole only when the
// list changed; a failure leaves it as it was. There is no locking: two
// writers at once can lose each other's change.
//
// No Linux desktop reads that file, so each operation also keeps the
// matching XDG autostart entry: $XDG_CONFIG_HOME/autostart/login-item-<hex
// MD5 of the path>.desktop, an Application entry whose Exec runs the path,
// one per path. It follows what the list holds, after the list was handled:
// it is written when an item is added (or found listed); it is removed with
// the item, and by every removal whatever the list holds (even when the
// list cannot be read); an item the list refuses (the key holds something
// other than an array) gets none, and loses one it had. Failing to write or
// remove it makes the operation return false, except for a refused item,
// whose result is the list's.
#ifndef PORVANE_INCLUDE_LOGINWINDOWPLIST_H
#define PORVANE_INCLUDE_LOGINWINDOWPLIST_H

#include <string>

#include "PorvaneExport.h"

// Makes sure an item with inAppPath is in the list, appending one
// {"Hide" = false, "Path" = inAppPath} when none is. With no file (or an
// empty one) a new root dictionary is started. A root that holds the key
// with a value that is not an array is left as it is, but the file is still
// rewritten and the call returns true; the item then has no autostart entry.
// Returns true on success, including "already listed" (the file is then not
// touched); false when the preferences folder cannot be found or made, the
// file cannot be read or written, it is not an XML property list with a
// dictionary at its root, or inAppPath is not valid UTF-8 or holds a NUL byte.
PORVANE_API bool AddLoginItem(const std::string& inAppPath);

// Removes every item whose "Path" is inAppPath. When the list becomes empty
// the key goes too, and when that leaves the root with no key at all the file
// is rewritten as an empty file of 0 bytes (not as an empty property list).
// Returns true on success, including a missing file or an unlisted path (no
// write); false in the failure cases of AddLoginItem.
PORVANE_API bool RemoveLoginItem(const std::string& inAppPath);

#endif  // PORVANE_INCLUDE_LOGINWINDOWPLIST_H
