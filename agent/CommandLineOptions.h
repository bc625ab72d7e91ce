// CommandLineOptions: the agent's named options, from argv and the
// environment.
//
// Each argument argv[1] .. argv[argc-1] holds exactly one option, in the form
// that qvd::CommandLineTokenParser accepts ("-noLock", "--logDir=/x",
// "/receiverURL:https://h/servlet"). Arguments are never joined: "-logDir"
// followed by "/home/u/logs" is the option logDir = "1" and then a second
// argument that is itself read as an option (and here rejected at its second
// '/').
//
// Every look-up falls back to the environment variable of the same name, so
// any option can also be given as, for example, logDir=/x in the environment.
// The command line always wins over the environment.
#ifndef PORVANE_AGENT_COMMANDLINEOPTIONS_H
#define PORVANE_AGENT_COMMANDLINEOPTIONS_H

#include <map>
#include <string>

class CommandLineOptions {
 public:
  typedef std::map<std::string, std::string> OptionMap;

  // Parses argv[1] to argv[argc-1] in order; argv[0] is ignored. A name given
  // more than once keeps its last value.
  // Throws std::invalid_argument whose what() is the first argument that is
  // not one whole option, exactly as passed; no object is made then, whatever
  // the arguments before it held.
  // REQUIRES: argv[1] .. argv[argc-1] are zero-terminated strings.
  CommandLineOptions(int argc, const char* const* argv);

  // True when the command line held inName; otherwise true exactly when the
  // environment holds a variable inName, whatever its text (even empty).
  // Names are case-sensitive.
  bool HasOption(const std::string& inName) const;

  // When the command line held inName: copies its value into outValue and
  // returns true. Otherwise, when the environment holds inName: copies that
  // text (possibly empty) into outValue and returns true. Otherwise returns
  // false and leaves outValue unchanged.
  bool GetOptionValue(const std::string& inName, std::string& outValue) const;

 private:
  OptionMap mOptions;
};

#endif  // PORVANE_AGENT_COMMANDLINEOPTIONS_H
