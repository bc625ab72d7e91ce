#include "agent/CommandLineTokenParser.h"

#include "agent/CommandLineEventHandler.h"
#include "include/SemanticHandler.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cstring>
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
  const char* last = first + inArgument.size();
  const boost::spirit::classic::parse_info<const char*> info =
      boost::spirit::classic::parse(first, last, grammar);
  return ParseOutcome{info.hit, info.full, static_cast<size_t>(info.stop - first), handler.name, handler.value};
}

struct AcceptCase {
  const char* argument;
  const char* name;
  const char* value;
};

TEST(CommandLineTokenParserTest, AcceptedArgumentsReportNameAndValue) {
  const AcceptCase kCases[] = {
      {"-logDir=/tmp/logs", "logDir", "/tmp/logs"},
      {"--receiverURL=https://h.example/x/FileDataCaptureServlet", "receiverURL",
       "https://h.example/x/FileDataCaptureServlet"},
      {"-receiverURL:https://h.example/x/FileDataCaptureServlet", "receiverURL",
       "https://h.example/x/FileDataCaptureServlet"},
      // Prefixes: one or two hyphens, a slash, a backslash.
      {"-noLock", "noLock", "1"},
      {"--noLock", "noLock", "1"},
      {"/noLock", "noLock", "1"},
      {"\\noLock", "noLock", "1"},
      // A one-component path is an option, not a path.
      {"/tmp", "tmp", "1"},
      // The value replaces the "1" of presence: the value event comes second.
      {"-noLock=0", "noLock", "0"},
      {"-a:b", "a", "b"},
      // Quotes stay in the value.
      {"-a=\"b\"", "a", "\"b\""},
      {"-receiverURL=\"x\"", "receiverURL", "\"x\""},
      {"-a=\"b:\"", "a", "\"b:\""},
      {"-a=x\"", "a", "x\""},
      {"-a=a\"b", "a", "a\"b"},
      {"-a=\"\"b\"", "a", "\"\"b\""},
      // ':' and '*' are items of their own and may end a value.
      {"-a=x*", "a", "x*"},
      {"-a=x:", "a", "x:"},
      {"-a=:", "a", ":"},
      {"-a=*", "a", "*"},
      // Other punctuation goes in pairs with the character after it.
      {"-a=x..", "a", "x.."},
      {"-a=.x", "a", ".x"},
      {"-a==x", "a", "=x"},
      {"-a=1=2", "a", "1=2"},
      {"-a=--", "a", "--"},
      {"-a=%7e", "a", "%7e"},
      {"-a=/tmp/logs//", "a", "/tmp/logs//"},
      // Names: letters, digits and '_', case kept.
      {"-log_dir=x", "log_dir", "x"},
      {"-_=x", "_", "x"},
      {"-9=x", "9", "x"},
      {"-LogDir=X", "LogDir", "X"},
  };
  for (const AcceptCase& c : kCases) {
    SCOPED_TRACE(c.argument);
    const ParseOutcome outcome = Parse(c.argument);
    EXPECT_TRUE(outcome.full);
    EXPECT_EQ(outcome.stop, std::strlen(c.argument));
    EXPECT_EQ(outcome.name, c.name);
    EXPECT_EQ(outcome.value, c.value);
  }
}

const size_t kNoOption = std::string::npos;

struct RejectCase {
  std::string argument;
  // Where the option that matched ends, short of the argument's end, or
  // kNoOption when no option matches at all.
  size_t stop;
};

TEST(CommandLineTokenParserTest, RejectedArgumentsStopWhereTheGrammarEnds) {
  const RejectCase kCases[] = {
      // A trailing punctuation character other than ':' or '*' is left over.
      {"-logDir=/tmp/logs/", 17},
      {"--receiverURL=https://h.example/x/FileDataCaptureServlet/", 56},
      {"-a=x.", 4},
      {"-a=x...", 6},
      {"-a=-", 2},
      // A separator with nothing (usable) behind it.
      {"-logDir=", 7},
      {"-a=\"\"", 2},
      {"-a=\"x\"\"", 6},
      // A punctuation character before a double quote ends the items.
      {"-a=\"b.\"", 5},
      // White space is accepted nowhere, also not at the end of a value.
      {"-a=\"b c\"", 5},
      {"-a=x y", 4},
      {"-a=x\ty", 4},
      {"-a=x ", 4},
      {"-a=x\t", 4},
      {"-a=x\n", 4},
      {"-a=x. y", 4},
      {"-a= x", 2},
      {" -a=x", kNoOption},
      {"-no Lock", 3},
      // Bytes from 128 up and control characters.
      {"-a=\xc3\xa9", 2},
      {"-a=x\xc3\xa9", 4},
      {"-a=/\xc3\xa9", 2},
      {"-\xc3\xa9=x", kNoOption},
      {"-a=x\x01", 4},
      {"-a=./\x01", 5},
      {"-a=x\x7f", 4},
      // Names: no '-' inside, something after the prefix, at most two hyphens.
      {"-log-dir=x", 4},
      {"---noLock", kNoOption},
      {"--", kNoOption},
      {"-", kNoOption},
      {"/", kNoOption},
      {"\\", kNoOption},
      {"", kNoOption},
      {"-=x", kNoOption},
      {"noLock", kNoOption},
      {"=x", kNoOption},
      // A path of more than one component: rejected at its second '/'.
      {"/Users/x", 6},
  };
  for (const RejectCase& c : kCases) {
    SCOPED_TRACE(c.argument);
    const ParseOutcome outcome = Parse(c.argument);
    EXPECT_FALSE(outcome.full);
    if (c.stop == kNoOption) {
      EXPECT_FALSE(outcome.hit);
    } else {
      EXPECT_TRUE(outcome.hit);
      EXPECT_EQ(outcome.stop, c.stop);
    }
  }
}

// The character classes are the "C" locale's, byte by byte: checked here for
// every byte against the C library in the "C" locale, which is the locale a
// test program starts in.
TEST(CommandLineTokenParserTest, EveryByteIsClassifiedAsInTheCLocale) {
  for (int byte = 1; byte < 256; ++byte) {
    const char c = static_cast<char>(byte);
    SCOPED_TRACE(byte);
    const bool alnum = std::isalnum(byte) != 0;
    const bool graph = std::isgraph(byte) != 0;

    // In a name: letters, digits and '_'.
    EXPECT_EQ(Parse(std::string("-") + c + "=1").full, alnum || c == '_');

    // A value of one character: a letter or digit, ':' or '*'.
    const ParseOutcome single = Parse(std::string("-a=") + c);
    EXPECT_EQ(single.full, alnum || c == ':' || c == '*');

    // Inside a value: anything visible, a double quote too, as long as
    // something visible follows it.
    const ParseOutcome inner = Parse(std::string("-a=x") + c + "y");
    EXPECT_EQ(inner.full, graph);
    if (graph) {
      EXPECT_EQ(inner.value, std::string("x") + c + "y");
    }
  }
}

TEST(CommandLineTokenParserTest, AFreshHandlerStartsEmpty) {
  const qvd::CommandLineEventHandler handler;
  EXPECT_EQ(handler.name, "");
  EXPECT_EQ(handler.value, "");
}

// Records the ranges it is called with.
struct RangeRecorder {
  std::string seen;
  int calls = 0;
  void OnEvent(const char* first, const char* last) {
    seen.assign(first, last);
    ++calls;
  }
};

typedef qvd::SemanticHandler<RangeRecorder, const char*> RecorderBinding;

TEST(SemanticHandlerTest, BinderCallsTheBoundMemberWithTheMatchedRange) {
  RangeRecorder first;
  RangeRecorder second;
  RecorderBinding binding(&first, &RangeRecorder::OnEvent);
  const RecorderBinding::SemanticActionBinder binder = binding.Binder();
  const char kText[] = "logDir=/x";

  binder(kText, kText + 6);
  EXPECT_EQ(first.seen, "logDir");
  EXPECT_EQ(first.calls, 1);

  // A binder follows its binding, also when the binding changes after the
  // binder was handed out.
  binding.instance = &second;
  const RecorderBinding::SemanticActionBinder copy = binder;
  copy(kText + 7, kText + 9);
  EXPECT_EQ(second.seen, "/x");
  EXPECT_EQ(second.calls, 1);
  EXPECT_EQ(first.calls, 1);
}

TEST(SemanticHandlerDeathTest, MissingInstanceOrEventFunctionStopsTheProcess) {
  const char kText[] = "x";
  qvd::CommandLineEventHandler handler;
  const qvd::CommandLineTokenParser::Binding noInstance(nullptr, &qvd::CommandLineEventHandler::OnOptionName);
  EXPECT_DEATH(noInstance.Binder()(kText, kText + 1),
               "^include/SemanticHandler\\.h:88: failed assertion `instance'\n$");

  const qvd::CommandLineTokenParser::Binding noEvent(&handler, nullptr);
  EXPECT_DEATH(noEvent.Binder()(kText, kText + 1),
               "^include/SemanticHandler\\.h:89: failed assertion `eventFunc'\n$");

  // The instance is checked first.
  const qvd::CommandLineTokenParser::Binding unbound;
  EXPECT_DEATH(unbound.Binder()(kText, kText + 1),
               "^include/SemanticHandler\\.h:88: failed assertion `instance'\n$");
}

}  // namespace
