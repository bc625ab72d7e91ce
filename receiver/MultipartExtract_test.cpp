#include "receiver/MultipartExtract.h"

#include <gtest/gtest.h>

#include <string>

namespace {

const std::string kBoundary = "120751630488417592";
const std::string kContentType = "multipart/form-data; boundary=" + kBoundary;

// A body as the agent builds it: one "logfile" part and the closing form
// "\r\n\r\n--" boundary "--" with nothing behind it.
std::string AgentBody(const std::string& inFileName, const std::string& inContent,
                      const std::string& inBoundary = kBoundary) {
  return "--" + inBoundary + "\r\nContent-Disposition: form-data; name=\"logfile\"; filename=\"" + inFileName +
         "\"\r\nContent-Type: application/octet-stream\r\n\r\n" + inContent + "\r\n\r\n--" + inBoundary + "--";
}

// A body closed the usual way, as curl -F sends it.
std::string CurlBody(const std::string& inContent) {
  return "--" + kBoundary + "\r\nContent-Disposition: form-data; name=\"logfile\"; filename=\"c.log\"\r\n" +
         "Content-Type: application/octet-stream\r\n\r\n" + inContent + "\r\n--" + kBoundary + "--\r\n";
}

// Runs the extraction; "" and the upload on success, else the reason.
struct Outcome {
  std::string reason;
  std::string fileName;
  std::string content;
};
Outcome Extract(const std::string& inBody, const std::string& inContentType = kContentType) {
  LogFileUpload upload;
  Outcome outcome;
  outcome.reason = ExtractLogFile(inContentType, inBody, upload);
  if (outcome.reason.empty()) {
    outcome.fileName = upload.fileName;
    outcome.content = std::string(upload.content);
  }
  return outcome;
}

TEST(MultipartExtract, TheAgentsExampleBodyGivesTheFileUnchanged) {
  const std::string body =
      "--120751630488417592\r\n"
      "Content-Disposition: form-data; name=\"logfile\"; filename=\"usage1.log\"\r\n"
      "Content-Type: application/octet-stream\r\n"
      "\r\n"
      "hello world\r\n"
      "\r\n"
      "--120751630488417592--";
  ASSERT_EQ(172u, body.size());
  ASSERT_EQ(body, AgentBody("usage1.log", "hello world"));
  Outcome outcome = Extract(body);
  EXPECT_EQ("", outcome.reason);
  EXPECT_EQ("usage1.log", outcome.fileName);
  EXPECT_EQ("hello world", outcome.content);

  // Only the one extra CR LF of the closing form is dropped: content that
  // itself ends in line ends keeps them, and an empty file stays empty.
  EXPECT_EQ("line\r\n", Extract(AgentBody("a.log", "line\r\n")).content);
  EXPECT_EQ("\r\n\r\n", Extract(AgentBody("a.log", "\r\n\r\n")).content);
  Outcome empty = Extract(AgentBody("a.log", ""));
  EXPECT_EQ("", empty.reason);
  EXPECT_EQ("", empty.content);

  // The name is handed on as written; stripping a path is the store's job,
  // and a quote in the name does not end it.
  EXPECT_EQ("/tmp/x/usage1.log", Extract(AgentBody("/tmp/x/usage1.log", "x")).fileName);
  EXPECT_EQ("say \"hi\".log", Extract(AgentBody("say \"hi\".log", "x")).fileName);
}

TEST(MultipartExtract, TheUsualClosingFormKeepsEveryContentByte) {
  EXPECT_EQ("hello world", Extract(CurlBody("hello world")).content);
  EXPECT_EQ("line\r\n", Extract(CurlBody("line\r\n")).content);
  EXPECT_EQ("", Extract(CurlBody("")).content);
  // The closing delimiter followed by blanks or an epilogue is still the
  // usual form: nothing is dropped.
  std::string withEpilogue = CurlBody("line\r\n") + "epilogue bytes";
  EXPECT_EQ("line\r\n", Extract(withEpilogue).content);
}

TEST(MultipartExtract, BinaryContentIsKeptByteForByte) {
  // Line ends, dashes, zero bytes and near-misses of the delimiter: the
  // boundary followed by other bytes, or not at the start of a line.
  const std::string content = std::string("\x00\x01\r\n--", 6) + "\r\n--" + kBoundary + "x" + "\r\n--" +
                              kBoundary + "-" + std::string("\r\n\x00\xff--", 6) + kBoundary + "--\r\n";
  ASSERT_NE(std::string::npos, content.find('\0'));
  EXPECT_EQ(content, Extract(AgentBody("bin_1.dat", content)).content);
  EXPECT_EQ(content, Extract(CurlBody(content)).content);
  std::string allBytes;
  for (int i = 0; i < 256; ++i) allBytes += static_cast<char>(i);
  allBytes += allBytes;
  EXPECT_EQ(allBytes, Extract(AgentBody("bin_2.dat", allBytes)).content);
}

TEST(MultipartExtract, OtherPartsPreambleAndHeaderSpellingsAreAccepted) {
  std::string body = "preamble text\r\n--" + kBoundary +
                     "\r\ncontent-disposition: form-data; name=\"comment\"\r\n\r\nnot this\r\n--" + kBoundary +
                     "  \r\nCONTENT-DISPOSITION: Form-Data; filename=\"k_1.log\" ; name=logfile\r\n\r\nthis\r\n--" +
                     kBoundary + "\r\nContent-Disposition: form-data; name=\"logfile2\"; filename=\"z\"\r\n" +
                     "\r\nz\r\n--" +
                     kBoundary + "--\r\n";
  Outcome outcome = Extract(body, "Multipart/Form-Data; charset=x; Boundary=\"" + kBoundary + "\"");
  EXPECT_EQ("", outcome.reason);
  EXPECT_EQ("k_1.log", outcome.fileName);
  EXPECT_EQ("this", outcome.content);
}

TEST(MultipartExtract, BadBodiesGiveTheirReasons) {
  using namespace multipart_error;
  const std::string good = AgentBody("usage1.log", "hello world");
  EXPECT_EQ(kNotFormData, Extract(good, "text/plain").reason);
  EXPECT_EQ(kNotFormData, Extract(good, "multipart/mixed; boundary=" + kBoundary).reason);
  EXPECT_EQ(kNoBoundary, Extract(good, "multipart/form-data").reason);
  EXPECT_EQ(kNoBoundary, Extract(good, "multipart/form-data; boundary=\"\"").reason);
  EXPECT_EQ(kBoundaryNotFound, Extract(good, "multipart/form-data; boundary=999").reason);
  EXPECT_EQ(kBoundaryNotFound, Extract("").reason);
  // A boundary that is only a prefix of the one in the body is not found.
  EXPECT_EQ(kBoundaryNotFound, Extract(good, "multipart/form-data; boundary=1207516304").reason);

  EXPECT_EQ(kTruncatedBody, Extract(good.substr(0, good.find("octet"))).reason);  // inside the headers
  EXPECT_EQ(kTruncatedBody, Extract(good.substr(0, good.find("world"))).reason);  // inside the content
  EXPECT_EQ(kTruncatedBody, Extract(good.substr(0, good.size() - 1)).reason);     // "--" boundary "-"
  EXPECT_EQ(kNoClosingDelimiter, Extract(good.substr(0, good.size() - 2)).reason);
  EXPECT_EQ(kNoClosingDelimiter,
            Extract("--" + kBoundary + "\r\nContent-Disposition: form-data; name=\"logfile\"; filename=\"c\"\r\n" +
                    "\r\nx\r\n--" +
                    kBoundary + "\r\n")
                .reason);
  EXPECT_EQ(kNoClosingDelimiter, Extract("--" + kBoundary + "\r\n").reason);

  std::string otherName = good;
  otherName.replace(otherName.find("\"logfile\""), 9, "\"logfiles\"");
  EXPECT_EQ(kNoLogFilePart, Extract(otherName).reason);
  EXPECT_EQ(kNoLogFilePart, Extract("--" + kBoundary + "--").reason);
  std::string noFileName = good;
  noFileName.replace(noFileName.find("; filename=\"usage1.log\""), 23, "");
  EXPECT_EQ(kNoFileName, Extract(noFileName).reason);
  std::string twice = good.substr(0, good.size() - kBoundary.size() - 4) + good.substr(0, good.size());
  EXPECT_EQ(kTwoLogFileParts, Extract(twice).reason);

  // No cut of a body short of its end is taken for a whole upload.
  for (size_t length = 0; length < good.size(); ++length)
    EXPECT_NE("", Extract(good.substr(0, length)).reason) << "cut at " << length;
}

}  // namespace
