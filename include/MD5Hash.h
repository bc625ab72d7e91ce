// MD5 digest (RFC 1321) and its base64 form.
//
// MD5Hash turns a text into a short token of fixed length: the base64 text of
// the MD5 digest of its bytes. The lock uses it to name its semaphore, the
// restart marker to name its file.
#ifndef PORVANE_INCLUDE_MD5HASH_H
#define PORVANE_INCLUDE_MD5HASH_H

#include <cstdint>
#include <string>

#include "PorvaneExport.h"

// The digest context, following the RFC 1321 reference design.
struct PORVANE_API MD5Digest {
  uint32_t count[2];   // bits hashed so far, low word first
  uint32_t state[4];   // A, B, C, D
  uint8_t buffer[64];  // the input block being filled
  uint8_t digest[16];  // the result, valid after final()

  MD5Digest();  // clears everything, then init()

  void init();
  // Adds inLength bytes. The length is deliberately 16 bits: one call hashes
  // at most 65,535 bytes; use the range form for more.
  void update(const uint8_t* inData, uint16_t inLength);
  // Adds the bytes of [first, last), one at a time: no length limit.
  template <typename Iterator>
  void update(Iterator first, Iterator last) {
    for (; first != last; ++first) {
      const uint8_t byte = static_cast<uint8_t>(*first);
      update(&byte, 1);
    }
  }
  // Pads, appends the bit count and fills digest.
  void final();
  // final(), then for each digest byte in order appends its "%02x" text to
  // outHexText and writes the byte to outBytes.
  template <typename OutputIterator>
  void finish(OutputIterator outBytes, std::string& outHexText) {
    static const char kHex[] = "0123456789abcdef";
    final();
    for (uint8_t byte : digest) {
      outHexText += kHex[byte >> 4];
      outHexText += kHex[byte & 0x0f];
      *outBytes++ = byte;
    }
  }
};

// Appends the base64 text (RFC 4648 alphabet, "=" padding, no line breaks)
// of the bytes [first, last) to out and returns out.
template <typename Iterator, typename Container>
Container& base64Encode(Iterator first, Iterator last, Container& out) {
  static const char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  uint32_t bits = 0;
  int bitCount = 0;
  for (; first != last; ++first) {
    bits = (bits << 8) | static_cast<uint8_t>(*first);
    bitCount += 8;
    while (bitCount >= 6) {
      bitCount -= 6;
      out.push_back(kAlphabet[(bits >> bitCount) & 0x3f]);
    }
  }
  if (bitCount == 2) {
    out.push_back(kAlphabet[(bits << 4) & 0x3f]);
    out.push_back('=');
    out.push_back('=');
  } else if (bitCount == 4) {
    out.push_back(kAlphabet[(bits << 2) & 0x3f]);
    out.push_back('=');
  }
  return out;
}

// The 24-character base64 text of the MD5 digest of inString's bytes, always
// ending in "==" and possibly holding "+" and "/".
// REQUIRES: !inString.empty() (asserted).
PORVANE_API std::string MD5Hash(const std::string& inString);

// The 32-character lower-case hexadecimal text of the same digest, for names
// that must be plain (file names).
// REQUIRES: !inString.empty() (asserted).
PORVANE_API std::string MD5HexDigest(const std::string& inString);

#endif  // PORVANE_INCLUDE_MD5HASH_H
