#include "CommandLineOptions.h"

#include <gtest/gtest.h>

#include <cctype>
#include <stdexcept>

#include "PrivateHome.h"

// What the agent's options built from inArgs (argv[0] left out) give for
// inName: its value, "(none)", or "rejected: " and the rejection's text.
static std::string ValueOf(std::vector<const char*> inArgs, const char* inName) try {
  inArgs.insert(inArgs.begin(), "porvane");
  const CommandLineOptions options(static_cast<int>(inArgs.size()), inArgs.data());
  std::string value = "(none)";
  return options.GetOptionValue(inName, value) == options.HasOption(inName) ? value : "HasOption disagrees";
} catch (const std::invalid_argument& error) {
  return std::string("rejected: ") + error.what();
}

TEST(CommandLineOptionsTest, EachArgumentIsOneWholeOptionAndTheEnvironmentFillsIn) {
  PrivateHome home;  // puts back the variables set here
  home.Set("porvaneEnv", "from env");
  home.Set("porvaneEmpty", "");
  const struct { std::vector<const char*> args; const char *name, *value; } kCases[] = {
      {{"-logDir=/tmp/logs"}, "logDir", "/tmp/logs"}, {{"--receiverURL=https://h/x"}, "receiverURL", "https://h/x"},
      {{"-receiverURL:https://h/x"}, "receiverURL", "https://h/x"}, {{"/tmp"}, "tmp", "1"}, {{"-a:b=c"}, "a", "b=c"},
      {{"-noLock"}, "noLock", "1"}, {{"/noLock"}, "noLock", "1"}, {{"\\noLock"}, "noLock", "1"},
      {{"-a=\"b\""}, "a", "\"b\""}, {{"-a=a\"b"}, "a", "a\"b"}, {{"-a==x"}, "a", "=x"}, {{"-a=x*"}, "a", "x*"},
      {{"-a=x:"}, "a", "x:"}, {{"-log_dir=x"}, "log_dir", "x"}, {{"-a=1", "-a=2"}, "a", "2"},
      {{"-noLock=0", "-noLock"}, "noLock", "1"}, {{}, "porvaneEnv", "from env"},
      {{"-porvaneEnv=line"}, "porvaneEnv", "line"}, {{}, "porvaneEmpty", ""}, {{}, "porvaneNone", "(none)"}};
  for (const auto& c : kCases) EXPECT_EQ(ValueOf(c.args, c.name), c.value) << testing::PrintToString(c.args);
  // The first argument that is not one whole option is reported exactly as given.
  for (const char* bad : {"-logDir=/tmp/logs/", "-a=", "noLock", "-a=b c", "---x", "/home/u", "-a=x.", "-a=\"\"",
                          "-a=\"b.\"", "-log-dir=x", "-", "", "-a=x ", " -a=x", "-a=x\xc3\xa9"}) {
    EXPECT_EQ(ValueOf({"-a=1", bad, "-b c"}, "a"), std::string("rejected: ") + bad);
  }
}

// Letters, digits and punctuation are the "C" locale's, the one a test starts in.
TEST(CommandLineOptionsTest, EveryByteIsClassedAsInTheCLocale) {
  for (int byte = 1; byte < 256; ++byte) {
    const std::string c(1, static_cast<char>(byte)), name = "-" + c + "=1", last = "-a=" + c, inner = "-a=x" + c + "y";
    const bool alnum = std::isalnum(byte) != 0;
    EXPECT_EQ(ValueOf({name.c_str()}, c.c_str()), alnum || c == "_" ? "1" : "rejected: " + name) << byte;
    EXPECT_EQ(ValueOf({last.c_str()}, "a"), alnum || c == ":" || c == "*" ? c : "rejected: " + last) << byte;
    EXPECT_EQ(ValueOf({inner.c_str()}, "a"), std::isgraph(byte) ? "x" + c + "y" : "rejected: " + inner) << byte;
  }
}
