// A private user for one test: its home and XDG folders in a fresh temporary
// folder, so tests never touch the real ones and can run side by side; the
// folder goes, with everything in it, when the object does. Also the file
// helpers the tests share.
#ifndef PORVANE_TESTS_SUPPORT_PRIVATEHOME_H
#define PORVANE_TESTS_SUPPORT_PRIVATEHOME_H

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "ChildProcess.h"

class PrivateHome {
 public:
  // Makes a folder under $TMPDIR (else /tmp) with home, state, data, config,
  // cache, run and tmp in it, and sets HOME, XDG_STATE_HOME, XDG_DATA_HOME,
  // XDG_CONFIG_HOME, XDG_CACHE_HOME, XDG_RUNTIME_DIR and TMPDIR to them in
  // this process.
  PrivateHome();
  // Puts back every variable this object changed and removes the folder,
  // read-only parts included.
  ~PrivateHome();
  PrivateHome(const PrivateHome&) = delete;
  PrivateHome& operator=(const PrivateHome&) = delete;

  const std::string& Root() const { return mRoot; }
  std::string operator/(const std::string& inRelative) const { return mRoot + "/" + inRelative; }

  // Sets (or, with nullopt, unsets) a variable in this process until the
  // object goes away.
  void Set(const std::string& inName, const std::optional<std::string>& inValue);

  // The environment a program of this user starts with: PATH and the
  // variables above, nothing else.
  ChildProcess::Environment Environment() const { return mEnvironment; }

  // $XDG_STATE_HOME/Logs/Tarvo/Porvane and $XDG_DATA_HOME/.../UserSettings.cfg.
  std::string LogFolder() const { return *this / "state/Logs/Tarvo/Porvane"; }
  std::string UserSettings() const { return *this / "data/Tarvo/Porvane/UserSettings.cfg"; }

 private:
  std::string mRoot;
  std::map<std::string, std::optional<std::string>> mSaved;
  ChildProcess::Environment mEnvironment;
};

// Gives this process and every program it starts a /dev/shm of their own (a
// mount namespace; for a user other than root, inside a user namespace), so
// the machine-wide lock of a test is never the machine's and vanishes with
// the test. Call before the test starts any thread. Returns "" when in
// place, else why it could not be made (the test should skip).
std::string UsePrivateShm();

// Writes inContent to inPath (creating or truncating it); throws on failure.
void WriteFile(const std::string& inPath, const std::string& inContent);
// The whole content of inPath; throws when it cannot be read.
std::string ReadFile(const std::string& inPath);
// The names in inFolder, sorted.
std::vector<std::string> Names(const std::string& inFolder);

#endif  // PORVANE_TESTS_SUPPORT_PRIVATEHOME_H
