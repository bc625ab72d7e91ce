// CommandLineTokenParser: the grammar of one command-line argument.
//
// Every argument holds one named option: a prefix, a name and, optionally, a
// separator and a value, such as "-logDir=/var/log/x", "--noLock" or
// "/receiverURL:https://h.example/servlet". The grammar is a Boost.Spirit
// (classic) grammar over const char* with no skipper; parse it with
// boost::spirit::classic::parse(first, last, parser) and accept the argument
// only when the result is full (the whole text consumed).
//
//   prefix    := '-' '-'? | '/' | '\'
//   nameChar  := letter | digit | '_'
//   name      := nameChar+                               -> OnOptionName
//   separator := '=' | ':'
//   value     := '"'? item+ ('"'? | space*)              -> OnOptionValue
//   item      := letter | digit | ':' | '*'
//              | punct (letter | digit | punct, other than '"')
//   option    := prefix name (separator value)?
//
// Matching is Spirit's: repetitions are greedy and never give back what they
// took, and an alternative takes its first branch that matches. What follows
// from that is intended and relied on:
// - The trailer's optional quote always matches, if only the empty text, so
//   its white-space branch never applies: no value ends in white space, and
//   an argument with a space anywhere in its value is rejected.
// - A punctuation character other than ':' and '*' is taken only together
//   with the character after it. A value that ends in such a character
//   ("/tmp/logs/", "https://h/", "x.") leaves it unconsumed and the argument
//   is rejected.
// - Double quotes are not removed: -a="b" yields the value "b" with both
//   quote characters. A punctuation character directly before a double quote
//   ends the items there, which is how a closing quote reaches the trailer.
// - An option without a value reports the value "1" (see
//   CommandLineEventHandler). A separator with nothing behind it ("-a=") is
//   rejected: the optional part falls back to empty and the '=' is left over.
// - Letters, digits, punctuation and white space are the "C" locale's classes,
//   tested on the byte itself, whatever the process locale. White space,
//   control characters and bytes from 128 up are accepted nowhere.
#ifndef PORVANE_AGENT_COMMANDLINETOKENPARSER_H
#define PORVANE_AGENT_COMMANDLINETOKENPARSER_H

#include "CommandLineEventHandler.h"
#include "SemanticHandler.h"

#include <boost/spirit/include/classic.hpp>

namespace qvd {

// Character classes of the "C" locale, decided on the unsigned byte. Spirit's
// own alnum_p and punct_p ask the C library, whose answer for bytes from 128
// up depends on the locale the process happens to run in.
inline bool IsAsciiAlnum(unsigned char inChar) {
  return (inChar >= '0' && inChar <= '9') || (inChar >= 'A' && inChar <= 'Z') ||
         (inChar >= 'a' && inChar <= 'z');
}
inline bool IsAsciiPunct(unsigned char inChar) {
  return inChar >= 0x21 && inChar <= 0x7e && !IsAsciiAlnum(inChar);
}
inline bool IsAsciiSpace(unsigned char inChar) {
  return inChar == ' ' || (inChar >= '\t' && inChar <= '\r');
}

namespace cmdline_detail {

// One-character Spirit parsers over the classes above.
struct AsciiAlnumParser : boost::spirit::classic::char_parser<AsciiAlnumParser> {
  template <typename CharT>
  bool test(CharT inChar) const { return IsAsciiAlnum(static_cast<unsigned char>(inChar)); }
};
struct AsciiPunctParser : boost::spirit::classic::char_parser<AsciiPunctParser> {
  template <typename CharT>
  bool test(CharT inChar) const { return IsAsciiPunct(static_cast<unsigned char>(inChar)); }
};
struct AsciiSpaceParser : boost::spirit::classic::char_parser<AsciiSpaceParser> {
  template <typename CharT>
  bool test(CharT inChar) const { return IsAsciiSpace(static_cast<unsigned char>(inChar)); }
};

}  // namespace cmdline_detail

class CommandLineTokenParser : public boost::spirit::classic::grammar<CommandLineTokenParser> {
 public:
  typedef SemanticHandler<CommandLineEventHandler, const char*> Binding;

  // Reports to inHandler. REQUIRES: inHandler outlives every parse with this
  // grammar.
  explicit CommandLineTokenParser(CommandLineEventHandler& inHandler)
      : mOnOptionName(&inHandler, &CommandLineEventHandler::OnOptionName),
        mOnOptionValue(&inHandler, &CommandLineEventHandler::OnOptionValue) {}

  // Rules hold pointers to the bindings below; a copy would report to
  // bindings it does not own.
  CommandLineTokenParser(const CommandLineTokenParser&) = delete;
  CommandLineTokenParser& operator=(const CommandLineTokenParser&) = delete;

  // The bindings of the two events; public so that Spirit's definition can
  // reach them.
  Binding mOnOptionName;
  Binding mOnOptionValue;

  template <typename ScannerT>
  struct definition {
    typedef boost::spirit::classic::rule<ScannerT> Rule;

    Rule prefix, nameChar, name, separator, value, option;

    explicit definition(const CommandLineTokenParser& self) {
      using boost::spirit::classic::ch_p;
      const cmdline_detail::AsciiAlnumParser alnum;
      const cmdline_detail::AsciiPunctParser punct;
      const cmdline_detail::AsciiSpaceParser space;

      prefix = (ch_p('-') >> !ch_p('-')) | ch_p('/') | ch_p('\\');
      nameChar = alnum | ch_p('_');
      name = (+nameChar)[self.mOnOptionName.Binder()];
      separator = ch_p('=') | ch_p(':');
      value = (!ch_p('"') >>
               +(alnum | ch_p(':') | ch_p('*') | (punct >> ((alnum | punct) - ch_p('"')))) >>
               (!ch_p('"') | *space))[self.mOnOptionValue.Binder()];
      option = prefix >> name >> !(separator >> value);
    }

    const Rule& start() const { return option; }
  };
};

}  // namespace qvd

#endif  // PORVANE_AGENT_COMMANDLINETOKENPARSER_H
