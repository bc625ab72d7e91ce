// Positional formatting: "%0" to "%9" name the arguments, counted from 0.
//
//   std::string s;
//   FormatString(s, "%0.%1.%2", 10, 4, 9);        // s == "10.4.9"
//   FormatString(s, "%1 before %0", "b", "a");    // s == "a before b"
//
// Rules, applied left to right over the format:
// - "%" followed by one or more decimal digits is replaced by the text of the
//   argument with that number. The digits are read greedily, so "%10" is
//   number 10, not argument 1 followed by "0". A number above 9 is a
//   programming error and fails the assertion
//   NULL == "Format values above %9 are not supported".
// - A number in range that names an argument that was not passed (e.g. "%3"
//   with two arguments) is copied through as written, digits included, and
//   does not fail the call: the gap stays visible in the output instead of
//   silently vanishing.
// - "%%" gives one "%"; "%" followed by any other character is copied with
//   that character; a "%" at the very end is copied as it is.
// - Strings (std::string, C strings, single characters) are copied as they
//   are; other arguments are written through operator<< on a classic-locale
//   stream, so numbers come out in plain decimal without grouping. When that
//   write fails (the stream reports failure), formatting stops there: the call
//   returns false and outResult holds the text produced up to that point.
//   Arguments are converted only when the format refers to them.
//
// Returns true unless an argument's conversion failed.
#ifndef PORVANE_INCLUDE_FORMATSTRING_H
#define PORVANE_INCLUDE_FORMATSTRING_H

#include <cstddef>
#include <locale>
#include <sstream>
#include <string>
#include <type_traits>

#include "Assert.h"

namespace qvd {
namespace format_detail {

inline bool AppendText(std::string& ioOut, const std::string& inValue) {
  ioOut += inValue;
  return true;
}

inline bool AppendText(std::string& ioOut, const char* inValue) {
  if (inValue != nullptr) ioOut += inValue;
  return true;
}

inline bool AppendText(std::string& ioOut, char inValue) {
  ioOut += inValue;
  return true;
}

// Everything else goes through a stream; a stream that fails means the value
// has no text form, which the caller reports as a failed format.
template <typename T>
bool AppendText(std::string& ioOut, const T& inValue) {
  std::ostringstream stream;
  stream.imbue(std::locale::classic());
  stream << inValue;
  if (stream.fail()) return false;
  ioOut += stream.str();
  return true;
}

// Appends argument number inIndex; true when there was nothing to convert.
// The recursion walks the pack once per placeholder, which for at most ten
// arguments costs less than storing converted copies of all of them.
inline bool AppendArgument(std::string&, std::size_t) { return true; }

template <typename First, typename... Rest>
bool AppendArgument(std::string& ioOut, std::size_t inIndex, const First& inFirst, const Rest&... inRest) {
  if (inIndex == 0) return AppendText(ioOut, inFirst);
  return AppendArgument(ioOut, inIndex - 1, inRest...);
}

}  // namespace format_detail
}  // namespace qvd

template <typename... Args>
bool FormatString(std::string& outResult, const std::string& inFormat, const Args&... inArgs) {
  outResult.clear();
  const std::size_t length = inFormat.size();
  std::size_t i = 0;
  while (i < length) {
    const char c = inFormat[i];
    if (c != '%' || i + 1 == length) {
      outResult += c;
      ++i;
      continue;
    }
    const char next = inFormat[i + 1];
    if (next < '0' || next > '9') {
      // "%%" collapses to one "%"; any other pair is kept whole.
      if (next != '%') outResult += '%';
      outResult += next;
      i += 2;
      continue;
    }
    std::size_t end = i + 1;
    std::size_t number = 0;
    while (end < length && inFormat[end] >= '0' && inFormat[end] <= '9') {
      // Saturate: every value above 9 fails the same way, however long.
      if (number <= 9) number = number * 10 + static_cast<std::size_t>(inFormat[end] - '0');
      ++end;
    }
    if (number > 9) {
      QVD_ASSERT(NULL == "Format values above %9 are not supported");
    }
    if (number < sizeof...(Args)) {
      if (!qvd::format_detail::AppendArgument(outResult, number, inArgs...)) return false;
    } else {
      outResult.append(inFormat, i, end - i);
    }
    i = end;
  }
  return true;
}

#endif  // PORVANE_INCLUDE_FORMATSTRING_H
