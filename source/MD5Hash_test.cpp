#include "source/MD5Hash.h"

#include <gtest/gtest.h>

#include <iterator>
#include <string>
#include <vector>

namespace {

// The hexadecimal digest of inText hashed through one 16-bit update call.
std::string HexOfSingleUpdate(const std::string& inText) {
  MD5Digest context;
  context.update(reinterpret_cast<const uint8_t*>(inText.data()), static_cast<uint16_t>(inText.size()));
  std::vector<uint8_t> bytes;
  std::string hex;
  context.finish(std::back_inserter(bytes), hex);
  return hex;
}

// The hexadecimal digest of inBytes hashed through the range form.
template <typename Container>
std::string HexOfRange(const Container& inBytes) {
  MD5Digest context;
  context.update(inBytes.begin(), inBytes.end());
  std::vector<uint8_t> bytes;
  std::string hex;
  context.finish(std::back_inserter(bytes), hex);
  return hex;
}

// "abcd...zabc..." cut to inLength bytes.
std::string Alphabetic(size_t inLength) {
  std::string text;
  for (size_t i = 0; i < inLength; ++i) text += static_cast<char>('a' + i % 26);
  return text;
}

std::vector<uint8_t> PatternBytes(size_t inLength) {
  std::vector<uint8_t> bytes(inLength);
  for (size_t i = 0; i < inLength; ++i) bytes[i] = static_cast<uint8_t>(i * 7 + 3);
  return bytes;
}

TEST(MD5DigestTest, ReferenceSuiteOfRfc1321) {
  const std::pair<std::string, std::string> kSuite[] = {
      {"", "d41d8cd98f00b204e9800998ecf8427e"},
      {"a", "0cc175b9c0f1b6a831c399e269772661"},
      {"abc", "900150983cd24fb0d6963f7d28e17f72"},
      {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
      {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
      {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
       "d174ab98d277d9f5a5611c2c9f419d9f"},
      {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
       "57edf4a22be3c955ac49da2e2107b67a"},
  };
  for (const auto& [text, hex] : kSuite) {
    EXPECT_EQ(HexOfSingleUpdate(text), hex) << "pointer form, input \"" << text << "\"";
    EXPECT_EQ(HexOfRange(text), hex) << "range form, input \"" << text << "\"";
  }
}

TEST(MD5DigestTest, LengthsAroundThePaddingBoundary) {
  // 55 leaves room for the length in the same block, 56..63 need a second
  // padding block, 64 and 65 fill a whole block inside update.
  const std::pair<size_t, std::string> kCases[] = {
      {55, "0d7ae056b2f015cd7dc67494efd658f1"},
      {56, "31fcfb5165169eb55898e7e4cf34d19a"},
      {63, "1b30c0670c15e7da3c2ba7bce77ebe99"},
      {64, "a2eaf6295c32adc403865fd96a2f182b"},
      {65, "eba2cce0ca8df47e62414a736b3105a2"},
  };
  const std::pair<size_t, std::string> kBase64[] = {
      {55, "DXrgVrLwFc19xnSU79ZY8Q=="}, {56, "Mfz7UWUWnrVYmOfkzzTRmg=="}, {63, "GzDAZwwV59o8K6e8536+mQ=="},
      {64, "our2KVwyrcQDhl/Zai8YKw=="}, {65, "66LM4MqN9H5iQUpzazEFog=="},
  };
  for (const auto& [length, hex] : kCases) {
    EXPECT_EQ(HexOfSingleUpdate(Alphabetic(length)), hex) << length << " bytes";
  }
  for (const auto& [length, text] : kBase64) {
    EXPECT_EQ(MD5Hash(Alphabetic(length)), text) << length << " bytes";
  }
}

TEST(MD5DigestTest, InputsBeyondOneSixteenBitCall) {
  // The largest single call, and a four-block-plus input only the range form
  // can take.
  const std::vector<uint8_t> largest = PatternBytes(65535);
  EXPECT_EQ(HexOfSingleUpdate(std::string(largest.begin(), largest.end())), "70a2002bd59609d66effc9f59e27e0a7");
  EXPECT_EQ(HexOfRange(PatternBytes(65535)), "70a2002bd59609d66effc9f59e27e0a7");
  EXPECT_EQ(HexOfRange(PatternBytes(200000)), "d7f02347e9fd18d5b486e864a9d37c08");

  // Uneven pieces across block edges give the same digest as one pass.
  const std::vector<uint8_t> bytes = PatternBytes(200000);
  MD5Digest context;
  const size_t kPieces[] = {1, 63, 64, 65, 65535, 3, 127};
  size_t offset = 0;
  for (size_t i = 0; offset < bytes.size(); ++i) {
    const size_t piece = std::min(kPieces[i % std::size(kPieces)], bytes.size() - offset);
    context.update(bytes.data() + offset, static_cast<uint16_t>(piece));
    offset += piece;
  }
  std::vector<uint8_t> raw;
  std::string hex;
  context.finish(std::back_inserter(raw), hex);
  EXPECT_EQ(hex, "d7f02347e9fd18d5b486e864a9d37c08");
}

TEST(MD5DigestTest, FinishGivesBothHexTextAndRawBytes) {
  MD5Digest context;
  const std::string text = "abc";
  context.update(text.begin(), text.end());
  std::vector<uint8_t> raw;
  std::string hex = "prefix:";
  context.finish(std::back_inserter(raw), hex);
  EXPECT_EQ(hex, "prefix:900150983cd24fb0d6963f7d28e17f72");
  const std::vector<uint8_t> expected = {0x90, 0x01, 0x50, 0x98, 0x3c, 0xd2, 0x4f, 0xb0,
                                         0xd6, 0x96, 0x3f, 0x7d, 0x28, 0xe1, 0x7f, 0x72};
  EXPECT_EQ(raw, expected);
  EXPECT_EQ(std::vector<uint8_t>(context.digest, context.digest + 16), expected);
}

TEST(MD5HashTest, Base64OfTheDigest) {
  EXPECT_EQ(MD5Hash("abc"), "kAFQmDzST7DWlj99KOF/cg==");
  EXPECT_EQ(MD5Hash("a"), "DMF1ucDxtqgxw5niaXcmYQ==");
  EXPECT_EQ(MD5Hash("TarvoUsageTrackerFileUploadLocker"), "rDYSDwOgFCbsPgPa4MYm3Q==");
  // Bytes are hashed as they are: high bits and an embedded NUL included.
  EXPECT_EQ(MD5Hash(std::string("\xff\x00\x80", 3)), "YM3M1AAFgKPDlLitbqm4mQ==");
}

TEST(Base64EncodeTest, EveryLeftoverLength) {
  auto encode = [](const std::string& inBytes) {
    std::string out;
    return base64Encode(inBytes.begin(), inBytes.end(), out);
  };
  EXPECT_EQ(encode(""), "");
  EXPECT_EQ(encode("f"), "Zg==");    // 1 byte: 2 bits left over
  EXPECT_EQ(encode("fo"), "Zm8=");   // 2 bytes: 4 bits left over
  EXPECT_EQ(encode("foo"), "Zm9v");  // 3 bytes: nothing left over
  EXPECT_EQ(encode("foob"), "Zm9vYg==");
  EXPECT_EQ(encode("fooba"), "Zm9vYmE=");
  EXPECT_EQ(encode("foobar"), "Zm9vYmFy");
  // The last two letters of the alphabet, from high-bit bytes.
  EXPECT_EQ(encode(std::string("\xfb\xff\xbf", 3)), "+/+/");

  // The text is appended and the same container is handed back.
  std::vector<char> out = {'>'};
  const std::string bytes = "fo";
  std::vector<char>& returned = base64Encode(bytes.begin(), bytes.end(), out);
  EXPECT_EQ(&returned, &out);
  EXPECT_EQ(std::string(out.begin(), out.end()), ">Zm8=");
}

TEST(MD5HashDeathTest, EmptyTextIsAProgrammingError) {
  EXPECT_DEATH(MD5Hash(""), "^source/MD5Hash\\.cpp:120: failed assertion `!inString\\.empty\\(\\)'\n$");
}

}  // namespace
