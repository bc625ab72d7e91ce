#include "ReceiverOptions.h"

#include <cerrno>
#include <cstdlib>

const char* const kReceiverUsage =
    "usage: porvane-receiver --spool DIR [--port N] [--policy FILE] [--delay-ms N]\n"
    "  Accepts multipart/form-data uploads on 127.0.0.1 and stores each \"logfile\"\n"
    "  part as DIR/<file name>; answers with the policy's reply for the file's kind.\n"
    "  --spool DIR      folder for received files (created if missing)\n"
    "  --port N         port to listen on; 0 (the default) picks a free one\n"
    "  --policy FILE    [Policy] section: <kind>=<reply>, *=<reply>; default Active\n"
    "  --delay-ms N     wait N milliseconds before each answer\n"
    "  --help           print this text\n";

namespace {

// Parses a whole decimal number in [0, inMax]; false when it is not one.
bool ParseNumber(const std::string& inText, long inMax, int& outValue) {
  if (inText.empty() || inText.find_first_not_of("0123456789") != std::string::npos) return false;
  errno = 0;
  long value = std::strtol(inText.c_str(), nullptr, 10);
  if (errno != 0 || value > inMax) return false;
  outValue = static_cast<int>(value);
  return true;
}

}  // namespace

std::string ParseReceiverOptions(const std::vector<std::string>& inArgs, ReceiverOptions& outOptions) {
  for (const std::string& arg : inArgs)
    if (arg == "--help") {
      outOptions.help = true;
      return {};
    }
  for (size_t i = 0; i < inArgs.size(); ++i) {
    std::string name = inArgs[i];
    std::string value;
    size_t equals = name.find('=');
    if (equals != std::string::npos) {
      value = name.substr(equals + 1);
      name.erase(equals);
    } else if (name == "--port" || name == "--spool" || name == "--policy" || name == "--delay-ms") {
      if (i + 1 == inArgs.size()) return "option " + name + " needs a value";
      value = inArgs[++i];
    }
    if (name == "--port") {
      if (!ParseNumber(value, 65535, outOptions.port)) return "bad port '" + value + "'";
    } else if (name == "--delay-ms") {
      if (!ParseNumber(value, 3600000, outOptions.delayMs)) return "bad delay '" + value + "'";
    } else if (name == "--spool" || name == "--policy") {
      if (value.empty()) return "option " + name + " needs a value";
      (name == "--spool" ? outOptions.spoolFolder : outOptions.policyFile) = value;
    } else {
      return "unknown option '" + inArgs[i] + "'";
    }
  }
  if (outOptions.spoolFolder.empty()) return "--spool DIR is required";
  return {};
}
