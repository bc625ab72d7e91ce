#include "Utf8Text.h"

#include <cstddef>

namespace {

// The number of continuation bytes a lead byte announces and the smallest
// second byte it allows, or -1 for a byte that cannot start a sequence. The
// tighter bounds on the second byte are what rule out overlong forms,
// surrogates and code points above U+10FFFF (RFC 3629, section 4).
struct LeadByte {
  int continuations;
  unsigned char secondMin;
  unsigned char secondMax;
};

LeadByte ClassifyLead(unsigned char inByte) {
  if (inByte < 0x80) return {0, 0x80, 0xBF};
  if (inByte >= 0xC2 && inByte <= 0xDF) return {1, 0x80, 0xBF};
  if (inByte == 0xE0) return {2, 0xA0, 0xBF};
  if (inByte == 0xED) return {2, 0x80, 0x9F};
  if (inByte >= 0xE1 && inByte <= 0xEF) return {2, 0x80, 0xBF};
  if (inByte == 0xF0) return {3, 0x90, 0xBF};
  if (inByte >= 0xF1 && inByte <= 0xF3) return {3, 0x80, 0xBF};
  if (inByte == 0xF4) return {3, 0x80, 0x8F};
  return {-1, 0, 0};
}

}  // namespace

bool IsValidUtf8(const std::string& inText) {
  const std::size_t length = inText.size();
  std::size_t i = 0;
  while (i < length) {
    const LeadByte lead = ClassifyLead(static_cast<unsigned char>(inText[i]));
    if (lead.continuations < 0) return false;
    if (length - i - 1 < static_cast<std::size_t>(lead.continuations)) return false;
    for (int k = 1; k <= lead.continuations; ++k) {
      const unsigned char byte = static_cast<unsigned char>(inText[i + static_cast<std::size_t>(k)]);
      const unsigned char low = (k == 1) ? lead.secondMin : 0x80;
      const unsigned char high = (k == 1) ? lead.secondMax : 0xBF;
      if (byte < low || byte > high) return false;
    }
    i += 1 + static_cast<std::size_t>(lead.continuations);
  }
  return true;
}
