// The reference receiver: what it makes of one request, and the program as
// operators and the agent's tests meet it.
#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "PrivateHome.h"
#include "UploadHandler.h"

// The body the agent sends for a file called inName: its one part closed by
// "\r\n\r\n--B--" and nothing behind it.
static std::string Body(const std::string& inName, const std::string& inContent = "abc") {
  return "--B\r\nContent-Disposition: form-data; name=\"logfile\"; filename=\"" + inName +
         "\"\r\nContent-Type: application/octet-stream\r\n\r\n" + inContent + "\r\n\r\n--B--";
}

TEST(UploadHandler, StoresTheFileAsSentUnderItsLastNameOrGivesTheReason) {
  PrivateHome home;
  const std::string dir = home / "tmp";  // empty
  WriteFile(dir + "/p.cfg", "[Policy]\nu2=Hibernate 3\n*=Delete\n");
  ReplyPolicy policy;
  policy.Read(dir + "/p.cfg");
  const Spool spool(dir);
  auto handle = [&](const std::string& inType, const std::string& inBody) {
    HttpRequest request(boost::beast::http::verb::post, "/upload", 11, inBody);
    request.set(boost::beast::http::field::content_type, inType);
    return UploadHandler(spool, policy).Handle(request).line;
  };
  // The file's name holds control bytes, printed escaped; its content ends in
  // CR LF and holds the boundary followed by other text.
  const std::string type = "multipart/form-data; boundary=B", good = Body("/x/u3_a\n\x7f", "\r\n--Bx\r\n");
  const std::string no = "rejected status=400 reason=", far(256, 'n');
  const std::string kCases[][3] = {
      // Closed the usual way ("\r\n--B--\r\n") the CR LF before the delimiter
      // is content; closed the agent's way the file is as it was sent. A
      // preamble, other parameters and a quoted boundary are passed over.
      {type, "x\r\n" + good + "\r\n", "kind=u3 file=u3_a\\x0a\\x7f bytes=10 answer=Delete"},
      {type, good, "kind=u3 file=u3_a\\x0a\\x7f bytes=8 answer=Delete"},
      {"Multipart/Form-Data;x; boundary=\"B\"", Body("../U2_\"", ""), "kind=U2 file=U2_\" bytes=0 answer=Hibernate 3"},
      {type, Body(".."), no + "bad file name \"..\""},
      {"text/plain", good, no + "not multipart/form-data"}, {"multipart/form-data;boundary=", good, no + "no boundary"},
      {"multipart/form-data; boundary=C", good, no + "boundary not found"},
      {type, good.substr(0, good.size() - 1), no + "truncated body"}, {type, "--B\r\n", no + "no closing delimiter"},
      {type, "--B\r\nContent-Disposition: form-data; name=x; filename=f\r\n\r\n--B--", no + "no logfile part"},
      {type, "--B\r\nContent-Disposition: form-data; name=logfile\r\n\r\n--B--", no + "logfile part has no file name"},
      {type, good.substr(0, good.size() - 5) + good, no + "more than one logfile part"},
      // Too long a name fails at the rename: nothing may be left behind.
      {type, Body(far), "rejected status=500 reason=cannot store " + far + ": File name too long"}};
  for (const auto& c : kCases) EXPECT_EQ(c[2], handle(c[0], c[1])) << c[1];
  // Stored under the last name component only, inside the spool, and nothing else.
  EXPECT_EQ((std::vector<std::string>{"U2_\"", "p.cfg", "u3_a\n\x7f"}), Names(dir));
  EXPECT_EQ("\r\n--Bx\r\n", ReadFile(dir + "/u3_a\n\x7f"));
}

TEST(ReceiverProgram, ServesOverHttpAndRefusesBadCommandLines) {
  PrivateHome dir;
  ReceiverProcess receiver(dir / "spool");
  const std::string out = " %{http_code} %{num_connects}\n", url = receiver.Url();
  ChildProcess curl({"/usr/bin/curl", "-sS", "--noproxy", "*", "-i", "-w", out, url, "--next", "-w", out, "-H",
                     "Content-Length: x", url, "--next", "-w", out, "-H", "Expect: 100-continue", "-F",
                     "logfile=line one;filename=u2_1.log", url}, {}, dir / "curl");
  ASSERT_TRUE(curl.Wait());
  // A GET is refused and the connection kept; a request that cannot be read
  // is refused and the connection closed; serving goes on, a client that
  // waits for "100 Continue" included.
  EXPECT_EQ("HTTP/1.1 400 Bad Request\r\nServer: porvane-receiver\r\nContent-Type: text/plain\r\nContent-Length: 10\r\n"
            "\r\nnot a POST 400 1\nbad Content-Length 400 0\nActive 200 1\n", curl.Stdout()) << curl.Stderr();
  EXPECT_EQ("kind=u2 file=u2_1.log bytes=8 answer=Active", receiver.Lines(3).at(2));

  const std::string p = BuiltProgram("porvane-receiver"), error = "2 porvane-receiver: ";
  const std::pair<std::vector<std::string>, std::string> kCases[] = {
      {{p, "--port=0", "--help", "--bogus"}, "0 usage: porvane-receiver --spool DIR"},
      {{p, "--delay-ms", "3600000", "--port=6553x"}, error + "bad port '6553x'\n"},
      {{p, "--spool", dir.Root(), "--policy", dir / "none"}, error + "cannot read policy file " + dir / "none\n"},
      {{p, "--spool", dir.Root(), "--cert", dir / "c", "--key", dir / "k"},
       error + "cannot load certificate " + dir / "c: No such file or directory\n"}};
  for (const auto& [args, expected] : kCases) {
    ChildProcess child(args, {}, dir / "child");
    child.Wait();
    EXPECT_EQ(expected, std::to_string(child.ExitCode()) + " " + child.Stderr() + child.Stdout().substr(0, 35));
  }
}
