#include "CommandLineOptions.h"

#include "CommandLineEventHandler.h"
#include "CommandLineTokenParser.h"

#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace {

// Parses one argument into inHandler; true when the whole text is one option.
bool ParseArgument(const char* inArgument, qvd::CommandLineEventHandler& inHandler) {
  qvd::CommandLineTokenParser grammar(inHandler);
  const char* first = inArgument;
  const char* last = inArgument + std::strlen(inArgument);
  // A prefix that matches is not enough: "/home/u" matches "/home" and would
  // otherwise pass as the option "home".
  return boost::spirit::classic::parse(first, last, grammar).full;
}

}  // namespace

CommandLineOptions::CommandLineOptions(int argc, const char* const* argv) {
  for (int i = 1; i < argc; ++i) {
    // A fresh handler per argument: nothing of one argument leaks into the
    // next.
    qvd::CommandLineEventHandler handler;
    if (!ParseArgument(argv[i], handler)) {
      throw std::invalid_argument(argv[i]);
    }
    mOptions[handler.name] = handler.value;
  }
}

bool CommandLineOptions::HasOption(const std::string& inName) const {
  if (mOptions.count(inName) != 0) {
    return true;
  }
  return std::getenv(inName.c_str()) != nullptr;
}

bool CommandLineOptions::GetOptionValue(const std::string& inName, std::string& outValue) const {
  const OptionMap::const_iterator found = mOptions.find(inName);
  if (found != mOptions.end()) {
    outValue = found->second;
    return true;
  }
  if (const char* environmentText = std::getenv(inName.c_str())) {
    outValue = environmentText;
    return true;
  }
  return false;
}
