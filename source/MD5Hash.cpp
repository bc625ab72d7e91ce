#include "MD5Hash.h"

#include <cstring>
#include <iterator>
#include <vector>

#include "Assert.h"

namespace {

// Per-step left rotations, four per round.
constexpr int kShift[4][4] = {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};

// floor(abs(sin(i + 1)) * 2^32) for i = 0..63.
constexpr uint32_t kSine[64] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391};

inline uint32_t RotateLeft(uint32_t inValue, int inBits) {
  return (inValue << inBits) | (inValue >> (32 - inBits));
}

inline uint32_t LoadLittleEndian(const uint8_t* inBytes) {
  return static_cast<uint32_t>(inBytes[0]) | (static_cast<uint32_t>(inBytes[1]) << 8) |
         (static_cast<uint32_t>(inBytes[2]) << 16) | (static_cast<uint32_t>(inBytes[3]) << 24);
}

inline void StoreLittleEndian(uint32_t inValue, uint8_t* outBytes) {
  for (int i = 0; i < 4; ++i) outBytes[i] = static_cast<uint8_t>(inValue >> (8 * i));
}

// The four rounds of RFC 1321 over one 64-byte block. Step i of round r uses
// the auxiliary function of r, message word g(i) and constant kSine[i].
void Transform(uint32_t ioState[4], const uint8_t inBlock[64]) {
  uint32_t x[16];
  for (int i = 0; i < 16; ++i) x[i] = LoadLittleEndian(inBlock + 4 * i);

  uint32_t a = ioState[0], b = ioState[1], c = ioState[2], d = ioState[3];
  for (int i = 0; i < 64; ++i) {
    const int round = i / 16;
    uint32_t f;
    int g;
    switch (round) {
      case 0: f = (b & c) | (~b & d); g = i; break;
      case 1: f = (b & d) | (c & ~d); g = (5 * i + 1) % 16; break;
      case 2: f = b ^ c ^ d; g = (3 * i + 5) % 16; break;
      default: f = c ^ (b | ~d); g = (7 * i) % 16; break;
    }
    const uint32_t rotated = RotateLeft(a + f + x[g] + kSine[i], kShift[round][i % 4]);
    a = d;
    d = c;
    c = b;
    b = b + rotated;
  }
  ioState[0] += a;
  ioState[1] += b;
  ioState[2] += c;
  ioState[3] += d;
}

}  // namespace

MD5Digest::MD5Digest() {
  std::memset(count, 0, sizeof(count));
  std::memset(state, 0, sizeof(state));
  std::memset(buffer, 0, sizeof(buffer));
  std::memset(digest, 0, sizeof(digest));
  init();
}

void MD5Digest::init() {
  count[0] = count[1] = 0;
  state[0] = 0x67452301;
  state[1] = 0xefcdab89;
  state[2] = 0x98badcfe;
  state[3] = 0x10325476;
}

void MD5Digest::update(const uint8_t* inData, uint16_t inLength) {
  unsigned index = (count[0] >> 3) & 0x3f;
  // The length is at most 65,535 bytes, so the carry into the high word is at
  // most one per call; nothing else ever reaches it.
  const uint32_t bits = static_cast<uint32_t>(inLength) << 3;
  count[0] += bits;
  if (count[0] < bits) ++count[1];

  for (uint16_t i = 0; i < inLength; ++i) {
    buffer[index++] = inData[i];
    if (index == 64) {
      Transform(state, buffer);
      index = 0;
    }
  }
}

void MD5Digest::final() {
  uint8_t lengthBytes[8];
  StoreLittleEndian(count[0], lengthBytes);
  StoreLittleEndian(count[1], lengthBytes + 4);

  // Pad to 56 bytes mod 64: one 0x80 byte, then zeros; a block already past
  // 56 bytes is filled and a second one padded.
  static const uint8_t kPadding[64] = {0x80};
  const unsigned index = (count[0] >> 3) & 0x3f;
  const unsigned padLength = (index < 56) ? (56 - index) : (120 - index);
  update(kPadding, static_cast<uint16_t>(padLength));
  // The kept length completes the block and triggers its transform.
  update(lengthBytes, 8);

  for (int i = 0; i < 4; ++i) StoreLittleEndian(state[i], digest + 4 * i);
}

namespace {

// The digest of inString's bytes, raw and as hexadecimal text.
void DigestOf(const std::string& inString, std::vector<uint8_t>& outBytes, std::string& outHex) {
  MD5Digest context;
  context.update(inString.begin(), inString.end());
  context.finish(std::back_inserter(outBytes), outHex);
}

}  // namespace

std::string MD5Hash(const std::string& inString) {
  QVD_ASSERT(!inString.empty());
  std::vector<uint8_t> bytes;
  std::string hexText;  // made along the way, not needed here
  DigestOf(inString, bytes, hexText);
  std::string result;
  return base64Encode(bytes.begin(), bytes.end(), result);
}

std::string MD5HexDigest(const std::string& inString) {
  QVD_ASSERT(!inString.empty());
  std::vector<uint8_t> bytes;
  std::string hexText;
  DigestOf(inString, bytes, hexText);
  return hexText;
}
