#include "CommandLineEventHandler.h"

namespace qvd {

void CommandLineEventHandler::OnOptionName(const char* first, const char* last) {
  name.assign(first, last);
  // Presence alone is an answer ("-noLock"): the value event, when the
  // argument has a value, comes after this one and replaces it.
  value = "1";
}

void CommandLineEventHandler::OnOptionValue(const char* first, const char* last) {
  value.assign(first, last);
}

}  // namespace qvd
