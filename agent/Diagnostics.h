// What an operator sees of a pass on request.
//
// With PORVANE_DEBUG set to a non-empty value other than "0" in the agent's
// environment, the pass writes one line to standard error for each of its
// steps (lock, trim, folder, end) and for each attempt at each file: the
// file, the receiver URL without credentials, the HTTP status, libcurl's
// error text if any, the reply's first word and what comes next (removed, or
// the wait before the next try). Without it the pass writes nothing at all.
//
// A line carries file names and the receiver's words, which anyone may
// choose: each byte below 0x20, 0x7F and the backslash are written escaped
// ("\xHH" with upper-case hex digits, "\\"), so no text can end a line early
// or forge one in the journal. Other bytes, UTF-8 included, go as they are.
#ifndef PORVANE_AGENT_DIAGNOSTICS_H
#define PORVANE_AGENT_DIAGNOSTICS_H

#include <string>

class Diagnostics {
 public:
  // On or off as PORVANE_DEBUG says, read once here.
  static Diagnostics FromEnvironment();
  explicit Diagnostics(bool inEnabled) : mEnabled(inEnabled) {}

  // Writes "porvane: " + Escape(inLine) + "\n" to standard error, in one
  // write, when enabled; nothing otherwise.
  void Say(const std::string& inLine) const;

  // inText with the bytes below 0x20, 0x7F and "\" escaped as above.
  static std::string Escape(const std::string& inText);

 private:
  bool mEnabled;
};

#endif  // PORVANE_AGENT_DIAGNOSTICS_H
