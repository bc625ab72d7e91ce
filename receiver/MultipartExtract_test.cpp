#include "MultipartExtract.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace std::string_literals;

const std::string kBoundary = "120751630488417592";
const std::string kContentType = "multipart/form-data; boundary=" + kBoundary;
const std::string kPartHead = "--" + kBoundary + "\r\nContent-Disposition: form-data; name=\"logfile\"; filename=\"";

// A body as the agent builds it: closed by "\r\n\r\n--" boundary "--" with
// nothing behind it.
std::string AgentBody(const std::string& inFileName, const std::string& inContent) {
  return kPartHead + inFileName + "\"\r\nContent-Type: application/octet-stream\r\n\r\n" + inContent + "\r\n\r\n--" +
         kBoundary + "--";
}

// A body closed the usual way, as curl -F sends it.
std::string CurlBody(const std::string& inContent) {
  return kPartHead + "c.log\"\r\n\r\n" + inContent + "\r\n--" + kBoundary + "--\r\n";
}

// The reason, or on success "" followed by the file name and content.
std::string Extract(const std::string& inBody, const std::string& inContentType = kContentType) {
  LogFileUpload upload;
  std::string reason = ExtractLogFile(inContentType, inBody, upload);
  return reason.empty() ? "|" + upload.fileName + "|" + std::string(upload.content) : reason;
}

TEST(MultipartExtract, BothClosingFormsGiveTheFileUnchanged) {
  ASSERT_EQ(172u, AgentBody("usage1.log", "hello world").size()) << "the agent's own example";
  // Line ends, dashes, zero bytes, every byte value, and near-misses of the
  // delimiter: the boundary followed by other bytes, or not at a line start.
  std::string binary = std::string("\0\1\r\n--\r\n--", 10) + kBoundary + "x\r\n--" + kBoundary + "-\r\n" + '\0' +
                       "\xff--" + kBoundary + "--\r\n";
  for (int i = 0; i < 512; ++i) binary += static_cast<char>(i);
  for (const std::string& content : {"hello world"s, "line\r\n"s, "\r\n\r\n"s, ""s, binary}) {
    EXPECT_EQ("|usage1.log|" + content, Extract(AgentBody("usage1.log", content)));
    EXPECT_EQ("|c.log|" + content, Extract(CurlBody(content)));
  }
  EXPECT_EQ("|c.log|line\r\n", Extract(CurlBody("line\r\n") + "epilogue bytes"));
  // The name as written: stripping a path is the store's job, and a quote in
  // the name does not end it.
  EXPECT_EQ("|/tmp/x/say \"hi\".log|x", Extract(AgentBody("/tmp/x/say \"hi\".log", "x")));
}

TEST(MultipartExtract, OtherPartsPreambleAndHeaderSpellingsAreAccepted) {
  std::string body = "preamble text\r\n--" + kBoundary +
                     "\r\ncontent-disposition: form-data; name=\"comment\"\r\n\r\nnot this\r\n--" + kBoundary +
                     "  \r\nCONTENT-DISPOSITION: Form-Data; filename=\"k_1.log\" ; name=logfile\r\n\r\nthis\r\n--" +
                     kBoundary + "\r\nContent-Disposition: form-data; name=\"logfile2\"; filename=\"z\"\r\n\r\nz\r\n--" +
                     kBoundary + "--\r\n";
  EXPECT_EQ("|k_1.log|this", Extract(body, "Multipart/Form-Data; charset=x; Boundary=\"" + kBoundary + "\""));
}

TEST(MultipartExtract, BadBodiesGiveTheirReasons) {
  using namespace multipart_error;
  const std::string good = AgentBody("usage1.log", "hello world");
  std::string otherName = good, noFileName = good;
  otherName.replace(otherName.find("\"logfile\""), 9, "\"logfiles\"");
  noFileName.replace(noFileName.find("; filename=\"usage1.log\""), 23, "");
  const std::string twice = good.substr(0, good.size() - kBoundary.size() - 4) + good;
  const struct {
    std::string contentType, body, reason;
  } kCases[] = {
      {"text/plain", good, kNotFormData},
      {"multipart/mixed; boundary=" + kBoundary, good, kNotFormData},
      {"multipart/form-data", good, kNoBoundary},
      {"multipart/form-data; boundary=\"\"", good, kNoBoundary},
      {"multipart/form-data; boundary=1207516304", good, kBoundaryNotFound},  // a prefix only
      {kContentType, "", kBoundaryNotFound},
      {kContentType, good.substr(0, good.find("octet")), kTruncatedBody},
      {kContentType, good.substr(0, good.find("world")), kTruncatedBody},
      {kContentType, good.substr(0, good.size() - 1), kTruncatedBody},
      {kContentType, good.substr(0, good.size() - 2), kNoClosingDelimiter},
      {kContentType, CurlBody("x").substr(0, CurlBody("x").size() - 4) + "\r\n", kNoClosingDelimiter},
      {kContentType, otherName, kNoLogFilePart},
      {kContentType, "--" + kBoundary + "--", kNoLogFilePart},
      {kContentType, noFileName, kNoFileName},
      {kContentType, twice, kTwoLogFileParts}};
  for (const auto& c : kCases) EXPECT_EQ(c.reason, Extract(c.body, c.contentType)) << c.contentType << "\n" << c.body;

  // No cut of a body short of its end is taken for a whole upload.
  for (size_t length = 0; length < good.size(); ++length)
    EXPECT_NE('|', Extract(good.substr(0, length)).front()) << "cut at " << length;
}

}  // namespace
