#include "ReceiverOptions.h"

#include <boost/asio/ip/address.hpp>
#include <cerrno>
#include <cstdlib>

const char* const kReceiverUsage =
    "usage: porvane-receiver --spool DIR [--listen ADDR] [--port N] [--policy FILE]\n"
    "                        [--delay-ms N] [--cert FILE --key FILE]\n"
    "  Accepts multipart/form-data uploads over HTTP/1.1, or HTTPS with --cert and\n"
    "  --key, stores each \"logfile\" part as DIR/<file name> and answers with the\n"
    "  policy's reply for the file's kind, until SIGTERM or SIGINT. Prints\n"
    "  \"porvane-receiver: listening on ADDR:PORT\" (an IPv6 address in brackets,\n"
    "  followed by \" (TLS)\" for HTTPS), then one line per request:\n"
    "  \"kind=KIND file=NAME bytes=N answer=REPLY\" or \"rejected status=S reason=TEXT\"\n"
    "  (status 0: a failed TLS handshake).\n"
    "  --spool DIR      folder for received files (created if missing)\n"
    "  --listen ADDR    numeric IPv4 or IPv6 address to listen on; default 127.0.0.1\n"
    "  --port N         port to listen on; 0 (the default) picks a free one\n"
    "  --policy FILE    [Policy] section: <kind>=<reply>, *=<reply>; default Active\n"
    "  --delay-ms N     wait N milliseconds before each answer\n"
    "  --cert FILE      PEM certificate chain, the server's own first; needs --key\n"
    "  --key FILE       PEM private key of that certificate, unencrypted\n"
    "  --help           print this text\n"
    "  Exit status: 0 after SIGTERM or SIGINT, 1 when the address cannot be bound,\n"
    "  2 for a bad command line, spool, policy, certificate or key.\n";

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

// The options whose value is a file or folder name, and where it goes.
const std::pair<const char*, std::string ReceiverOptions::*> kPathOptions[] = {
    {"--spool", &ReceiverOptions::spoolFolder},
    {"--policy", &ReceiverOptions::policyFile},
    {"--cert", &ReceiverOptions::certificateFile},
    {"--key", &ReceiverOptions::keyFile}};

std::string ReceiverOptions::* PathOption(const std::string& inName) {
  for (const auto& [name, member] : kPathOptions)
    if (inName == name) return member;
  return nullptr;
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
    } else if (name == "--port" || name == "--delay-ms" || name == "--listen" || PathOption(name) != nullptr) {
      if (i + 1 == inArgs.size()) return "option " + name + " needs a value";
      value = inArgs[++i];
    }
    boost::system::error_code addressError;
    if (name == "--port") {
      if (!ParseNumber(value, 65535, outOptions.port)) return "bad port '" + value + "'";
    } else if (name == "--delay-ms") {
      if (!ParseNumber(value, 3600000, outOptions.delayMs)) return "bad delay '" + value + "'";
    } else if (name == "--listen") {
      boost::asio::ip::make_address(value, addressError);
      if (addressError) return "bad address '" + value + "'";
      outOptions.listenAddress = value;
    } else if (PathOption(name) != nullptr) {
      if (value.empty()) return "option " + name + " needs a value";
      outOptions.*PathOption(name) = value;
    } else {
      return "unknown option '" + inArgs[i] + "'";
    }
  }
  if (outOptions.spoolFolder.empty()) return "--spool DIR is required";
  if (outOptions.certificateFile.empty() != outOptions.keyFile.empty()) return "--cert and --key go together";
  return {};
}
