// The setting of an end-to-end run: a private home with its own XDG folders,
// a fake install prefix holding a copy of the built porvane, and helpers to
// run it like a user does.
#ifndef PORVANE_TESTS_AGENTFIXTURE_H
#define PORVANE_TESTS_AGENTFIXTURE_H

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "TempDir.h"

class AgentFixture : public ::testing::Test {
 protected:
  AgentFixture();

  // $XDG_STATE_HOME/Logs/Tarvo/Porvane (created).
  const std::string& DefaultLogFolder() const { return mLogFolder; }
  // $XDG_DATA_HOME/Tarvo/Porvane/UserSettings.cfg.
  std::string UserSettingsPath() const;
  // <prefix>/bin/porvane, a copy of the built program.
  std::string Program() const { return mPrefix + "/bin/porvane"; }
  // Writes <prefix>/share/porvane/Porvane.cfg.
  void WriteInstallConfig(const std::string& inContent) const;

  // Writes a log file of inSize bytes (or inContent) with an mtime of
  // inAgeSeconds in the past.
  std::string WriteLog(const std::string& inFolder, const std::string& inName, const std::string& inContent,
                       int inAgeSeconds = 0) const;
  // The names in inFolder, sorted.
  static std::vector<std::string> Names(const std::string& inFolder);

  // Starts the program with inArgs (after argv[0]) and the private
  // environment plus inExtraEnv.
  std::unique_ptr<ChildProcess> Start(const std::vector<std::string>& inArgs,
                                      const ChildProcess::Environment& inExtraEnv = {}) const;
  // Starts and waits (bounded) for the end; fails the test on a hang.
  std::unique_ptr<ChildProcess> Run(const std::vector<std::string>& inArgs,
                                    const ChildProcess::Environment& inExtraEnv = {}) const;

  ChildProcess::Environment mEnv;
  TempDir mRoot{"porvane-e2e"};
  std::string mPrefix;
  std::string mLogFolder;
};

#endif  // PORVANE_TESTS_AGENTFIXTURE_H
