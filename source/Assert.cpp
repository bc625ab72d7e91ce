#include "Assert.h"

#include <cstdio>
#include <cstdlib>

namespace qvd {

void AssertionFailed(const char* inExpression, const char* inFile, unsigned inLine) {
  std::fprintf(stderr, "%s:%u: failed assertion `%s'\n", inFile, inLine, inExpression);
  std::fflush(stderr);
  std::abort();
}

}  // namespace qvd
