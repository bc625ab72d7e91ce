// UTF-8 validation for texts handed to interfaces that take Unicode strings.
#ifndef PORVANE_SOURCE_UTF8TEXT_H
#define PORVANE_SOURCE_UTF8TEXT_H

#include <string>

// True when inText is well-formed UTF-8 (RFC 3629): no stray continuation
// bytes, no truncated sequences, no overlong forms, no surrogates
// (U+D800..U+DFFF) and nothing above U+10FFFF. A NUL byte is a valid
// character here; callers that pass C strings on must reject it themselves.
bool IsValidUtf8(const std::string& inText);

#endif  // PORVANE_SOURCE_UTF8TEXT_H
