// The receiver program as operators and the agent's tests meet it: started
// through ReceiverProcess, spoken to with raw HTTP over loopback sockets.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/ChildProcess.h"
#include "tests/support/ReceiverProcess.h"
#include "tests/support/TempDir.h"

namespace {

const std::string kBoundary = "1804289383846930886";

// The body as the agent builds it, closed by "\r\n\r\n--" boundary "--".
std::string AgentBody(const std::string& inFileName, const std::string& inContent) {
  return "--" + kBoundary + "\r\nContent-Disposition: form-data; name=\"logfile\"; filename=\"" + inFileName +
         "\"\r\nContent-Type: application/octet-stream\r\n\r\n" + inContent + "\r\n\r\n--" + kBoundary + "--";
}

std::string PostRequest(const std::string& inContentType, const std::string& inBody) {
  return "POST /glowmark/FileDataCaptureServlet HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: " + inContentType +
         "\r\nContent-Length: " + std::to_string(inBody.size()) + "\r\n\r\n" + inBody;
}

std::string UploadRequest(const std::string& inFileName, const std::string& inContent) {
  return PostRequest("multipart/form-data; boundary=" + kBoundary, AgentBody(inFileName, inContent));
}

struct RawResponse {
  int status = 0;
  std::string head;  // status line and header fields
  std::string body;
};

// One client connection to 127.0.0.1, blocking I/O bounded by poll time-outs
// so that a receiver that hangs fails the test instead of stalling it.
class LoopbackConnection {
 public:
  explicit LoopbackConnection(int inPort) : mFd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(inPort));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (mFd < 0 || ::connect(mFd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
      throw std::runtime_error("cannot connect to the receiver");
  }
  ~LoopbackConnection() { ::close(mFd); }
  LoopbackConnection(const LoopbackConnection&) = delete;
  LoopbackConnection& operator=(const LoopbackConnection&) = delete;

  void Send(const std::string& inData) {
    for (size_t sent = 0; sent < inData.size();) {
      ssize_t n = ::send(mFd, inData.data() + sent, inData.size() - sent, MSG_NOSIGNAL);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) throw std::runtime_error("send failed");
      sent += static_cast<size_t>(n);
    }
  }
  void EndSending() { ::shutdown(mFd, SHUT_WR); }

  // Reads one response framed by Content-Length. False when the connection
  // ended (or 10 s passed) before a whole response arrived.
  bool ReadResponse(RawResponse& outResponse) {
    size_t headEnd;
    while ((headEnd = mPending.find("\r\n\r\n")) == std::string::npos)
      if (!ReadMore()) return false;
    outResponse.head = mPending.substr(0, headEnd + 2);
    outResponse.status = std::atoi(outResponse.head.c_str() + 9);
    size_t length = 0;
    size_t field = outResponse.head.find("Content-Length: ");
    if (field != std::string::npos) length = std::stoul(outResponse.head.substr(field + 16));
    while (mPending.size() < headEnd + 4 + length)
      if (!ReadMore()) return false;
    outResponse.body = mPending.substr(headEnd + 4, length);
    mPending.erase(0, headEnd + 4 + length);
    return true;
  }

  // True once the receiver has closed the connection (and sent nothing more).
  bool ClosedByPeer() { return !ReadMore() && mPending.empty(); }

 private:
  bool ReadMore() {
    pollfd pfd{mFd, POLLIN, 0};
    if (::poll(&pfd, 1, 10000) <= 0) return false;
    char chunk[65536];
    ssize_t n = ::recv(mFd, chunk, sizeof chunk, 0);
    if (n <= 0) return false;
    mPending.append(chunk, static_cast<size_t>(n));
    return true;
  }

  int mFd;
  std::string mPending;
};

// Sends inRequest on a fresh connection and returns the one response.
RawResponse Exchange(int inPort, const std::string& inRequest) {
  LoopbackConnection connection(inPort);
  connection.Send(inRequest);
  RawResponse response;
  EXPECT_TRUE(connection.ReadResponse(response));
  return response;
}

// Bytes no text tool would keep: every byte value, line ends, dashes and
// the boundary itself at the start of a line.
std::string BinaryContent() {
  std::string content;
  for (int i = 0; i < 256; ++i) content += static_cast<char>(i);
  content += "\r\n--\r\n--" + kBoundary + "x\r\n";
  content += std::string(3, '\0');
  return content;
}

TEST(ReceiverProgram, StoresUploadsByteForByteOnOneKeepAliveConnection) {
  TempDir dir("receiver-program");
  const std::string spool = dir / "new/spool";  // created by the receiver
  ReceiverProcess receiver(spool);
  const std::string binary = BinaryContent();
  // Far beyond the HTTP library's default 1 MB body limit.
  std::string large(64 * 1024 * 1024 + 1, 'x');
  for (size_t i = 0; i < large.size(); i += 4096) large[i] = static_cast<char>('a' + i / 4096 % 26);

  // The first request waits for "100 Continue" before sending its body, as
  // curl does with large files.
  LoopbackConnection connection(receiver.Port());
  std::string first = UploadRequest("/var/log/u1_20080115.log", binary);
  size_t headEnd = first.find("\r\n\r\n") + 2;
  connection.Send(first.substr(0, headEnd) + "Expect: 100-continue\r\n\r\n");
  RawResponse response;
  ASSERT_TRUE(connection.ReadResponse(response));
  EXPECT_EQ(100, response.status);
  connection.Send(first.substr(headEnd + 2));
  ASSERT_TRUE(connection.ReadResponse(response));
  EXPECT_EQ(200, response.status);
  EXPECT_NE(std::string::npos, response.head.find("Content-Type: text/plain\r\n"));
  EXPECT_EQ("Active", response.body);

  // Two more on the same connection, the second sent before the first is
  // answered.
  connection.Send(UploadRequest("big_1.log", large) + UploadRequest("u1_empty", ""));
  ASSERT_TRUE(connection.ReadResponse(response));
  EXPECT_EQ("Active", response.body);
  ASSERT_TRUE(connection.ReadResponse(response));
  EXPECT_EQ(200, response.status);
  EXPECT_EQ("Active", response.body);

  std::vector<std::string> expected = {
      "kind=u1 file=u1_20080115.log bytes=" + std::to_string(binary.size()) + " answer=Active",
      "kind=big file=big_1.log bytes=67108865 answer=Active", "kind=u1 file=u1_empty bytes=0 answer=Active"};
  EXPECT_EQ(expected, receiver.WaitForLines(3));
  EXPECT_EQ(binary, ReadFile(spool + "/u1_20080115.log"));
  EXPECT_TRUE(ReadFile(spool + "/big_1.log") == large);
  EXPECT_EQ("", ReadFile(spool + "/u1_empty"));

  int status = receiver.Stop();
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

TEST(ReceiverProgram, AnswersPerPolicy) {
  TempDir dir("receiver-policy");
  WriteFile(dir / "listed.cfg", "[Policy]\nu2 = Hibernate 3\r\nU3=Disabled\n[Other]\nu4=Delete\n");
  WriteFile(dir / "star.cfg", "[policy]\n*=Delete\nu2=Hibernate 30\n");
  ReceiverProcess listed(dir / "spool", dir / "listed.cfg");
  ReceiverProcess star(dir / "spool", dir / "star.cfg");

  EXPECT_EQ("Hibernate 3", Exchange(listed.Port(), UploadRequest("u2_1.log", "a")).body);
  EXPECT_EQ("Disabled", Exchange(listed.Port(), UploadRequest("u3_1.log", "b")).body);
  EXPECT_EQ("Active", Exchange(listed.Port(), UploadRequest("u4_1.log", "c")).body);
  EXPECT_EQ((std::vector<std::string>{"kind=u2 file=u2_1.log bytes=1 answer=Hibernate 3",
                                      "kind=u3 file=u3_1.log bytes=1 answer=Disabled",
                                      "kind=u4 file=u4_1.log bytes=1 answer=Active"}),
            listed.WaitForLines(3));

  EXPECT_EQ("Hibernate 30", Exchange(star.Port(), UploadRequest("U2_1.log", "a")).body);
  EXPECT_EQ("Delete", Exchange(star.Port(), UploadRequest("u4_1.log", "c")).body);
  EXPECT_EQ("Delete", Exchange(star.Port(), UploadRequest("nokind.log", "d")).body);
  EXPECT_EQ((std::vector<std::string>{"kind=U2 file=U2_1.log bytes=1 answer=Hibernate 30",
                                      "kind=u4 file=u4_1.log bytes=1 answer=Delete",
                                      "kind=nokind.log file=nokind.log bytes=1 answer=Delete"}),
            star.WaitForLines(3));
}

TEST(ReceiverProgram, BadRequestsAreRejectedAndServingGoesOn) {
  TempDir dir("receiver-bad");
  const std::string spool = dir / "spool";
  ReceiverProcess receiver(spool);
  RawResponse response;

  // A GET is refused but, being read whole, leaves the connection usable.
  {
    LoopbackConnection connection(receiver.Port());
    connection.Send("GET /upload HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
    ASSERT_TRUE(connection.ReadResponse(response));
    EXPECT_EQ(400, response.status);
    EXPECT_EQ("not a POST", response.body);
    connection.Send(UploadRequest("after-get.log", "ok"));
    ASSERT_TRUE(connection.ReadResponse(response));
    EXPECT_EQ(200, response.status);
  }
  response = Exchange(receiver.Port(), PostRequest("text/plain", "hello"));
  EXPECT_EQ(400, response.status);
  EXPECT_EQ("not multipart/form-data", response.body);
  std::string cut = AgentBody("cut.log", "cut short");
  response = Exchange(receiver.Port(), PostRequest("multipart/form-data; boundary=" + kBoundary,
                                                   cut.substr(0, cut.size() - 12)));
  EXPECT_EQ("truncated body", response.body);
  response = Exchange(receiver.Port(), PostRequest("multipart/form-data", cut));
  EXPECT_EQ("no boundary", response.body);
  response = Exchange(receiver.Port(), UploadRequest("../../escape_1.log", "kept inside"));
  EXPECT_EQ(200, response.status);

  // A request that ends before its announced length, and pure garbage: the
  // answer, if any, is 400 and the connection is closed.
  {
    LoopbackConnection connection(receiver.Port());
    std::string request = UploadRequest("partial.log", "0123456789");
    connection.Send(request.substr(0, request.size() - 20));
    connection.EndSending();
    ASSERT_TRUE(connection.ReadResponse(response));
    EXPECT_EQ(400, response.status);
    EXPECT_TRUE(connection.ClosedByPeer());
  }
  {
    LoopbackConnection connection(receiver.Port());
    const char kGarbage[] = "\x16\x03\x01\x02\x00 not http at all\r\n\r\n";
    connection.Send(std::string(kGarbage, sizeof kGarbage - 1));
    if (connection.ReadResponse(response)) {
      EXPECT_EQ(400, response.status);
    }
    EXPECT_TRUE(connection.ClosedByPeer());
  }

  response = Exchange(receiver.Port(), UploadRequest("u9_last.log", "still serving"));
  EXPECT_EQ(200, response.status);
  EXPECT_EQ("Active", response.body);

  std::vector<std::string> lines = receiver.WaitForLines(9);
  ASSERT_EQ(9u, lines.size());
  EXPECT_EQ("rejected status=400 reason=not a POST", lines[0]);
  EXPECT_EQ("kind=after-get.log file=after-get.log bytes=2 answer=Active", lines[1]);
  EXPECT_EQ("rejected status=400 reason=not multipart/form-data", lines[2]);
  EXPECT_EQ("rejected status=400 reason=truncated body", lines[3]);
  EXPECT_EQ("rejected status=400 reason=no boundary", lines[4]);
  EXPECT_EQ("kind=escape file=escape_1.log bytes=11 answer=Active", lines[5]);
  EXPECT_EQ("rejected status=400 reason=partial message", lines[6]);
  EXPECT_EQ(0u, lines[7].rfind("rejected status=400 reason=", 0)) << lines[7];
  EXPECT_EQ("kind=u9 file=u9_last.log bytes=13 answer=Active", lines[8]);

  // Only the accepted uploads were written, all of them inside the spool.
  EXPECT_EQ("kept inside", ReadFile(spool + "/escape_1.log"));
  std::vector<std::string> stored;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(dir.Path()))
    stored.push_back(entry.path().lexically_relative(dir.Path()));
  std::sort(stored.begin(), stored.end());
  EXPECT_EQ((std::vector<std::string>{"spool", "spool/after-get.log", "spool/escape_1.log", "spool/u9_last.log"}),
            stored);
}

TEST(ReceiverProgram, AnswersWaitForTheGivenDelay) {
  TempDir dir("receiver-delay");
  ReceiverProcess receiver(dir / "spool", "", {"--delay-ms", "300"});
  auto start = std::chrono::steady_clock::now();
  RawResponse response = Exchange(receiver.Port(), UploadRequest("slow_1.log", "z"));
  auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_EQ("Active", response.body);
  EXPECT_GE(waited, std::chrono::milliseconds(300));
  // The upload is stored before the answer is held back.
  EXPECT_EQ("z", ReadFile(dir / "spool/slow_1.log"));
}

TEST(ReceiverProgram, CommandLineProblemsAndSignalsEndItAsDocumented) {
  TempDir dir("receiver-cli");
  auto run = [&](const std::vector<std::string>& inArgs, int& outExit) {
    std::vector<std::string> args = {ReceiverProcess::ProgramPath()};
    args.insert(args.end(), inArgs.begin(), inArgs.end());
    auto child = std::make_unique<ChildProcess>(args, ChildProcess::CurrentEnvironment(), dir.Path());
    EXPECT_TRUE(child->Wait(10000));
    outExit = child->ExitCode();
    return child;
  };
  int exitCode = -1;
  EXPECT_EQ("porvane-receiver: unknown option '--bogus'\n", run({"--spool", dir / "s", "--bogus"}, exitCode)->Stderr());
  EXPECT_EQ(2, exitCode);
  EXPECT_EQ("porvane-receiver: bad port '65536'\n", run({"--spool", dir / "s", "--port=65536"}, exitCode)->Stderr());
  EXPECT_EQ(2, exitCode);
  EXPECT_EQ("porvane-receiver: --spool DIR is required\n", run({"--port", "0"}, exitCode)->Stderr());
  EXPECT_EQ(2, exitCode);
  EXPECT_EQ("porvane-receiver: cannot read policy file " + dir / "missing.cfg" + "\n",
            run({"--spool", dir / "s", "--policy", dir / "missing.cfg"}, exitCode)->Stderr());
  EXPECT_EQ(2, exitCode);
  EXPECT_EQ(0u, run({"--help"}, exitCode)->Stdout().rfind("usage: porvane-receiver --spool DIR", 0));
  EXPECT_EQ(0, exitCode);

  // A port in use is reported, not silently replaced by another.
  ReceiverProcess first(dir / "s");
  auto busy = run({"--spool", dir / "s", "--port", std::to_string(first.Port())}, exitCode);
  EXPECT_EQ(1, exitCode);
  EXPECT_EQ("porvane-receiver: cannot listen on port " + std::to_string(first.Port()) + ": Address already in use\n",
            busy->Stderr());

  int status = first.Stop();
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  ReceiverProcess second(dir / "s");
  ASSERT_EQ(0, ::kill(second.Pid(), SIGINT));
  status = second.Stop();
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

}  // namespace
