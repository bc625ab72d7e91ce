// The receiver program as operators and the agent's tests meet it: started
// through ReceiverProcess, spoken to with raw HTTP over loopback sockets.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ChildProcess.h"
#include "RawServer.h"
#include "ReceiverProcess.h"
#include "TempDir.h"

namespace {

const std::string kBoundary = "1804289383846930886";

std::string PostRequest(const std::string& inContentType, const std::string& inBody) {
  return "POST /glowmark/FileDataCaptureServlet HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: " + inContentType +
         "\r\nContent-Length: " + std::to_string(inBody.size()) + "\r\n\r\n" + inBody;
}

// A request carrying the body as the agent builds it.
std::string UploadRequest(const std::string& inFileName, const std::string& inContent) {
  return PostRequest("multipart/form-data; boundary=" + kBoundary,
                     "--" + kBoundary + "\r\nContent-Disposition: form-data; name=\"logfile\"; filename=\"" +
                         inFileName + "\"\r\nContent-Type: application/octet-stream\r\n\r\n" + inContent +
                         "\r\n\r\n--" + kBoundary + "--");
}

// One client connection to the receiver. A read waits at most 10 s, so a
// receiver that hangs fails the test instead of stalling it.
class Connection {
 public:
  explicit Connection(int inPort) : mFd(RawServer::ConnectLoopback(inPort)) { EXPECT_GE(mFd, 0); }
  ~Connection() { close(mFd); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  void Send(const std::string& inData) { EXPECT_TRUE(RawServer::WriteAll(mFd, inData)); }
  void EndSending() { shutdown(mFd, SHUT_WR); }

  // The next response, framed by its Content-Length, as its status code, a
  // space and its body; "" when the connection ended first.
  std::string Response() {
    size_t headEnd;
    while ((headEnd = mPending.find("\r\n\r\n")) == std::string::npos)
      if (!ReadMore()) return "";
    size_t field = mPending.find("\r\nContent-Length: ");
    size_t length = field < headEnd ? std::strtoul(mPending.c_str() + field + 18, nullptr, 10) : 0;
    while (mPending.size() < headEnd + 4 + length)
      if (!ReadMore()) return "";
    std::string response = mPending.substr(9, 4) + mPending.substr(headEnd + 4, length);
    mPending.erase(0, headEnd + 4 + length);
    return response;
  }

  // True once the receiver has closed the connection without sending more.
  bool ClosedByPeer() { return !ReadMore() && mPending.empty(); }

 private:
  bool ReadMore() {
    pollfd readable{mFd, POLLIN, 0};
    char chunk[65536];
    ssize_t got = poll(&readable, 1, 10000) > 0 ? recv(mFd, chunk, sizeof chunk, 0) : -1;
    if (got > 0) mPending.append(chunk, static_cast<size_t>(got));
    return got > 0;
  }

  int mFd;
  std::string mPending;
};

std::string Exchange(int inPort, const std::string& inRequest) {
  Connection connection(inPort);
  connection.Send(inRequest);
  return connection.Response();
}

long Entries(const std::string& inFolder) {
  return std::distance(std::filesystem::directory_iterator(inFolder), std::filesystem::directory_iterator());
}

TEST(ReceiverProgram, StoresUploadsByteForByteOnOneKeepAliveConnection) {
  TempDir dir("receiver-program");
  const std::string spool = dir / "new/spool";  // created by the receiver
  ReceiverProcess receiver(spool);
  std::string binary;
  for (int i = 0; i < 256; ++i) binary += static_cast<char>(i);
  binary += "\r\n--\r\n--" + kBoundary + "x\r\n" + std::string(3, '\0');
  // Far beyond the HTTP library's default 1 MB body limit.
  std::string large(64 * 1024 * 1024 + 1, 'x');
  for (size_t i = 0; i < large.size(); i += 4096) large[i] = static_cast<char>('a' + i / 4096 % 26);

  // The first request waits for "100 Continue" before sending its body, as
  // curl does with large files; the next two go out before either is answered.
  Connection connection(receiver.Port());
  std::string first = UploadRequest("/var/log/u1_20080115.log", binary);
  size_t headEnd = first.find("\r\n\r\n") + 2;
  connection.Send(first.substr(0, headEnd) + "Expect: 100-continue\r\n\r\n");
  EXPECT_EQ("100 ", connection.Response());
  connection.Send(first.substr(headEnd + 2));
  EXPECT_EQ("200 Active", connection.Response());
  connection.Send(UploadRequest("big_1.log", large) + UploadRequest("u1_empty", ""));
  EXPECT_EQ("200 Active", connection.Response());
  EXPECT_EQ("200 Active", connection.Response());

  EXPECT_EQ((std::vector<std::string>{
                "kind=u1 file=u1_20080115.log bytes=" + std::to_string(binary.size()) + " answer=Active",
                "kind=big file=big_1.log bytes=67108865 answer=Active", "kind=u1 file=u1_empty bytes=0 answer=Active"}),
            receiver.WaitForLines(3));
  EXPECT_EQ(binary, ReadFile(spool + "/u1_20080115.log"));
  EXPECT_TRUE(ReadFile(spool + "/big_1.log") == large);
  EXPECT_EQ("", ReadFile(spool + "/u1_empty"));
  int status = receiver.Stop();
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

TEST(ReceiverProgram, AnswersPerPolicyAfterTheGivenDelay) {
  TempDir dir("receiver-policy");
  WriteFile(dir / "listed.cfg", "[Policy]\nu2 = Hibernate 3\r\nU3=Disabled\n[Other]\nu4=Delete\n");
  WriteFile(dir / "star.cfg", "[policy]\n*=Delete\nu2=Hibernate 30\n");
  ReceiverProcess listed(dir / "spool", dir / "listed.cfg");
  ReceiverProcess star(dir / "spool", dir / "star.cfg", {"--delay-ms", "300"});
  const struct {
    ReceiverProcess& receiver;
    std::string file, answer;
  } kCases[] = {{listed, "u2_1.log", "Hibernate 3"}, {listed, "u3_1.log", "Disabled"}, {listed, "u4_1.log", "Active"},
                {star, "U2_1.log", "Hibernate 30"},  {star, "u4_1.log", "Delete"},     {star, "nokind.log", "Delete"}};
  auto start = std::chrono::steady_clock::now();
  for (const auto& c : kCases) EXPECT_EQ("200 " + c.answer, Exchange(c.receiver.Port(), UploadRequest(c.file, "a")));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(3 * 300)) << "star's answers wait";
  EXPECT_EQ((std::vector<std::string>{"kind=U2 file=U2_1.log bytes=1 answer=Hibernate 30",
                                      "kind=u4 file=u4_1.log bytes=1 answer=Delete",
                                      "kind=nokind.log file=nokind.log bytes=1 answer=Delete"}),
            star.WaitForLines(3));
}

TEST(ReceiverProgram, BadRequestsAndGarbageAreRejectedAndServingGoesOn) {
  TempDir dir("receiver-bad");
  ReceiverProcess receiver(dir / "spool");
  {
    // A GET is refused but, being read whole, leaves the connection usable.
    Connection connection(receiver.Port());
    connection.Send("GET /upload HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
    EXPECT_EQ("400 not a POST", connection.Response());
    connection.Send(UploadRequest("after-get.log", "ok"));
    EXPECT_EQ("200 Active", connection.Response());
  }
  EXPECT_EQ("400 not multipart/form-data", Exchange(receiver.Port(), PostRequest("text/plain", "hello")));
  // A request that ends before its announced length, and pure garbage: the
  // answer, if any, is 400 and the connection is closed.
  const std::string partial = UploadRequest("partial.log", "0123456789");
  for (const std::string& request : {partial.substr(0, partial.size() - 20),
                                     std::string("\x16\x03\x01\x02\x00 not http at all\r\n\r\n", 26)}) {
    Connection connection(receiver.Port());
    connection.Send(request);
    connection.EndSending();
    std::string response = connection.Response();
    EXPECT_TRUE(response.empty() || response.rfind("400 ", 0) == 0) << response;
    EXPECT_TRUE(connection.ClosedByPeer());
  }
  EXPECT_EQ("200 Active", Exchange(receiver.Port(), UploadRequest("u9_last.log", "still serving")));

  std::vector<std::string> lines = receiver.WaitForLines(6);
  ASSERT_EQ(6u, lines.size());
  EXPECT_EQ("rejected status=400 reason=partial message", lines[3]);
  EXPECT_EQ(0u, lines[4].rfind("rejected status=400 reason=", 0)) << lines[4];
  EXPECT_EQ("kind=u9 file=u9_last.log bytes=13 answer=Active", lines[5]);
  // Only the accepted uploads were written.
  EXPECT_EQ(1, Entries(dir.Path()));
  EXPECT_EQ(2, Entries(dir / "spool"));
}

TEST(ReceiverProgram, CommandLineProblemsAndSignalsEndItAsDocumented) {
  TempDir dir("receiver-cli");
  auto run = [&dir](std::vector<std::string> inArgs) {
    inArgs.insert(inArgs.begin(), ReceiverProcess::ProgramPath());
    auto child = std::make_unique<ChildProcess>(inArgs, ChildProcess::CurrentEnvironment(), dir.Path());
    EXPECT_TRUE(child->Wait(10000));
    return child;
  };
  const std::string spool = dir / "s";
  const std::pair<std::vector<std::string>, std::string> kUsageErrors[] = {
      {{"--spool", spool, "--bogus"}, "unknown option '--bogus'"},
      {{"--spool", spool, "--port=65536"}, "bad port '65536'"},
      {{"--port", "0"}, "--spool DIR is required"},
      {{"--spool", spool, "--policy", dir / "missing.cfg"}, "cannot read policy file " + dir / "missing.cfg"}};
  for (const auto& [args, message] : kUsageErrors) {
    auto child = run(args);
    EXPECT_EQ("porvane-receiver: " + message + "\n", child->Stderr());
    EXPECT_EQ(2, child->ExitCode());
  }

  // A port in use is reported, not silently replaced by another.
  ReceiverProcess first(spool);
  auto busy = run({"--spool", spool, "--port", std::to_string(first.Port())});
  EXPECT_EQ(1, busy->ExitCode());
  EXPECT_EQ("porvane-receiver: cannot listen on port " + std::to_string(first.Port()) + ": Address already in use\n",
            busy->Stderr());
  // SIGINT ends it as cleanly as SIGTERM does. Only the one signal is sent:
  // once it is shutting down, the default actions are back.
  ChildProcess interrupted({ReceiverProcess::ProgramPath(), "--spool", spool, "--port", "0"},
                           ChildProcess::CurrentEnvironment(), dir.Path());
  for (int waited = 0; interrupted.Stdout().find(" listening on ") == std::string::npos; waited += 20) {
    ASSERT_LT(waited, 10000) << interrupted.Stderr();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  interrupted.Signal(SIGINT);
  ASSERT_TRUE(interrupted.Wait(10000));
  EXPECT_EQ(0, interrupted.ExitCode());
}

}  // namespace
