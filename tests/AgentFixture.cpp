#include "AgentFixture.h"

#include <sys/stat.h>
#include <utime.h>

#include <algorithm>
#include <ctime>
#include <filesystem>

namespace fs = std::filesystem;

AgentFixture::AgentFixture() {
  const std::string root = mRoot.Path();
  for (const char* dir : {"home", "state", "data", "config", "cache", "run", "tmp", "prefix/bin", "spool"})
    fs::create_directories(root + "/" + dir);
  mEnv = {{"PATH", "/usr/bin:/bin"},
          {"HOME", root + "/home"},
          {"XDG_STATE_HOME", root + "/state"},
          {"XDG_DATA_HOME", root + "/data"},
          {"XDG_CONFIG_HOME", root + "/config"},
          {"XDG_CACHE_HOME", root + "/cache"},
          {"XDG_RUNTIME_DIR", root + "/run"},
          {"TMPDIR", root + "/tmp"}};
  mPrefix = root + "/prefix";
  fs::copy_file(std::string(PORVANE_BINARY_DIR) + "/bin/porvane", Program());
  mLogFolder = root + "/state/Logs/Tarvo/Porvane";
  fs::create_directories(mLogFolder);
}

std::string AgentFixture::UserSettingsPath() const { return mRoot.Path() + "/data/Tarvo/Porvane/UserSettings.cfg"; }

void AgentFixture::WriteInstallConfig(const std::string& inContent) const {
  fs::create_directories(mPrefix + "/share/porvane");
  WriteFile(mPrefix + "/share/porvane/Porvane.cfg", inContent);
}

std::string AgentFixture::WriteLog(const std::string& inFolder, const std::string& inName,
                                   const std::string& inContent, int inAgeSeconds) const {
  const std::string path = inFolder + "/" + inName;
  WriteFile(path, inContent);
  if (inAgeSeconds != 0) {
    utimbuf times;
    times.actime = times.modtime = std::time(nullptr) - inAgeSeconds;
    utime(path.c_str(), &times);
  }
  return path;
}

std::vector<std::string> AgentFixture::Names(const std::string& inFolder) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(inFolder)) names.push_back(entry.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

std::unique_ptr<ChildProcess> AgentFixture::Start(const std::vector<std::string>& inArgs,
                                                  const ChildProcess::Environment& inExtraEnv) const {
  std::vector<std::string> args = {Program()};
  args.insert(args.end(), inArgs.begin(), inArgs.end());
  ChildProcess::Environment env = mEnv;
  for (const auto& [name, value] : inExtraEnv) env[name] = value;
  return std::make_unique<ChildProcess>(args, env, mRoot.Path() + "/tmp");
}

std::unique_ptr<ChildProcess> AgentFixture::Run(const std::vector<std::string>& inArgs,
                                                const ChildProcess::Environment& inExtraEnv) const {
  auto child = Start(inArgs, inExtraEnv);
  EXPECT_TRUE(child->Wait(60000)) << "porvane did not end within 60 s";
  return child;
}
