#include "CommandLineOptions.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "ScopedEnvironment.h"

namespace {

using OptionMap = CommandLineOptions::OptionMap;

// The options parsed from inArguments, with "porvane" as argv[0].
OptionMap Parsed(std::vector<const char*> inArguments) {
  inArguments.insert(inArguments.begin(), "porvane");
  return CommandLineOptions(static_cast<int>(inArguments.size()), inArguments.data()).Options();
}

// The text of the std::invalid_argument that inArguments raise, or "(accepted)".
std::string Rejection(const std::vector<const char*>& inArguments) {
  try {
    Parsed(inArguments);
  } catch (const std::invalid_argument& e) {
    return e.what();
  }
  return "(accepted)";
}

TEST(CommandLineOptionsTest, EachArgumentIsOneOptionAndTheLastOccurrenceWins) {
  EXPECT_EQ(Parsed({}), OptionMap{});
  EXPECT_EQ(Parsed({"-noLock", "--logDir=/tmp/logs", "/receiverURL:https://h.example/x/FileDataCaptureServlet"}),
            (OptionMap{{"logDir", "/tmp/logs"},
                       {"noLock", "1"},
                       {"receiverURL", "https://h.example/x/FileDataCaptureServlet"}}));
  // No joining: a value in the next argument is an option of its own.
  EXPECT_EQ(Parsed({"-logDir", "/tmp"}), (OptionMap{{"logDir", "1"}, {"tmp", "1"}}));
  EXPECT_EQ(Parsed({"-noLock", "-nolock=2"}), (OptionMap{{"noLock", "1"}, {"nolock", "2"}})) << "case-sensitive";
  EXPECT_EQ(Parsed({"-noLock", "-noLock"}), (OptionMap{{"noLock", "1"}}));
  EXPECT_EQ(Parsed({"-a=1", "-a=2"}), (OptionMap{{"a", "2"}}));
  EXPECT_EQ(Parsed({"-a=2", "--a"}), (OptionMap{{"a", "1"}}));

  const char* const argv[] = {"not an option/", "-noLock", nullptr};
  EXPECT_EQ(CommandLineOptions(2, argv).Options(), (OptionMap{{"noLock", "1"}})) << "argv[0] is not parsed";
}

TEST(CommandLineOptionsTest, ARejectedArgumentIsThrownAsPassed) {
  for (const char* argument : {"-logDir=/tmp/logs/", "-logDir=", "-a=\"b c\"", "-a=\xc3\xa9", "---noLock", ""}) {
    EXPECT_EQ(Rejection({argument}), argument);
    // Arguments before it do not matter; the first rejected one is reported.
    EXPECT_EQ(Rejection({"-noLock", "-logDir=/tmp/logs", argument, "also bad/"}), argument);
  }
  EXPECT_EQ(Rejection({"-logDir", "/Users/x/Library/Logs"}), "/Users/x/Library/Logs");
}

TEST(CommandLineOptionsTest, LookUpsFallBackToTheEnvironment) {
  ScopedEnvironment environment;
  environment.Set("logDir", "/from/env");
  environment.Set("receiverURL", "");
  environment.Unset("noLock");
  environment.Unset("LOGDIR");
  const CommandLineOptions none(0, nullptr);
  std::string value = "untouched";
  EXPECT_TRUE(none.HasOption("logDir"));
  EXPECT_TRUE(none.GetOptionValue("logDir", value));
  EXPECT_EQ(value, "/from/env");
  EXPECT_TRUE(none.HasOption("receiverURL")) << "an empty variable is present";
  EXPECT_TRUE(none.GetOptionValue("receiverURL", value));
  EXPECT_EQ(value, "");

  value = "untouched";
  for (const char* absent : {"noLock", "LOGDIR"}) {
    EXPECT_FALSE(none.HasOption(absent)) << absent;
    EXPECT_FALSE(none.GetOptionValue(absent, value)) << absent;
  }
  EXPECT_EQ(value, "untouched");
  environment.Set("noLock", "0");
  EXPECT_TRUE(none.HasOption("noLock")) << "variables are read at each look-up";

  // The command line wins, and the environment never enters the map.
  const char* const argv[] = {"porvane", "-logDir=/from/argv", nullptr};
  const CommandLineOptions options(2, argv);
  EXPECT_TRUE(options.GetOptionValue("logDir", value));
  EXPECT_EQ(value, "/from/argv");
  EXPECT_EQ(options.Options(), (OptionMap{{"logDir", "/from/argv"}}));
}

}  // namespace
