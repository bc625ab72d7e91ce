// Special folders and the running program's own location.
//
// Special folders follow the XDG base-directory variables, each falling back
// to its documented default under $HOME (from the password database when HOME
// is unset):
//   0 $XDG_RUNTIME_DIR else /tmp       (items removed at start-up)
//   1 $TMPDIR else /tmp                (temporary items)
//   2 XDG user dir DESKTOP else ~/Desktop
//   3 XDG user dir DOCUMENTS else ~/Documents
//   4 $XDG_CACHE_HOME else ~/.cache
//   5 $XDG_CONFIG_HOME else ~/.config  (preferences)
//   6 $XDG_DATA_HOME else ~/.local/share (application support, user)
//   7, 8 /var/lib                      (application support, local)
//   9 /usr/local/share/fonts
//  10 /usr
//  11 /usr/bin
//  12 /
// The user Library folder (where the logs live) is $XDG_STATE_HOME, else
// ~/.local/state: FindLibraryFolder.
#ifndef PORVANE_INCLUDE_FOLDERFINDER_H
#define PORVANE_INCLUDE_FOLDERFINDER_H

#include <string>

#include "PorvaneExport.h"

// Sets outPath to the folder of inFolderId (table above) and returns true.
// With inCreate the folder is created with its parents when missing; false
// when it cannot be found or created. Id 12 always gives "/" and true.
// REQUIRES: 0 <= inFolderId <= 12; 13 and up fail the assertion
// !"Invalid FolderID".
PORVANE_API bool FindSpecialFolder(int inFolderId, std::string& outPath, bool inCreate);

// The user's Library folder ($XDG_STATE_HOME, else ~/.local/state), created
// with its parents when inCreate is set. False when it cannot be found or
// created.
PORVANE_API bool FindLibraryFolder(std::string& outPath, bool inCreate);

// The "bundle" of the running program: the parent of the folder that holds
// the resolved /proc/self/exe (the install prefix: /usr for /usr/bin/porvane,
// the build tree for build/bin/porvane). True on success.
PORVANE_API bool GetMainBundlePath(std::string& outPath);

// The text after the last "/" of the bundle path; false when the bundle path
// has no "/" or ends in one.
PORVANE_API bool GetMainBundleName(std::string& outName);

// The bundle path without its last component (GetParentPath).
PORVANE_API bool GetMainBundleParent(std::string& outPath);

// The running executable's path (/proc/self/exe, resolved); false when it
// cannot be read. Its folder's parent is the bundle (GetMainBundlePath).
PORVANE_API bool GetMainExecutablePath(std::string& outPath);

#endif  // PORVANE_INCLUDE_FOLDERFINDER_H
