#include "UploadHandler.h"

#include <gtest/gtest.h>

#include <boost/beast/http/field.hpp>
#include <boost/beast/http/verb.hpp>
#include <filesystem>
#include <iterator>
#include <string>

#include "TempDir.h"

namespace http = boost::beast::http;

namespace {

HttpRequest Upload(const std::string& inFileName, const std::string& inContent) {
  HttpRequest request(http::verb::post, "/upload", 11);
  request.set(http::field::content_type, "multipart/form-data; boundary=4711");
  request.body() = "--4711\r\nContent-Disposition: form-data; name=\"logfile\"; filename=\"" + inFileName +
                   "\"\r\nContent-Type: application/octet-stream\r\n\r\n" + inContent + "\r\n\r\n--4711--";
  request.prepare_payload();
  return request;
}

TEST(UploadHandler, StoresUnderTheLastNameComponentAndRejectsWhatCannotBeStored) {
  TempDir dir("receiver-handler");
  const std::string spool = dir / "spool";
  std::filesystem::create_directory(spool);
  Spool store(spool);
  ReplyPolicy policy;
  UploadHandler handler(store, policy);
  auto entries = [](const std::string& inFolder) {
    return std::distance(std::filesystem::directory_iterator(inFolder), std::filesystem::directory_iterator());
  };

  HandledRequest first = handler.Handle(Upload("/home/u/Logs/u7_1.log", "first"));
  EXPECT_EQ(http::status::ok, first.response.result());
  EXPECT_EQ("text/plain", first.response[http::field::content_type]);
  EXPECT_EQ("Active", first.response.body());
  EXPECT_TRUE(first.response.keep_alive());
  EXPECT_EQ("kind=u7 file=u7_1.log bytes=5 answer=Active", first.line);
  EXPECT_EQ("kind=u7 file=u7_1.log bytes=14 answer=Active",
            handler.Handle(Upload("../../u7_1.log", "second, longer")).line);
  EXPECT_EQ("second, longer", ReadFile(spool + "/u7_1.log"));
  // Control bytes in a name are stored as sent but printed escaped, so the
  // output stays one line per request.
  EXPECT_EQ("kind=two\\x0alines file=two\\x0alines_x bytes=1 answer=Active",
            handler.Handle(Upload("two\nlines_x", "x")).line);
  EXPECT_EQ("x", ReadFile(spool + "/two\nlines_x"));

  for (const std::string name : {"", "..", "logs/", "/"}) {
    HandledRequest handled = handler.Handle(Upload(name, "x"));
    EXPECT_EQ("bad file name \"" + name + "\"", handled.response.body());
    EXPECT_EQ("rejected status=400 reason=bad file name \"" + name + "\"", handled.line);
  }
  // A zero byte would cut the name short at the system call.
  EXPECT_EQ("rejected status=400 reason=bad file name \"u1\\x00.log\"",
            handler.Handle(Upload(std::string("u1\0.log", 7), "x")).line);
  // Nothing above the spool, no leftover temporaries, nothing rejected.
  EXPECT_EQ(1, entries(dir.Path()));
  EXPECT_EQ(2, entries(spool));

  // A folder in the way of the name cannot be replaced: 500, nothing left.
  std::filesystem::create_directory(spool + "/u1_a.log");
  HandledRequest handled = handler.Handle(Upload("u1_a.log", "x"));
  EXPECT_EQ(http::status::internal_server_error, handled.response.result());
  EXPECT_EQ("rejected status=500 reason=cannot store u1_a.log: Is a directory", handled.line);
  EXPECT_EQ(3, entries(spool));
}

}  // namespace
