#include "ReceiverOptions.h"

#include <boost/asio/ip/address.hpp>
#include <cerrno>
#include <cstdlib>

const char* const kReceiverUsage =
    "usage: porvane-receiver --spool DIR [--listen ADDR] [--port N] [--policy FILE]\n"
    "                        [--auth FILE] [--cert FILE --key FILE] [--delay-ms N]\n"
    "                        [--header-timeout S] [--max-per-address N]\n"
    "                        [--max-body BYTES] [--max-spool BYTES]\n"
    "  Accepts multipart/form-data uploads over HTTP/1.1, or HTTPS with --cert and\n"
    "  --key, stores each \"logfile\" part as DIR/<file name> (DIR/<file name>.1 and\n"
    "  so on when that is taken) and answers with the policy's reply for the\n"
    "  file's kind, until SIGTERM or SIGINT. Prints \"porvane-receiver: listening on\n"
    "  ADDR:PORT\" (an IPv6 address in brackets, followed by \" (TLS)\" for HTTPS),\n"
    "  then one line per request: \"kind=KIND file=NAME bytes=N answer=REPLY\" or\n"
    "  \"rejected status=S reason=TEXT\" (status 0: no answer could be given).\n"
    "  --spool DIR           folder for received files (created if missing)\n"
    "  --listen ADDR         numeric IPv4 or IPv6 address; default 127.0.0.1\n"
    "  --port N              port to listen on; 0 (the default) picks a free one\n"
    "  --policy FILE         [Policy] section: <kind>=<reply>, *=<reply>; default Active\n"
    "  --auth FILE           HTTP Basic users, lines of user:crypt-hash; others get 401\n"
    "  --cert FILE           PEM certificate chain, the server's own first; needs --key\n"
    "  --key FILE            PEM private key of that certificate, unencrypted\n"
    "  --delay-ms N          wait N milliseconds before each answer\n"
    "  --header-timeout S    seconds for the TLS handshake and first headers; default 10\n"
    "  --max-per-address N   connections per client address still without headers;\n"
    "                        default 16, 0 for no limit (behind a proxy)\n"
    "  --max-body BYTES      largest request body, else 413; default 1073741824\n"
    "  --max-spool BYTES     most bytes the spool holds, else 507; default no limit\n"
    "  --help                print this text\n"
    "  Exit status: 0 after SIGTERM or SIGINT, 1 when the address cannot be bound,\n"
    "  2 for a bad command line, spool, policy, user file, certificate or key.\n";

namespace {

// Parses a whole decimal number in [inMin, inMax]; false when it is not one.
bool ParseNumber(const std::string& inText, unsigned long long inMin, unsigned long long inMax,
                 unsigned long long& outValue) {
  if (inText.empty() || inText.size() > 19 || inText.find_first_not_of("0123456789") != std::string::npos)
    return false;
  errno = 0;
  unsigned long long value = std::strtoull(inText.c_str(), nullptr, 10);
  if (errno != 0 || value < inMin || value > inMax) return false;
  outValue = value;
  return true;
}

// The options whose value is a file or folder name, and where it goes.
const std::pair<const char*, std::string ReceiverOptions::*> kPathOptions[] = {
    {"--spool", &ReceiverOptions::spoolFolder},
    {"--policy", &ReceiverOptions::policyFile},
    {"--auth", &ReceiverOptions::authFile},
    {"--cert", &ReceiverOptions::certificateFile},
    {"--key", &ReceiverOptions::keyFile}};

// The options whose value is a number: name, what the message calls it,
// bounds, and where it goes (an int or an unsigned long long member).
struct NumberOption {
  const char* name;
  const char* what;
  unsigned long long min;
  unsigned long long max;
  int ReceiverOptions::* intMember;
  unsigned long long ReceiverOptions::* bigMember;
};
const NumberOption kNumberOptions[] = {
    {"--port", "port", 0, 65535, &ReceiverOptions::port, nullptr},
    {"--delay-ms", "delay", 0, 3600000, &ReceiverOptions::delayMs, nullptr},
    {"--header-timeout", "header time-out", 1, 3600, &ReceiverOptions::headerTimeoutSeconds, nullptr},
    {"--max-per-address", "connection count", 0, 1000000, &ReceiverOptions::maxPerAddress, nullptr},
    {"--max-body", "body size", 0, 1ull << 50, nullptr, &ReceiverOptions::maxBodyBytes},
    {"--max-spool", "spool size", 0, 1ull << 60, nullptr, &ReceiverOptions::maxSpoolBytes}};

std::string ReceiverOptions::* PathOption(const std::string& inName) {
  for (const auto& [name, member] : kPathOptions)
    if (inName == name) return member;
  return nullptr;
}

const NumberOption* FindNumberOption(const std::string& inName) {
  for (const NumberOption& option : kNumberOptions)
    if (inName == option.name) return &option;
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
    const NumberOption* number = FindNumberOption(name.substr(0, equals));
    if (equals != std::string::npos) {
      value = name.substr(equals + 1);
      name.erase(equals);
    } else if (name == "--listen" || number != nullptr || PathOption(name) != nullptr) {
      if (i + 1 == inArgs.size()) return "option " + name + " needs a value";
      value = inArgs[++i];
    }
    boost::system::error_code addressError;
    unsigned long long parsed = 0;
    if (number != nullptr) {
      if (!ParseNumber(value, number->min, number->max, parsed))
        return std::string("bad ") + number->what + " '" + value + "'";
      if (number->intMember != nullptr) outOptions.*(number->intMember) = static_cast<int>(parsed);
      if (number->bigMember != nullptr) outOptions.*(number->bigMember) = parsed;
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
