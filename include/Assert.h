// Assertions that stay on in every build.
//
// A failed assertion is a programming error, never a run-time condition: it
// prints "<file>:<line>: failed assertion `<expression>'\n" to standard error,
// flushes it and aborts. <file> is the source path relative to the project
// root (the build maps __FILE__ so), which keeps reports stable between
// machines and build folders.
#ifndef PORVANE_INCLUDE_ASSERT_H
#define PORVANE_INCLUDE_ASSERT_H

#include "PorvaneExport.h"

namespace qvd {

// Prints the report for a failed assertion and aborts the process.
[[noreturn]] PORVANE_API void AssertionFailed(const char* inExpression, const char* inFile, unsigned inLine);

}  // namespace qvd

#define QVD_ASSERT(expression) \
  ((expression) ? static_cast<void>(0) : ::qvd::AssertionFailed(#expression, __FILE__, __LINE__))

#endif  // PORVANE_INCLUDE_ASSERT_H
