// Operating-system services for installers and companion tools: environment
// variables, opening a URL, login items, launching an application, asking the
// system to restart, a marker that tells whether the machine has restarted
// since it was set, and the system's version text.
//
// Nothing here is used by the agent's upload pass except the environment
// lookup. Only RequestRestart writes messages (to standard error); every other
// function reports through its return value.
#ifndef PORVANE_INCLUDE_SYSTEMUTILSPOSIX_H
#define PORVANE_INCLUDE_SYSTEMUTILSPOSIX_H

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "PorvaneExport.h"

// Extra environment for a launched program: name/value pairs, set in order.
using EnvironmentPairs = std::vector<std::pair<std::string, std::string>>;

// "Linux".
PORVANE_API std::string GetPlatformName();
// Sets outName to "linux"; always true.
PORVANE_API bool GetPlatformShortName(std::string& outName);

// setenv with overwrite; false when the name is rejected (empty, holding "=")
// or memory runs out.
PORVANE_API bool SetEnvironmentVariable(const std::string& inName, const std::string& inValue);
// False, with outValue untouched, when inName is not set; otherwise copies the
// value (possibly empty) and returns true.
PORVANE_API bool GetEnvironmentVariable(const std::string& inName, std::string& outValue);

// Opens inURL with the desktop's handler: runs "xdg-open <url>" (found
// through PATH) and waits for it. True only when xdg-open reports success
// (exit status 0). False when the text is not a usable URL (empty, not
// UTF-8, holding spaces or control characters, or starting with "-", which
// xdg-open would read as an option), when xdg-open cannot be run, or when it
// reports a failure (no handler, no desktop session).
PORVANE_API bool OpenURL(const std::string& inURL);

// Sets outPid to the first process in /proc order whose executable
// (/proc/PID/exe) is the same file-system object (device and inode) as
// inBundlePath, and returns true; false when no process runs it, or
// inBundlePath names nothing. Processes of other users whose executable
// cannot be looked at are passed over.
PORVANE_API bool FindProcessByBundleLocation(const std::string& inBundlePath, pid_t& outPid);

// Runs an event loop (sd-event) with a timer that first fires after
// inSeconds and then every 1.0 second; the timer's handler ends the loop at
// its first firing, so the call returns after inSeconds (never before; a
// negative or NaN time counts as 0). The timer is removed afterwards. False
// when the loop or the timer could not be made.
PORVANE_API bool RunEventLoopFor(double inSeconds);

// Adds inAppPath to the current user's login items (AddLoginItem).
// REQUIRES: inParams.empty() and false == inAllUsers (both asserted): launch
// parameters and all-users registration are not supported.
PORVANE_API bool AddToLoginItems(const std::string& inAppPath, const std::vector<std::string>& inParams, bool inAllUsers);

// Removes inAppPath from the current user's login items and clears its
// restart marker. False at once when inAllUsers is set; false when
// RemoveLoginItem fails or the marker's folder cannot be made; otherwise
// whether the marker file is gone (true when there was none).
// REQUIRES: !inAppPath.empty() (the marker name; asserted).
PORVANE_API bool RemoveFromLoginItems(const std::string& inAppPath, bool inAllUsers);

// Sets every pair of inEnvironment into this process's environment (setenv,
// overwrite, in order), then:
// - when nothing exists at inPath, runs inPath itself as a shell command line
//   through system() (deliberately unquoted: a "path" that names no file is a
//   command), and returns true when it exits with status 0;
// - otherwise starts inPath as a program of its own (StartDetached; it
//   inherits the environment above) and returns true when it started;
// - when that fails and the path still exists, runs
//   BuildShellLaunchCommand(inPath) through system() and returns true when
//   the shell reports status 0 (the shell reports the start of a background
//   job, not the program's fate);
// - when the path is gone by then, returns false.
PORVANE_API bool LaunchApplication(const std::string& inPath, const EnvironmentPairs& inEnvironment);

// The shell command of LaunchApplication's last resort: inPath in single
// quotes followed by " &". Before each single quote the walk inserts
// quote-backslash-quote, stepping past the insertion and the quote; it stops
// at inPath's length, not at the length of the growing copy, so quotes that
// earlier insertions pushed beyond that length stay unescaped. This is how
// the launcher has always quoted, and it is kept so: "a'b" gives
// 'a'\''b' & , "x'y'z" gives 'x'\''y'z' & .
PORVANE_API std::string BuildShellLaunchCommand(const std::string& inPath);

// Asks systemd-logind on the system bus to restart the machine
// (org.freedesktop.login1.Manager.Reboot, interactive). Returns true only
// when logind accepted the call. On failure writes one line to standard
// error and returns false; <n> is the negative errno from sd-bus:
//   "Error in AECreateDesc: <n>"                  the bus could not be reached
//   "Error in AECreateAppleEvent: <n>"            the call could not be built
//   "Error sending reboot to LoginWindow: <n>"    the call failed
PORVANE_API bool RequestRestart();

// The restart marker: an empty file in the folder of items removed at
// start-up (special folder 0: $XDG_RUNTIME_DIR, else /tmp), named by the
// lowercase hexadecimal MD5 of the name. A restart (or the end of the user's
// session, for $XDG_RUNTIME_DIR) removes it. When that folder is the user's
// own and others may not write it, the marker lies below
// "Tarvo/Kestrane/RebootCheck"; in a shared folder such as /tmp, below
// "porvane-UID/RebootCheck" (UID: the effective user id), two folders made
// with mode 0700. When either of those exists and is not a folder of the
// user's own closed to everyone else, the marker's path cannot be made.
//
// Creates the marker for inName; true when it exists afterwards.
// REQUIRES: !inName.empty() (asserted).
PORVANE_API bool SetRestartMarker(const std::string& inName);
// False while the marker for inName exists; true when it does not or its
// path cannot be made.
// REQUIRES: !inName.empty() (asserted).
PORVANE_API bool HasRestartedSinceMarker(const std::string& inName);
// The same with the running program's bundle path (GetMainBundlePath) as the
// name; false when that path is not available.
PORVANE_API bool SetRestartMarker();
PORVANE_API bool HasRestartedSinceMarker();

// The kernel release's first three numbers as "major.minor.patch"
// (FormatKernelRelease of uname's release); empty when uname fails or the
// release does not start with a number.
PORVANE_API std::string GetSystemVersionString();

// The dotted numbers at the start of inRelease, three of them, missing ones
// read as 0: "6.1.0-18-amd64" -> "6.1.0", "5.15" -> "5.15.0",
// "6.8-rc1" -> "6.8.0". Empty when inRelease does not start with a digit or a
// number does not fit an unsigned long.
PORVANE_API std::string FormatKernelRelease(const std::string& inRelease);

// A binary-coded-decimal system version: bits 8..15 the major number, bits
// 4..7 the minor, bits 0..3 the fix level, each field's hexadecimal digits
// read as decimal digits (0x1049 -> "10.4.9", 0x1039 -> "10.3.9"). The fix
// level has one digit, so 10.4.11 can only show as 10.4.9.
PORVANE_API std::string FormatBCDVersion(uint32_t inVersion);

#endif  // PORVANE_INCLUDE_SYSTEMUTILSPOSIX_H
