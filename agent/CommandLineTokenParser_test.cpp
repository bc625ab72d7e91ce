#include "CommandLineTokenParser.h"

#include "CommandLineEventHandler.h"
#include "SemanticHandler.h"

#include <gtest/gtest.h>

#include <cctype>
#include <string>

namespace {

struct ParseOutcome {
  bool hit;     // an option matched at the start of the text
  bool full;    // ... and took the whole text
  size_t stop;  // characters consumed by the option that matched
  std::string name;
  std::string value;
};

ParseOutcome Parse(const std::string& inArgument) {
  qvd::CommandLineEventHandler handler;
  qvd::CommandLineTokenParser grammar(handler);
  const char* first = inArgument.c_str();
  const auto info = boost::spirit::classic::parse(first, first + inArgument.size(), grammar);
  return ParseOutcome{info.hit, info.full, static_cast<size_t>(info.stop - first), handler.name, handler.value};
}

TEST(CommandLineTokenParserTest, AcceptedArgumentsReportNameAndValue) {
  const struct {
    std::string argument, name, value;
  } kCases[] = {
      {"-logDir=/tmp/logs", "logDir", "/tmp/logs"},
      {"--receiverURL=https://h.example/x/FileDataCaptureServlet", "receiverURL",
       "https://h.example/x/FileDataCaptureServlet"},
      {"-receiverURL:https://h.example/x/FileDataCaptureServlet", "receiverURL",
       "https://h.example/x/FileDataCaptureServlet"},
      {"-noLock", "noLock", "1"},
      {"/noLock", "noLock", "1"},
      {"\\noLock", "noLock", "1"},
      {"/tmp", "tmp", "1"},        // a one-component path is an option
      {"-noLock=0", "noLock", "0"},  // the value event replaces the "1"
      // Quotes stay in the value.
      {"-a=\"b\"", "a", "\"b\""},
      {"-a=\"b:\"", "a", "\"b:\""},
      {"-a=a\"b", "a", "a\"b"},
      // ':' and '*' may end a value; other punctuation pairs with what follows.
      {"-a=x*", "a", "x*"},
      {"-a=x:", "a", "x:"},
      {"-a==x", "a", "=x"},
      {"-log_dir=x", "log_dir", "x"},
  };
  for (const auto& c : kCases) {
    const ParseOutcome outcome = Parse(c.argument);
    EXPECT_TRUE(outcome.full) << c.argument;
    EXPECT_EQ(outcome.name, c.name) << c.argument;
    EXPECT_EQ(outcome.value, c.value) << c.argument;
  }
}

TEST(CommandLineTokenParserTest, RejectedArgumentsStopWhereTheGrammarEnds) {
  const size_t kNoOption = std::string::npos;
  const std::pair<std::string, size_t> kCases[] = {
      // Trailing punctuation other than ':' or '*' is left over.
      {"-logDir=/tmp/logs/", 17},
      {"--receiverURL=https://h.example/x/FileDataCaptureServlet/", 56},
      {"-a=x.", 4},
      {"-logDir=", 7},  // a separator with nothing behind it
      {"-a=\"\"", 2},
      {"-a=\"b.\"", 5},  // punctuation before a quote ends the items
      // White space and bytes from 128 up, anywhere (every byte is tried below).
      {"-a=\"b c\"", 5},
      {"-a=x ", 4},
      {"-a=x. y", 4},
      {" -a=x", kNoOption},
      {"-a=x\xc3\xa9", 4},
      // Names, prefixes and paths.
      {"-log-dir=x", 4},
      {"---noLock", kNoOption},
      {"-", kNoOption},
      {"", kNoOption},
      {"noLock", kNoOption},
      {"/Users/x", 6},
  };
  for (const auto& [argument, stop] : kCases) {
    const ParseOutcome outcome = Parse(argument);
    EXPECT_FALSE(outcome.full) << argument;
    EXPECT_EQ(outcome.hit, stop != kNoOption) << argument;
    if (stop != kNoOption) {
      EXPECT_EQ(outcome.stop, stop) << argument;
    }
  }
}

// The character classes are the "C" locale's, byte by byte: checked for every
// byte against the C library in the "C" locale, the one a test starts in.
TEST(CommandLineTokenParserTest, EveryByteIsClassifiedAsInTheCLocale) {
  for (int byte = 1; byte < 256; ++byte) {
    const char c = static_cast<char>(byte);
    const bool alnum = std::isalnum(byte) != 0;
    EXPECT_EQ(Parse(std::string("-") + c + "=1").full, alnum || c == '_') << "name, byte " << byte;
    EXPECT_EQ(Parse(std::string("-a=") + c).full, alnum || c == ':' || c == '*') << "value, byte " << byte;
    // Inside a value anything visible, a quote too, when something visible follows.
    const ParseOutcome inner = Parse(std::string("-a=x") + c + "y");
    EXPECT_EQ(inner.full, std::isgraph(byte) != 0) << "inside, byte " << byte;
    if (inner.full) {
      EXPECT_EQ(inner.value, std::string("x") + c + "y");
    }
  }
}

TEST(SemanticHandlerDeathTest, MissingInstanceOrEventFunctionStopsTheProcess) {
  const char kText[] = "x";
  qvd::CommandLineEventHandler handler;
  const qvd::CommandLineTokenParser::Binding noInstance(nullptr, &qvd::CommandLineEventHandler::OnOptionName);
  EXPECT_DEATH(noInstance.Binder()(kText, kText + 1), "^include/SemanticHandler\\.h:88: failed assertion `instance'\n$");
  const qvd::CommandLineTokenParser::Binding noEvent(&handler, nullptr);
  EXPECT_DEATH(noEvent.Binder()(kText, kText + 1), "^include/SemanticHandler\\.h:89: failed assertion `eventFunc'\n$");
}

}  // namespace
