#include "Uploader_Curl.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>

#include "TempDir.h"

namespace {

bool AllDigits(const std::string& inText) { return inText.find_first_not_of("0123456789") == std::string::npos; }

TEST(MultipartBody, ExampleIsExactAndTheFileNameIsTheTextAfterTheLastSlash) {
  const std::string head = "--120751630488417592\r\nContent-Disposition: form-data; name=\"logfile\"; filename=\"";
  const std::string tail = "\"\r\nContent-Type: application/octet-stream\r\n\r\nhello world\r\n\r\n--120751630488417592--";
  std::string body = Uploader_Curl::ComposeMultipartBody("/tmp/x/usage1.log", "hello world", "120751630488417592");
  EXPECT_EQ(body.size(), 172u);
  EXPECT_EQ(body, head + "usage1.log" + tail);
  // No slash: the whole path; a trailing slash: empty; quotes go in unguarded.
  for (const auto& [path, name] : {std::pair<std::string, std::string>{"usage1.log", "usage1.log"},
                                   {"/var/log/", ""},
                                   {"/a/b\"c d\xC3\xA9.log", "b\"c d\xC3\xA9.log"}}) {
    EXPECT_EQ(Uploader_Curl::ComposeMultipartBody(path, "hello world", "120751630488417592"), head + name + tail);
  }
}

TEST(MultipartBody, BuiltFromARealFileKeepsEveryByteUnderAPerSecondBoundary) {
  TempDir dir("upload-body");
  const std::string content = std::string("a\0b\r\n--\r\n\r\n", 11) + std::string(3, '\0') + "\xff\xfe tail\r\n";
  WriteFile(dir / "u1_20080115.log", content);
  uint32_t length = 0;
  std::string boundary;
  Uploader_Curl::Body body = Uploader_Curl::BuildMultipartBody(dir / "u1_20080115.log", length, boundary);
  ASSERT_NE(body, nullptr);
  EXPECT_GE(boundary.size(), 16u);
  EXPECT_LE(boundary.size(), 25u);
  EXPECT_TRUE(AllDigits(boundary) && boundary[0] != '0') << boundary;
  EXPECT_EQ(*body, Uploader_Curl::ComposeMultipartBody(dir / "u1_20080115.log", content, boundary));
  EXPECT_EQ(length, body->size());

  WriteFile(dir / "empty.log", "");
  body = Uploader_Curl::BuildMultipartBody(dir / "empty.log", length, boundary);
  ASSERT_NE(body, nullptr);
  EXPECT_EQ(body->size(), 115u + 2 * boundary.size() + std::string("empty.log").size());

  // The boundary is seeded from the time in seconds: two bodies built within
  // one second share it.
  for (int attempt = 0;; ++attempt) {
    std::string first, second;
    std::time_t before = std::time(nullptr);
    ASSERT_NE(Uploader_Curl::BuildMultipartBody(dir / "empty.log", length, first), nullptr);
    ASSERT_NE(Uploader_Curl::BuildMultipartBody(dir / "empty.log", length, second), nullptr);
    if (std::time(nullptr) == before) {
      EXPECT_EQ(first, second);
      break;
    }
    ASSERT_LT(attempt, 4) << "could not build two bodies within one second";
  }

  // No file, no body: the outputs and the random generator stay untouched.
  length = 77;
  boundary = "kept";
  std::srand(4242);
  const int expectedDraw = std::rand();
  std::srand(4242);
  EXPECT_EQ(Uploader_Curl::BuildMultipartBody(dir / "missing.log", length, boundary), nullptr);
  EXPECT_EQ(Uploader_Curl::BuildMultipartBody(dir.Path(), length, boundary), nullptr) << "a folder is no file";
  EXPECT_EQ(std::rand(), expectedDraw);
  EXPECT_EQ(length, 77u);
  EXPECT_EQ(boundary, "kept");
}

TEST(CreateURL, DecodesThenEscapesOnlyWhatMayNotStandInAUrl) {
  const std::pair<std::string, std::string> kCases[] = {
      {"http://127.0.0.1:8080/upload", "http://127.0.0.1:8080/upload"},
      {"http://host/a%2Fb/%41%62 c/%20?x=1&y=a:b@c;d,e#f", "http://host/a/b/Ab%20c/%20?x=1&y=a:b@c;d,e#f"},
      {"http://host/\"<>\\^`{|}\t%00%7f", "http://host/%22%3C%3E%5C%5E%60%7B%7C%7D%09%00%7F"},
      {"http://host/%25/%zz/50%", "http://host/%25/%25zz/50%25"},
      {"http://host/caf\xC3\xA9/%c3%a9", "http://host/caf%C3%A9/%C3%A9"},
      {"", "<none>"},
      {"not a url", "<none>"},
      {"nosuchscheme://host/x", "<none>"}};
  for (const auto& [text, url] : kCases) EXPECT_EQ(Uploader_Curl::CreateURL(text).value_or("<none>"), url) << text;
}

}  // namespace
