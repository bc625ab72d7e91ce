#include "upload/Uploader_Curl.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <ctime>
#include <locale>
#include <string>

#include "tests/support/TempDir.h"

namespace {

bool AllDigits(const std::string& inText) { return inText.find_first_not_of("0123456789") == std::string::npos; }

TEST(MultipartBody, ExampleIsExactByteForByte) {
  const std::string expected =
      "--120751630488417592\r\n"
      "Content-Disposition: form-data; name=\"logfile\"; filename=\"usage1.log\"\r\n"
      "Content-Type: application/octet-stream\r\n"
      "\r\n"
      "hello world\r\n"
      "\r\n"
      "--120751630488417592--";
  std::string body = Uploader_Curl::ComposeMultipartBody("/tmp/x/usage1.log", "hello world", "120751630488417592");
  EXPECT_EQ(body.size(), 172u);
  EXPECT_EQ(body, expected);
}

TEST(MultipartBody, FileNameIsTheTextAfterTheLastSlashUnquoted) {
  auto disposition = [](const std::string& inPath) {
    std::string body = Uploader_Curl::ComposeMultipartBody(inPath, "", "1234567890123456");
    size_t start = body.find("Content-Disposition");
    return body.substr(start, body.find("\r\n", start) - start);
  };
  EXPECT_EQ(disposition("usage.log"), "Content-Disposition: form-data; name=\"logfile\"; filename=\"usage.log\"");
  EXPECT_EQ(disposition("/var/log/"), "Content-Disposition: form-data; name=\"logfile\"; filename=\"\"");
  EXPECT_EQ(disposition("/a/b\"c d\xC3\xA9.log"),
            "Content-Disposition: form-data; name=\"logfile\"; filename=\"b\"c d\xC3\xA9.log\"");
}

TEST(MultipartBody, BuiltFromARealFileKeepsEveryByte) {
  TempDir dir("upload-body");
  const std::string content = std::string("a\0b\r\n--\r\n\r\n", 11) + std::string(3, '\0') + "\xff\xfe tail\r\n";
  const std::string path = dir / "u1_20080115.log";
  WriteFile(path, content);

  uint32_t length = 0;
  std::string boundary;
  Uploader_Curl::Body body = Uploader_Curl::BuildMultipartBody(path, length, boundary);
  ASSERT_NE(body, nullptr);
  EXPECT_GE(boundary.size(), 16u);
  EXPECT_LE(boundary.size(), 25u);
  EXPECT_TRUE(AllDigits(boundary)) << boundary;
  EXPECT_NE(boundary[0], '0') << "decimal pieces have no leading zeros (a lone 0 aside)";
  EXPECT_EQ(*body, Uploader_Curl::ComposeMultipartBody(path, content, boundary));
  EXPECT_EQ(length, body->size());

  // An empty file still gives a whole body: 115 + 2B + N bytes.
  const std::string emptyPath = dir / "empty.log";
  WriteFile(emptyPath, "");
  body = Uploader_Curl::BuildMultipartBody(emptyPath, length, boundary);
  ASSERT_NE(body, nullptr);
  EXPECT_EQ(body->size(), 115u + 2 * boundary.size() + std::string("empty.log").size());
  EXPECT_EQ(length, body->size());
}

TEST(MultipartBody, BodiesBuiltInTheSameSecondShareTheBoundary) {
  TempDir dir("upload-body");
  const std::string path = dir / "a.log";
  WriteFile(path, "x");
  for (int attempt = 0; attempt < 5; ++attempt) {
    uint32_t length = 0;
    std::string first, second;
    std::time_t before = std::time(nullptr);
    ASSERT_NE(Uploader_Curl::BuildMultipartBody(path, length, first), nullptr);
    ASSERT_NE(Uploader_Curl::BuildMultipartBody(path, length, second), nullptr);
    if (std::time(nullptr) != before) continue;  // crossed a second: try again
    EXPECT_EQ(first, second);
    return;
  }
  FAIL() << "could not build two bodies within one second";
}

TEST(MultipartBody, UnreadablePathGivesNullAndTouchesNothing) {
  TempDir dir("upload-body");
  uint32_t length = 77;
  std::string boundary = "kept";

  // The generator is not reseeded when no body is made.
  std::srand(4242);
  const int expectedDraw = std::rand();
  std::srand(4242);
  EXPECT_EQ(Uploader_Curl::BuildMultipartBody(dir / "missing.log", length, boundary), nullptr);
  EXPECT_EQ(Uploader_Curl::BuildMultipartBody(dir.Path(), length, boundary), nullptr) << "a folder is no file";
  EXPECT_EQ(std::rand(), expectedDraw);
  EXPECT_EQ(length, 77u);
  EXPECT_EQ(boundary, "kept");
}

TEST(MultipartBody, FormatLengthIsPlainDecimal) {
  EXPECT_EQ(Uploader_Curl::FormatLength(0), "0");
  EXPECT_EQ(Uploader_Curl::FormatLength(172), "172");
  EXPECT_EQ(Uploader_Curl::FormatLength(4294967295u), "4294967295");

  // Even under a global locale that groups digits.
  struct Grouping : std::numpunct<char> {
    char do_thousands_sep() const override { return ','; }
    std::string do_grouping() const override { return "\3"; }
  };
  std::locale previous = std::locale::global(std::locale(std::locale::classic(), new Grouping));
  std::string formatted = Uploader_Curl::FormatLength(1000000);
  std::string boundary = Uploader_Curl::MakeBoundary();
  std::locale::global(previous);
  EXPECT_EQ(formatted, "1000000");
  EXPECT_TRUE(AllDigits(boundary)) << boundary;
}

TEST(CreateURL, DecodesThenEscapesOnlyWhatMayNotStandInAUrl) {
  auto url = [](const std::string& inText) { return Uploader_Curl::CreateURL(inText).value_or("<none>"); };
  EXPECT_EQ(url("http://127.0.0.1:8080/upload"), "http://127.0.0.1:8080/upload");
  EXPECT_EQ(url("http://host/a%2Fb/%41%62"), "http://host/a/b/Ab");
  EXPECT_EQ(url("http://host/a b/%20c"), "http://host/a%20b/%20c");
  EXPECT_EQ(url("http://host/p?x=1&y=a:b@c;d,e#frag"), "http://host/p?x=1&y=a:b@c;d,e#frag");
  EXPECT_EQ(url("http://host/-._~!$&'()*+,;=[]"), "http://host/-._~!$&'()*+,;=[]");
  EXPECT_EQ(url("http://host/\"<>\\^`{|}"), "http://host/%22%3C%3E%5C%5E%60%7B%7C%7D");
  EXPECT_EQ(url("http://host/%25/%zz/50%"), "http://host/%25/%25zz/50%25");
  EXPECT_EQ(url("http://host/caf\xC3\xA9/%c3%a9"), "http://host/caf%C3%A9/%C3%A9");
  EXPECT_EQ(url("http://host/\t%00%7f"), "http://host/%09%00%7F");
}

TEST(CreateURL, EmptyOrUnparsableTextGivesNoUrl) {
  EXPECT_FALSE(Uploader_Curl::CreateURL("").has_value());
  EXPECT_FALSE(Uploader_Curl::CreateURL("not a url").has_value());
  EXPECT_FALSE(Uploader_Curl::CreateURL("http://").has_value());
  EXPECT_FALSE(Uploader_Curl::CreateURL("nosuchscheme://host/x").has_value());
}

}  // namespace
