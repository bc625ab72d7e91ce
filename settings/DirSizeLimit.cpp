#include "DirSizeLimit.h"

#include <cctype>
#include <cstdlib>

#include "SettingsFile.h"

namespace {

// Moves ioPos past the digits at it; true when there was at least one.
bool SkipDigits(const std::string& inText, size_t& ioPos) {
  const size_t start = ioPos;
  while (ioPos < inText.size() && std::isdigit(static_cast<unsigned char>(inText[ioPos]))) ++ioPos;
  return ioPos > start;
}

// Whether inText is digits, then optionally "." and digits, then optionally
// an exponent, and nothing else.
bool IsPlainDecimal(const std::string& inText) {
  size_t pos = 0;
  if (!SkipDigits(inText, pos)) return false;
  if (pos < inText.size() && inText[pos] == '.') SkipDigits(inText, ++pos);
  if (pos < inText.size() && (inText[pos] == 'e' || inText[pos] == 'E')) {
    ++pos;
    if (pos < inText.size() && (inText[pos] == '+' || inText[pos] == '-')) ++pos;
    if (!SkipDigits(inText, pos)) return false;
  }
  return pos == inText.size();
}

}  // namespace

bool ParseMaxTotalDirSize(const std::string& inText, double& outLimit) {
  const std::string sValue = TrimString(inText);
  if (sValue.empty()) {
    outLimit = kDefaultMaxTotalDirSize;
    return true;
  }
  if (!IsPlainDecimal(sValue)) return false;
  // The agent never changes its locale, so the decimal point is ".".
  outLimit = std::atof(sValue.c_str());
  return true;
}
