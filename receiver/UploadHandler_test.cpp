#include "receiver/UploadHandler.h"

#include <gtest/gtest.h>

#include <boost/beast/http/field.hpp>
#include <boost/beast/http/verb.hpp>
#include <filesystem>
#include <set>
#include <string>

#include "tests/support/TempDir.h"

namespace http = boost::beast::http;

namespace {

const std::string kBoundary = "4711";

HttpRequest Upload(const std::string& inFileName, const std::string& inContent) {
  HttpRequest request(http::verb::post, "/upload", 11);
  request.set(http::field::content_type, "multipart/form-data; boundary=" + kBoundary);
  request.body() = "--" + kBoundary + "\r\nContent-Disposition: form-data; name=\"logfile\"; filename=\"" +
                   inFileName + "\"\r\nContent-Type: application/octet-stream\r\n\r\n" + inContent + "\r\n\r\n--" +
                   kBoundary + "--";
  request.prepare_payload();
  return request;
}

std::string Body(const HandledRequest& inHandled) { return inHandled.response.body(); }

// Names of the entries of inFolder, sorted.
std::string Listing(const std::string& inFolder) {
  std::set<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(inFolder)) names.insert(entry.path().filename());
  std::string listing;
  for (const std::string& name : names) listing += name + " ";
  return listing;
}

class UploadHandlerTest : public ::testing::Test {
 protected:
  UploadHandlerTest() { std::filesystem::create_directory(mSpoolPath); }

  TempDir mDir{"receiver-handler"};
  std::string mSpoolPath = mDir / "spool";
  Spool mSpool{mSpoolPath};
  ReplyPolicy mPolicy;
  UploadHandler mHandler{mSpool, mPolicy};
};

TEST_F(UploadHandlerTest, StoresUnderTheLastPathComponentAndReplacesEarlierUploads) {
  HandledRequest first = mHandler.Handle(Upload("/home/u/Logs/u7_1.log", "first"));
  EXPECT_EQ(http::status::ok, first.response.result());
  EXPECT_EQ("text/plain", first.response[http::field::content_type]);
  EXPECT_EQ("Active", Body(first));
  EXPECT_TRUE(first.response.keep_alive());
  EXPECT_EQ("kind=u7 file=u7_1.log bytes=5 answer=Active", first.line);

  HandledRequest escape = mHandler.Handle(Upload("../../u7_1.log", "second, longer"));
  EXPECT_EQ("kind=u7 file=u7_1.log bytes=14 answer=Active", escape.line);
  EXPECT_EQ("second, longer", ReadFile(mSpoolPath + "/u7_1.log"));
  // Nothing beside the one file: not above the spool, no leftover temporaries.
  EXPECT_EQ("spool ", Listing(mDir.Path()));
  EXPECT_EQ("u7_1.log ", Listing(mSpoolPath));

  HandledRequest noKind = mHandler.Handle(Upload("plain.log", ""));
  EXPECT_EQ("kind=plain.log file=plain.log bytes=0 answer=Active", noKind.line);
  EXPECT_EQ("", ReadFile(mSpoolPath + "/plain.log"));

  // Control bytes in a name are stored as sent but printed escaped, so the
  // output stays one line per request.
  HandledRequest oddName = mHandler.Handle(Upload("two\nlines_x", "x"));
  EXPECT_EQ("kind=two\\x0alines file=two\\x0alines_x bytes=1 answer=Active", oddName.line);
  EXPECT_EQ("x", ReadFile(mSpoolPath + "/two\nlines_x"));
}

TEST_F(UploadHandlerTest, UnusableNamesAreRejectedWithoutWriting) {
  for (const std::string name : {"", ".", "..", "../..", "logs/", "/"}) {
    HandledRequest handled = mHandler.Handle(Upload(name, "x"));
    EXPECT_EQ(http::status::bad_request, handled.response.result()) << name;
    EXPECT_EQ("bad file name \"" + name + "\"", Body(handled));
    EXPECT_EQ("rejected status=400 reason=bad file name \"" + name + "\"", handled.line);
  }
  // A zero byte would cut the name short at the system call.
  HandledRequest zero = mHandler.Handle(Upload(std::string("u1\0.log", 7), "x"));
  EXPECT_EQ("rejected status=400 reason=bad file name \"u1\\x00.log\"", zero.line);
  EXPECT_EQ("", Listing(mSpoolPath));
}

TEST_F(UploadHandlerTest, AFailedWriteAnswers500) {
  std::filesystem::remove(mSpoolPath);
  HandledRequest handled = mHandler.Handle(Upload("u1_a.log", "x"));
  EXPECT_EQ(http::status::internal_server_error, handled.response.result());
  EXPECT_EQ("rejected status=500 reason=cannot store u1_a.log: No such file or directory", handled.line);

  // A folder in the way of the name cannot be replaced by a file either.
  std::filesystem::create_directories(mSpoolPath + "/u1_a.log");
  handled = mHandler.Handle(Upload("u1_a.log", "x"));
  EXPECT_EQ("rejected status=500 reason=cannot store u1_a.log: Is a directory", handled.line);
  EXPECT_EQ("u1_a.log ", Listing(mSpoolPath));
}

}  // namespace
