#include "agent/CommandLineOptions.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <initializer_list>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

// argv for a list of arguments, with "porvane" as argv[0].
class Argv {
 public:
  Argv(std::initializer_list<std::string> inArguments) : mStrings(inArguments) {
    mStrings.insert(mStrings.begin(), "porvane");
    for (const std::string& s : mStrings) {
      mPointers.push_back(s.c_str());
    }
    mPointers.push_back(nullptr);
  }
  int argc() const { return static_cast<int>(mStrings.size()); }
  const char* const* argv() const { return mPointers.data(); }

 private:
  std::vector<std::string> mStrings;
  std::vector<const char*> mPointers;
};

CommandLineOptions::OptionMap Parsed(std::initializer_list<std::string> inArguments) {
  const Argv args(inArguments);
  return CommandLineOptions(args.argc(), args.argv()).Options();
}

// The text of the std::invalid_argument that the arguments raise, or
// "(accepted)".
std::string Rejection(std::initializer_list<std::string> inArguments) {
  const Argv args(inArguments);
  try {
    CommandLineOptions options(args.argc(), args.argv());
  } catch (const std::invalid_argument& e) {
    return e.what();
  }
  return "(accepted)";
}

// Sets (or, with nullopt, removes) an environment variable for one scope and
// restores what was there before.
class ScopedEnv {
 public:
  ScopedEnv(const char* inName, std::optional<std::string> inValue) : mName(inName) {
    if (const char* old = std::getenv(inName)) {
      mOld = old;
    }
    Apply(inValue);
  }
  ~ScopedEnv() { Apply(mOld); }
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  void Apply(const std::optional<std::string>& inValue) {
    if (inValue) {
      ::setenv(mName.c_str(), inValue->c_str(), 1);
    } else {
      ::unsetenv(mName.c_str());
    }
  }
  std::string mName;
  std::optional<std::string> mOld;
};

TEST(CommandLineOptionsTest, EachArgumentIsOneOption) {
  EXPECT_EQ(Parsed({}), (CommandLineOptions::OptionMap{}));
  EXPECT_EQ(Parsed({"-noLock", "--logDir=/tmp/logs",
                    "/receiverURL:https://h.example/x/FileDataCaptureServlet"}),
            (CommandLineOptions::OptionMap{
                {"logDir", "/tmp/logs"},
                {"noLock", "1"},
                {"receiverURL", "https://h.example/x/FileDataCaptureServlet"}}));
  EXPECT_EQ(Parsed({"\\noLock", "-a=\"b\"", "-c=x*", "-d=x:", "-log_dir=x"}),
            (CommandLineOptions::OptionMap{
                {"a", "\"b\""}, {"c", "x*"}, {"d", "x:"}, {"log_dir", "x"}, {"noLock", "1"}}));

  // No joining: a value in the next argument is an option of its own.
  EXPECT_EQ(Parsed({"-logDir", "/tmp"}),
            (CommandLineOptions::OptionMap{{"logDir", "1"}, {"tmp", "1"}}));

  // Names are case-sensitive; each spelling is its own entry.
  EXPECT_EQ(Parsed({"-noLock", "-nolock=2"}),
            (CommandLineOptions::OptionMap{{"noLock", "1"}, {"nolock", "2"}}));
}

TEST(CommandLineOptionsTest, TheLastOccurrenceOfANameWins) {
  EXPECT_EQ(Parsed({"-noLock", "-noLock"}), (CommandLineOptions::OptionMap{{"noLock", "1"}}));
  EXPECT_EQ(Parsed({"-a=1", "-a=2"}), (CommandLineOptions::OptionMap{{"a", "2"}}));
  EXPECT_EQ(Parsed({"-a=2", "--a"}), (CommandLineOptions::OptionMap{{"a", "1"}}));
  EXPECT_EQ(Parsed({"-a=1", "-b=9", "/a:3"}),
            (CommandLineOptions::OptionMap{{"a", "3"}, {"b", "9"}}));
}

TEST(CommandLineOptionsTest, TheProgramNameIsNotParsed) {
  const char* const argv[] = {"not an option/", "-noLock", nullptr};
  const CommandLineOptions options(2, argv);
  EXPECT_EQ(options.Options(), (CommandLineOptions::OptionMap{{"noLock", "1"}}));

  const CommandLineOptions none(1, argv);
  EXPECT_TRUE(none.Options().empty());
}

TEST(CommandLineOptionsTest, ARejectedArgumentIsThrownAsPassed) {
  const std::string kRejected[] = {
      "-logDir=/tmp/logs/",
      "--receiverURL=https://h.example/x/FileDataCaptureServlet/",
      "-logDir=",
      "-a=\"b c\"",
      "-a=x.",
      "-log-dir=x",
      "---noLock",
      "-",
      "",
      "noLock",
      "-a=\xc3\xa9",
      "-a=x\ty",
      "-a=x ",
      " -noLock",
      "/Users/x",
  };
  for (const std::string& argument : kRejected) {
    SCOPED_TRACE(argument);
    EXPECT_EQ(Rejection({argument}), argument);
    // Arguments before it do not matter, and the first rejected one is the
    // one reported.
    EXPECT_EQ(Rejection({"-noLock", "-logDir=/tmp/logs", argument, "also bad/"}), argument);
  }
  // The folder of "-logDir <folder>" is read as an option of its own.
  EXPECT_EQ(Rejection({"-logDir", "/Users/x/Library/Logs"}), "/Users/x/Library/Logs");
  EXPECT_EQ(Rejection({"-logDir", "/tmp"}), "(accepted)");
}

TEST(CommandLineOptionsTest, LookUpsFallBackToTheEnvironment) {
  const ScopedEnv logDir("logDir", std::string("/from/env"));
  const ScopedEnv emptyUrl("receiverURL", std::string(""));
  const ScopedEnv noLock("noLock", std::nullopt);
  const ScopedEnv upper("LOGDIR", std::nullopt);

  const CommandLineOptions none(0, nullptr);
  std::string value = "untouched";

  EXPECT_TRUE(none.HasOption("logDir"));
  EXPECT_TRUE(none.GetOptionValue("logDir", value));
  EXPECT_EQ(value, "/from/env");

  // An empty variable is present, and its empty text is the value.
  value = "untouched";
  EXPECT_TRUE(none.HasOption("receiverURL"));
  EXPECT_TRUE(none.GetOptionValue("receiverURL", value));
  EXPECT_EQ(value, "");

  // Neither source: false, and the out value keeps what it held.
  value = "untouched";
  EXPECT_FALSE(none.HasOption("noLock"));
  EXPECT_FALSE(none.GetOptionValue("noLock", value));
  EXPECT_EQ(value, "untouched");

  // The environment is case-sensitive like the command line.
  EXPECT_FALSE(none.HasOption("LOGDIR"));
  EXPECT_FALSE(none.GetOptionValue("LOGDIR", value));
  EXPECT_EQ(value, "untouched");

  // Variables are read at each look-up, not when the options are parsed.
  {
    const ScopedEnv later("noLock", std::string("0"));
    EXPECT_TRUE(none.HasOption("noLock"));
    EXPECT_TRUE(none.GetOptionValue("noLock", value));
    EXPECT_EQ(value, "0");
  }
  EXPECT_FALSE(none.HasOption("noLock"));
}

TEST(CommandLineOptionsTest, TheCommandLineWinsOverTheEnvironment) {
  const ScopedEnv logDir("logDir", std::string("/from/env"));
  const ScopedEnv noLock("noLock", std::nullopt);
  const Argv args({"-logDir=/from/argv", "-noLock"});
  const CommandLineOptions options(args.argc(), args.argv());

  std::string value;
  EXPECT_TRUE(options.GetOptionValue("logDir", value));
  EXPECT_EQ(value, "/from/argv");
  EXPECT_TRUE(options.HasOption("noLock"));
  EXPECT_TRUE(options.GetOptionValue("noLock", value));
  EXPECT_EQ(value, "1");
  // The environment is consulted only on look-up: it never enters the map.
  EXPECT_EQ(options.Options(),
            (CommandLineOptions::OptionMap{{"logDir", "/from/argv"}, {"noLock", "1"}}));
}

}  // namespace
