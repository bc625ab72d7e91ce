#include "MD5Hash.h"

#include <gtest/gtest.h>

#include <iterator>
#include <string>
#include <vector>

namespace {

// The hexadecimal digest of inBytes, hashed through the range form or, with
// inOneCall, through a single 16-bit update call.
template <typename Bytes>
std::string Hex(const Bytes& inBytes, bool inOneCall = false) {
  MD5Digest context;
  if (inOneCall) {
    context.update(reinterpret_cast<const uint8_t*>(inBytes.data()), static_cast<uint16_t>(inBytes.size()));
  } else {
    context.update(inBytes.begin(), inBytes.end());
  }
  std::vector<uint8_t> raw;
  std::string hex;
  context.finish(std::back_inserter(raw), hex);
  return hex;
}

TEST(MD5DigestTest, ReferenceSuiteOfRfc1321InBothForms) {
  const std::pair<std::string, std::string> kSuite[] = {
      {"", "d41d8cd98f00b204e9800998ecf8427e"},
      {"a", "0cc175b9c0f1b6a831c399e269772661"},
      {"abc", "900150983cd24fb0d6963f7d28e17f72"},
      {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
      {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
      {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789", "d174ab98d277d9f5a5611c2c9f419d9f"},
      {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
       "57edf4a22be3c955ac49da2e2107b67a"},
  };
  for (const auto& [text, hex] : kSuite) {
    EXPECT_EQ(Hex(text, true), hex) << "one call, input \"" << text << "\"";
    EXPECT_EQ(Hex(text), hex) << "range form, input \"" << text << "\"";
  }
}

TEST(MD5DigestTest, LengthsAroundThePaddingBoundary) {
  // 55 leaves room for the length in the same block, 56..63 need a second
  // padding block, 64 and 65 fill a whole block inside update.
  const std::pair<size_t, std::string> kCases[] = {
      {55, "0d7ae056b2f015cd7dc67494efd658f1"}, {56, "31fcfb5165169eb55898e7e4cf34d19a"},
      {63, "1b30c0670c15e7da3c2ba7bce77ebe99"}, {64, "a2eaf6295c32adc403865fd96a2f182b"},
      {65, "eba2cce0ca8df47e62414a736b3105a2"},
  };
  const std::string kAlphabet = "abcdefghijklmnopqrstuvwxyz";
  for (const auto& [length, hex] : kCases) {
    EXPECT_EQ(Hex((kAlphabet + kAlphabet + kAlphabet).substr(0, length), true), hex) << length << " bytes";
  }
}

TEST(MD5DigestTest, LargeInputs) {
  std::vector<uint8_t> bytes(200000);
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(i * 7 + 3);
  EXPECT_EQ(Hex(bytes), "d7f02347e9fd18d5b486e864a9d37c08");
  bytes.resize(65535);  // the largest single call
  EXPECT_EQ(Hex(bytes, true), "70a2002bd59609d66effc9f59e27e0a7");
}

TEST(MD5HashTest, Base64OfTheDigest) {
  EXPECT_EQ(MD5Hash("abc"), "kAFQmDzST7DWlj99KOF/cg==");
  EXPECT_EQ(MD5Hash("a"), "DMF1ucDxtqgxw5niaXcmYQ==");
  // Bytes are hashed as they are: high bits and an embedded NUL included.
  EXPECT_EQ(MD5Hash(std::string("\xff\x00\x80", 3)), "YM3M1AAFgKPDlLitbqm4mQ==");
}

TEST(Base64EncodeTest, EveryLeftoverLength) {
  const std::pair<std::string, std::string> kCases[] = {
      {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"foob", "Zm9vYg=="},
      {std::string("\xfb\xff\xbf", 3), "+/+/"},  // the alphabet's last two letters
  };
  for (const auto& [bytes, text] : kCases) {
    std::string out = ">";
    EXPECT_EQ(&base64Encode(bytes.begin(), bytes.end(), out), &out);
    EXPECT_EQ(out, ">" + text) << "appended to what was there";
  }
}

TEST(MD5HashDeathTest, EmptyTextIsAProgrammingError) {
  EXPECT_DEATH(MD5Hash(""), "^source/MD5Hash\\.cpp:120: failed assertion `!inString\\.empty\\(\\)'\n$");
}

}  // namespace
