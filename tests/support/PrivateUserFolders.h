// Test helper: points the current user's folders into a private temporary
// folder for the lifetime of the object, so that tests never touch the real
// preferences, runtime or home folders and can run side by side.
#ifndef PORVANE_SOURCE_POSIX_TESTDATA_PRIVATEUSERFOLDERS_H
#define PORVANE_SOURCE_POSIX_TESTDATA_PRIVATEUSERFOLDERS_H

#include <string>

#include "ScopedEnvironment.h"
#include "TempDir.h"

// HOME = <temp>/home, XDG_CONFIG_HOME = <temp>/config (preferences),
// XDG_RUNTIME_DIR = <temp>/run (items removed at start-up). None of them is
// created here: the code under test creates what it needs.
class PrivateUserFolders {
 public:
  PrivateUserFolders() : mRoot("porvane-system") {
    mEnvironment.Set("HOME", mRoot / "home");
    mEnvironment.Set("XDG_CONFIG_HOME", mRoot / "config");
    mEnvironment.Set("XDG_RUNTIME_DIR", mRoot / "run");
  }

  const std::string& Root() const { return mRoot.Path(); }
  std::string Config() const { return mRoot / "config"; }
  std::string Runtime() const { return mRoot / "run"; }
  std::string LoginItemsFile() const { return mRoot / "config/loginwindow.plist"; }

 private:
  TempDir mRoot;
  ScopedEnvironment mEnvironment;
};

#endif  // PORVANE_SOURCE_POSIX_TESTDATA_PRIVATEUSERFOLDERS_H
