// CommandLineEventHandler: what the command-line grammar recognised in one
// argument.
//
// qvd::CommandLineTokenParser reports an option's name and, when present, its
// value through the two events below. A fresh handler is used for every
// argument, so after a successful parse the fields hold exactly that
// argument's option.
#ifndef PORVANE_AGENT_COMMANDLINEEVENTHANDLER_H
#define PORVANE_AGENT_COMMANDLINEEVENTHANDLER_H

#include <string>

namespace qvd {

struct CommandLineEventHandler {
  // The option's name, without prefix. Empty until OnOptionName.
  std::string name;
  // The option's value exactly as written after the separator, double quotes
  // included; "1" for an option written without a value. Empty until
  // OnOptionName.
  std::string value;

  // The name rule matched [first, last): name becomes that text and value
  // becomes "1", the value of an option that carries none.
  void OnOptionName(const char* first, const char* last);

  // The value rule matched [first, last): value becomes that text.
  void OnOptionValue(const char* first, const char* last);
};

}  // namespace qvd

#endif  // PORVANE_AGENT_COMMANDLINEEVENTHANDLER_H
