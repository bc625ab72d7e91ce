// The walk's decisions, driven by a scripted uploader and a wait that does
// not sleep, over real files: what is sent, what is removed, what is passed
// over, how long it waits, and when it stops.
#include "UploadRun.h"

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <map>

#include "Diagnostics.h"
#include "PrivateHome.h"
#include "UsageStatus.h"

namespace fs = std::filesystem;
using Strings = std::vector<std::string>;

namespace {

// Hands each upload to the test's script, which returns the reply ("" for
// none) and may act on the file or the run meanwhile; reads the bytes as a
// transport would, and reports a file that ran out before its length.
class ScriptedUploader : public Uploader {
 public:
  using Script = std::function<std::string(const std::string& inName)>;
  explicit ScriptedUploader(const Script& inScript) : mScript(inScript) {}
  void Close() override {}
  bool UploadFile(const UploadSource& inSource, const std::string& inUrl) override {
    std::string bytes(inSource.length, '\0');
    const ssize_t got = ::pread(inSource.fd, &bytes[0], bytes.size(), 0);
    const std::string reply = mScript(inSource.fileName);
    if (!reply.empty()) AppendReply(reinterpret_cast<const uint8_t*>(reply.data()), reply.size());
    m_finished = true;
    ExchangeReport report{inUrl, 200, ""};
    report.fileShrank = got < static_cast<ssize_t>(bytes.size()) || ::pread(inSource.fd, &bytes[0], 1, 0) < 1;
    Report(report);
    return true;
  }

 private:
  Script mScript;
};

class UploadRunTest : public ::testing::Test {
 protected:
  // Runs the walk over mLogs; every upload goes to inScript.
  int Run(const ScriptedUploader::Script& inScript) {
    UsageStatusFile status(mHome / "UserSettings.cfg");
    RunSettings run{status, mUrl, mQuiet, mStop};
    run.makeUploader = [&] {
      return std::unique_ptr<Uploader>(new ScriptedUploader([&](const std::string& inName) {
        mSent.push_back(inName);
        return inScript(inName);
      }));
    };
    run.wait = [&](int inSeconds, const StopFlag&) { mWaits.push_back(inSeconds); };
    return UploadLogFolder(run, mLogs);
  }
  void Log(const std::string& inName, const std::string& inContent = "x") { WriteFile(mLogs + "/" + inName, inContent); }

  PrivateHome mHome;
  const std::string mLogs = mHome / "tmp", mUrl = "http://127.0.0.1:9/in";
  const Diagnostics mQuiet{false};
  StopFlag mStop;
  Strings mSent;
  std::vector<int> mWaits;
};

TEST_F(UploadRunTest, RetriesAfterDoublingWaitsThatWrapIn32Bits) {
  Log("k_1.log");
  EXPECT_EQ(Run([&](const std::string&) { return mSent.size() <= 22 ? "Busy" : "Active"; }), 0);
  EXPECT_EQ(mWaits, (std::vector<int>{60, 120, 240, 480, 960, 1920, 3840, 7680, 15360, 30720, 61440, 122880, 245760,
                                      491520, 983040, 1966080, 0, 0, 0, 1392508, 0, 1275068}));
  EXPECT_TRUE(Names(mLogs).empty());
}

// Nothing here holds up the files behind it, none is sent twice, and the
// walk ends: a file accepted but read-only, a read-only file of a disabled
// kind, entries that are no regular file, a file that grows or is replaced
// while it is sent, and one that shrinks.
TEST_F(UploadRunTest, PassesOverWhatItCannotSendOrRemove) {
  WriteFile(mHome / "UserSettings.cfg", "[z]\nstatus=Disabled\n");
  for (const char* name : {"a_ro.log", "f_ok.log", "g_ok.log", "e_grow.log", "r_rot.log", "s_shrink.log", "z_ro.log"})
    Log(name, name);
  for (const char* name : {"a_ro.log", "z_ro.log"}) fs::permissions(mLogs + "/" + name, fs::perms::owner_read);
  ASSERT_EQ(::mkfifo((mLogs + "/b_fifo.log").c_str(), 0600), 0);
  fs::create_symlink("nowhere", mLogs + "/c_dangling.log");
  fs::create_symlink("d_loop.log", mLogs + "/d_loop.log");
  std::map<std::string, int> sent;
  EXPECT_EQ(Run([&](const std::string& inName) {
              if (sent[inName]++ > 0) return "Active";
              if (inName == "e_grow.log") std::ofstream(mLogs + "/e_grow.log", std::ios::app) << "more";
              if (inName == "r_rot.log") {
                Log("r_rot.log.tmp", "new");
                fs::rename(mLogs + "/r_rot.log.tmp", mLogs + "/r_rot.log");
              }
              if (inName == "s_shrink.log") fs::resize_file(mLogs + "/s_shrink.log", 0);
              return "Active";
            }),
            1);
  EXPECT_EQ(sent, (std::map<std::string, int>{{"a_ro.log", 1}, {"e_grow.log", 1}, {"f_ok.log", 1}, {"g_ok.log", 1},
                                              {"r_rot.log", 2}, {"s_shrink.log", 1}}));
  EXPECT_EQ(Names(mLogs), (Strings{"a_ro.log", "b_fifo.log", "c_dangling.log", "d_loop.log", "e_grow.log",
                                   "s_shrink.log", "z_ro.log"}));
  EXPECT_EQ(ReadFile(mLogs + "/e_grow.log"), "e_grow.logmore");
  EXPECT_TRUE(mWaits.empty());
}

// A stop request starts no new file; an accepted file is still removed.
TEST_F(UploadRunTest, StopsWithoutStartingAnotherFile) {
  for (const char* name : {"k_1.log", "k_2.log", "k_3.log"}) Log(name);
  EXPECT_EQ(Run([&](const std::string&) {
              mStop.stopRequested = true;
              return "Active";
            }),
            1);
  EXPECT_EQ(mSent.size(), 1u);
  EXPECT_EQ(Names(mLogs).size(), 2u);

}

}  // namespace
