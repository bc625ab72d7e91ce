// A private user for one test: its home and XDG folders in a temporary
// folder, so tests never touch the real ones and can run side by side.
#ifndef PORVANE_TESTS_SUPPORT_PRIVATEHOME_H
#define PORVANE_TESTS_SUPPORT_PRIVATEHOME_H

#include <map>
#include <optional>
#include <string>

#include "ChildProcess.h"
#include "TempDir.h"

class PrivateHome {
 public:
  // Makes <temp>/home, state, data, config, cache, run and tmp, and sets
  // HOME, XDG_STATE_HOME, XDG_DATA_HOME, XDG_CONFIG_HOME, XDG_CACHE_HOME,
  // XDG_RUNTIME_DIR and TMPDIR to them in this process.
  PrivateHome();
  // Puts back every variable this object changed.
  ~PrivateHome();
  PrivateHome(const PrivateHome&) = delete;
  PrivateHome& operator=(const PrivateHome&) = delete;

  const std::string& Root() const { return mRoot.Path(); }
  std::string operator/(const std::string& inRelative) const { return mRoot / inRelative; }

  // Sets (or, with nullopt, unsets) a variable in this process until the
  // object goes away.
  void Set(const std::string& inName, const std::optional<std::string>& inValue);

  // The environment a program of this user starts with: PATH and the
  // variables above, nothing else.
  ChildProcess::Environment Environment() const;

  // $XDG_STATE_HOME/Logs/Tarvo/Porvane and $XDG_DATA_HOME/.../UserSettings.cfg.
  std::string LogFolder() const { return mRoot / "state/Logs/Tarvo/Porvane"; }
  std::string UserSettings() const { return mRoot / "data/Tarvo/Porvane/UserSettings.cfg"; }

 private:
  TempDir mRoot{"porvane-home"};
  std::map<std::string, std::optional<std::string>> mSaved;
  ChildProcess::Environment mEnvironment;
};

// Gives this process and every program it starts a /dev/shm of their own (a
// mount namespace; for a user other than root, inside a user namespace), so
// the machine-wide lock of a test is never the machine's and vanishes with
// the test. Call before the test starts any thread. Returns "" when in
// place, else why it could not be made (the test should skip).
std::string UsePrivateShm();

#endif  // PORVANE_TESTS_SUPPORT_PRIVATEHOME_H
