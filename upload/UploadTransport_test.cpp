// The uploader as the receiver sees it: real libcurl over loopback to a raw
// socket server that records the request bytes, through a real proxy, and
// against the reference receiver.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/ReceiverProcess.h"
#include "tests/support/TempDir.h"
#include "upload/Uploader.h"
#include "upload/Uploader_Curl.h"

namespace {

using Clock = std::chrono::steady_clock;

const char kUserAgentText[] =
    "Mozilla/5.0 (Macintosh; U; PPC Mac OS X; en-us) AppleWebKit/125.5.5 (KHTML, like Gecko) Safari/125";

std::string Lower(std::string inText) {
  for (char& c : inText) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return inText;
}

// One scripted answer: pieces of raw bytes, each sent after its pause.
struct Answer {
  std::vector<std::pair<int, std::string>> pieces;  // (pause in ms, bytes)
  bool never = false;                               // read the request, then stay silent
};

Answer Reply(const std::string& inBody, const std::string& inStatus = "200 OK") {
  return Answer{{{0, "HTTP/1.1 " + inStatus + "\r\nContent-Length: " + std::to_string(inBody.size()) +
                         "\r\nConnection: close\r\n\r\n" + inBody}},
                false};
}

// A loopback HTTP server made of plain sockets: it accepts one connection at
// a time, reads one request whole (head and Content-Length body), records its
// raw bytes and sends the scripted answer. libcurl cannot tidy anything up on
// its way here, so the test sees the bytes that went over the wire.
class RawHttpServer {
 public:
  explicit RawHttpServer(Answer inAnswer) : mAnswer(std::move(inAnswer)) {
    mListen = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    if (mListen < 0 || bind(mListen, reinterpret_cast<sockaddr*>(&address), size) != 0 || listen(mListen, 8) != 0 ||
        getsockname(mListen, reinterpret_cast<sockaddr*>(&address), &size) != 0 || pipe2(mWake, O_CLOEXEC) != 0) {
      throw std::runtime_error("cannot set up the loopback server");
    }
    mPort = ntohs(address.sin_port);
    mThread = std::thread([this] { Serve(); });
  }
  ~RawHttpServer() {
    (void)!write(mWake[1], "x", 1);
    mThread.join();
    close(mListen);
    close(mWake[0]);
    close(mWake[1]);
  }
  RawHttpServer(const RawHttpServer&) = delete;
  RawHttpServer& operator=(const RawHttpServer&) = delete;

  std::string Url(const std::string& inPath = "/upload") const {
    return "http://127.0.0.1:" + std::to_string(mPort) + inPath;
  }
  int Port() const { return mPort; }
  std::vector<std::string> Requests() {
    std::lock_guard<std::mutex> lock(mMutex);
    return mRequests;
  }
  int Connections() const { return mConnections.load(); }

 private:
  // Waits until inFd is readable; false when the server is told to stop or
  // inTimeoutMs passes.
  bool WaitReadable(int inFd, int inTimeoutMs) {
    pollfd fds[2] = {{inFd, POLLIN, 0}, {mWake[0], POLLIN, 0}};
    int ready;
    while ((ready = poll(fds, 2, inTimeoutMs)) < 0 && errno == EINTR) {
    }
    return ready > 0 && (fds[1].revents & POLLIN) == 0;
  }

  void Serve() {
    while (WaitReadable(mListen, -1)) {
      int client = accept4(mListen, nullptr, nullptr, SOCK_CLOEXEC);
      if (client < 0) continue;
      ++mConnections;
      std::string request = ReadRequest(client);
      {
        std::lock_guard<std::mutex> lock(mMutex);
        mRequests.push_back(request);
      }
      SendAnswer(client);
      close(client);
    }
  }

  std::string ReadRequest(int inClient) {
    std::string bytes;
    size_t wanted = std::string::npos;
    char chunk[65536];
    while (bytes.size() < wanted && WaitReadable(inClient, 10000)) {
      ssize_t got = recv(inClient, chunk, sizeof chunk, 0);
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) break;
      bytes.append(chunk, static_cast<size_t>(got));
      size_t headEnd = bytes.find("\r\n\r\n");
      if (wanted == std::string::npos && headEnd != std::string::npos) {
        size_t at = Lower(bytes.substr(0, headEnd)).find("\r\ncontent-length:");
        size_t bodyLength = at == std::string::npos ? 0 : std::strtoul(bytes.c_str() + at + 17, nullptr, 10);
        wanted = headEnd + 4 + bodyLength;
      }
    }
    return bytes;
  }

  void SendAnswer(int inClient) {
    if (mAnswer.never) {
      // Silent until the client gives up (it closes), the test ends, or 10 s
      // pass: a client that ignores its stop flag then fails the test instead
      // of hanging it.
      char sink[4096];
      while (WaitReadable(inClient, 10000) && recv(inClient, sink, sizeof sink, 0) > 0) {
      }
      return;
    }
    for (const auto& [pauseMs, bytes] : mAnswer.pieces) {
      if (pauseMs > 0) {
        pollfd wake{mWake[0], POLLIN, 0};
        if (poll(&wake, 1, pauseMs) > 0) return;
      }
      if (send(inClient, bytes.data(), bytes.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(bytes.size())) return;
    }
    shutdown(inClient, SHUT_WR);
  }

  Answer mAnswer;
  int mListen = -1;
  int mWake[2] = {-1, -1};
  int mPort = 0;
  std::thread mThread;
  std::mutex mMutex;
  std::vector<std::string> mRequests;
  std::atomic<int> mConnections{0};
};

// The parts of a raw request the tests look at.
struct Request {
  std::string line;
  std::vector<std::pair<std::string, std::string>> headers;  // in order, as sent
  std::string body;

  explicit Request(const std::string& inRaw) {
    size_t headEnd = inRaw.find("\r\n\r\n");
    if (headEnd == std::string::npos) throw std::runtime_error("no complete request head");
    body = inRaw.substr(headEnd + 4);
    std::string head = inRaw.substr(0, headEnd) + "\r\n";
    size_t lineEnd = head.find("\r\n");
    line = head.substr(0, lineEnd);
    for (size_t at = lineEnd + 2; at < head.size();) {
      size_t end = head.find("\r\n", at);
      std::string field = head.substr(at, end - at);
      size_t colon = field.find(':');
      size_t valueStart = field.find_first_not_of(' ', colon + 1);
      headers.emplace_back(field.substr(0, colon), valueStart == std::string::npos ? "" : field.substr(valueStart));
      at = end + 2;
    }
  }

  std::vector<std::string> Values(const std::string& inName) const {
    std::vector<std::string> values;
    for (const auto& [name, value] : headers) {
      if (Lower(name) == Lower(inName)) values.push_back(value);
    }
    return values;
  }
  size_t IndexOf(const std::string& inName) const {
    for (size_t i = 0; i < headers.size(); ++i) {
      if (Lower(headers[i].first) == Lower(inName)) return i;
    }
    return headers.size();
  }
};

// Sets or clears an environment variable for one test and puts it back after.
class ScopedEnv {
 public:
  ScopedEnv(const char* inName, const char* inValue) : mName(inName) {
    if (const char* old = std::getenv(inName)) mOld = old;
    if (inValue != nullptr) {
      setenv(inName, inValue, 1);
    } else {
      unsetenv(inName);
    }
  }
  ~ScopedEnv() {
    if (mOld) {
      setenv(mName.c_str(), mOld->c_str(), 1);
    } else {
      unsetenv(mName.c_str());
    }
  }
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  std::string mName;
  std::optional<std::string> mOld;
};

// Loopback tests talk to 127.0.0.1 directly, whatever proxy the machine that
// runs them has configured.
class UploadTransport : public ::testing::Test {
 protected:
  ScopedEnv mHttpProxy{"http_proxy", nullptr};
  ScopedEnv mAllProxy{"all_proxy", nullptr};
  ScopedEnv mAllProxyUpper{"ALL_PROXY", nullptr};
  TempDir mDir{"upload-transport"};
};

int ClosedLoopbackPort() {
  int probe = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  bind(probe, reinterpret_cast<sockaddr*>(&address), size);
  getsockname(probe, reinterpret_cast<sockaddr*>(&address), &size);
  close(probe);  // nobody listens there now
  return ntohs(address.sin_port);
}

TEST_F(UploadTransport, RequestOnTheWireIsThePostWithOurHeadersAndTheBuiltBody) {
  // Over 1 MiB, where libcurl would otherwise ask for 100-continue.
  std::string content;
  for (int i = 0; content.size() < 1536 * 1024; ++i) content += std::string("line\r\n\0", 7) + std::to_string(i);
  const std::string path = mDir / "u123_20080115.log";
  WriteFile(path, content);
  RawHttpServer server(Reply("Active"));

  std::unique_ptr<Uploader> uploader(CreateUploader());
  EXPECT_TRUE(uploader->UploadFile(path, server.Url()));
  EXPECT_TRUE(uploader->IsFinished());
  ASSERT_NE(uploader->GetReply(), nullptr);
  EXPECT_STREQ(uploader->GetReply(), "Active");

  ASSERT_EQ(server.Requests().size(), 1u);
  Request request(server.Requests()[0]);
  EXPECT_EQ(request.line, "POST /upload HTTP/1.1");
  EXPECT_EQ(request.Values("User-Agent"), std::vector<std::string>{kUserAgentText});
  std::vector<std::string> contentType = request.Values("Content-Type");
  ASSERT_EQ(contentType.size(), 1u);
  const std::string prefix = "multipart/form-data; boundary=";
  ASSERT_EQ(contentType[0].compare(0, prefix.size(), prefix), 0) << contentType[0];
  const std::string boundary = contentType[0].substr(prefix.size());
  EXPECT_GE(boundary.size(), 16u);
  EXPECT_LE(boundary.size(), 25u);
  EXPECT_EQ(request.body, Uploader_Curl::ComposeMultipartBody(path, content, boundary));
  EXPECT_EQ(request.Values("Content-Length"), std::vector<std::string>{std::to_string(request.body.size())});
  EXPECT_LT(request.IndexOf("User-Agent"), request.IndexOf("Content-Length"));
  EXPECT_LT(request.IndexOf("Content-Length"), request.IndexOf("Content-Type"));
  EXPECT_TRUE(request.Values("Expect").empty());
  EXPECT_TRUE(request.Values("Transfer-Encoding").empty());
  EXPECT_TRUE(request.Values("Accept-Encoding").empty());
  EXPECT_EQ(request.Values("Host"), std::vector<std::string>{"127.0.0.1:" + std::to_string(server.Port())});
}

TEST_F(UploadTransport, ReplyBodyIsKeptWhateverTheStatusAndAnEmptyOneIsNull) {
  const std::string path = mDir / "u1.log";
  WriteFile(path, "data");
  {
    RawHttpServer server(Reply("Disabled", "500 Internal Server Error"));
    std::unique_ptr<Uploader> uploader(CreateUploader());
    EXPECT_TRUE(uploader->UploadFile(path, server.Url()));
    ASSERT_NE(uploader->GetReply(), nullptr);
    EXPECT_STREQ(uploader->GetReply(), "Disabled");
  }
  {
    RawHttpServer server(Reply(""));
    std::unique_ptr<Uploader> uploader(CreateUploader());
    EXPECT_TRUE(uploader->UploadFile(path, server.Url()));
    EXPECT_TRUE(uploader->IsFinished());
    EXPECT_EQ(uploader->GetReply(), nullptr);
    EXPECT_EQ(server.Connections(), 1);
  }
}

TEST_F(UploadTransport, RefusedConnectionEndsTheExchangeWithoutReply) {
  const std::string path = mDir / "u1.log";
  WriteFile(path, "data");
  std::unique_ptr<Uploader> uploader(CreateUploader());
  EXPECT_TRUE(uploader->UploadFile(path, "http://127.0.0.1:" + std::to_string(ClosedLoopbackPort()) + "/upload"));
  EXPECT_TRUE(uploader->IsFinished());
  EXPECT_EQ(uploader->GetReply(), nullptr);
}

TEST_F(UploadTransport, NothingIsSentWhenTheRequestCannotBeSetUp) {
  const std::string path = mDir / "u1.log";
  WriteFile(path, "data");
  RawHttpServer server(Reply("Active"));
  for (const auto& [file, url] : std::vector<std::pair<std::string, std::string>>{
           {path, ""}, {mDir / "missing.log", server.Url()}, {mDir.Path(), server.Url()}, {path, "no url here"}}) {
    std::unique_ptr<Uploader> uploader(CreateUploader());
    EXPECT_FALSE(uploader->UploadFile(file, url)) << file << " to " << url;
    EXPECT_TRUE(uploader->IsFinished());
    EXPECT_EQ(uploader->GetReply(), nullptr);
  }
  EXPECT_EQ(server.Connections(), 0);
}

TEST_F(UploadTransport, OnlyTheFirstChunkOfAReplyIsCounted) {
  const std::string path = mDir / "u1.log";
  WriteFile(path, "data");
  // The second piece arrives after a pause, so libcurl hands it over apart.
  Answer split{{{0, "HTTP/1.1 200 OK\r\nContent-Length: 8\r\nConnection: close\r\n\r\nActive"}, {300, "XY"}}, false};
  RawHttpServer server(split);
  std::unique_ptr<Uploader> uploader(CreateUploader());
  EXPECT_TRUE(uploader->UploadFile(path, server.Url()));
  ASSERT_NE(uploader->GetReply(), nullptr);
  EXPECT_EQ(uploader->GetReplyLength(), 6u);
  EXPECT_EQ(std::string(uploader->GetReply(), 8), "ActiveXY");

  // A finished object is not reset by a second upload: the new reply is laid
  // behind the old one, uncounted.
  RawHttpServer second(Reply("Delete"));
  EXPECT_TRUE(uploader->UploadFile(path, second.Url()));
  EXPECT_EQ(uploader->GetReplyLength(), 6u);
  EXPECT_EQ(std::string(uploader->GetReply(), 12), "ActiveDelete");
}

TEST_F(UploadTransport, StopFlagEndsATransferToASilentServer) {
  const std::string path = mDir / "u1.log";
  WriteFile(path, "data");
  RawHttpServer server(Answer{{}, true});
  std::atomic<bool> stop{false};
  std::unique_ptr<Uploader> uploader(CreateUploader());
  uploader->SetStopFlag(&stop);

  std::thread stopper([&stop] {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    stop = true;
  });
  auto start = Clock::now();
  bool result = uploader->UploadFile(path, server.Url());
  auto elapsedMs = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
  stopper.join();

  EXPECT_TRUE(result);
  EXPECT_TRUE(uploader->IsFinished());
  EXPECT_EQ(uploader->GetReply(), nullptr);
  EXPECT_EQ(server.Requests().size(), 1u) << "the request went out before the stop";
  EXPECT_LT(elapsedMs, 5000) << "the transfer hung after the stop request";
}

// tinyproxy in the foreground on a free loopback port, with its configuration
// and log in a private folder.
class TinyProxy {
 public:
  static constexpr const char* kProgram = "/usr/bin/tinyproxy";

  explicit TinyProxy(const TempDir& inDir) {
    mPort = ClosedLoopbackPort();
    const std::string config = inDir / "tinyproxy.conf";
    std::string lines = "User nobody\nGroup nogroup\nListen 127.0.0.1\nAllow 127.0.0.1\n";
    lines += "Port " + std::to_string(mPort) + "\n";
    lines += "LogFile \"" + (inDir / "tinyproxy.log") + "\"\n";
    lines += "PidFile \"" + (inDir / "tinyproxy.pid") + "\"\n";
    WriteFile(config, lines);
    // Running as root, the proxy drops to nobody; its log and pid file live in
    // our private folder, which it must be able to write.
    chmod(inDir.Path().c_str(), 0777);
    mPid = fork();
    if (mPid < 0) throw std::runtime_error("fork failed");
    if (mPid == 0) {
      execl(kProgram, kProgram, "-d", "-c", config.c_str(), static_cast<char*>(nullptr));
      _exit(127);
    }
    auto deadline = Clock::now() + std::chrono::seconds(10);
    while (!Accepting()) {
      if (Clock::now() > deadline) throw std::runtime_error("tinyproxy did not start listening");
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  }
  ~TinyProxy() {
    kill(mPid, SIGTERM);
    int status;
    while (waitpid(mPid, &status, 0) < 0 && errno == EINTR) {
    }
  }
  TinyProxy(const TinyProxy&) = delete;
  TinyProxy& operator=(const TinyProxy&) = delete;

  int Port() const { return mPort; }

 private:
  bool Accepting() const {
    int probe = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(mPort));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bool ok = connect(probe, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    close(probe);
    return ok;
  }

  int mPort = 0;
  pid_t mPid = -1;
};

TEST_F(UploadTransport, ProxyFromTheEnvironmentCarriesTheRequest) {
  if (access(TinyProxy::kProgram, X_OK) != 0) GTEST_SKIP() << "tinyproxy is not installed at " << TinyProxy::kProgram;
  const std::string content = "proxied log line\n";
  const std::string path = mDir / "u7_20080115.log";
  WriteFile(path, content);
  RawHttpServer server(Reply("Hibernate 30"));
  TinyProxy proxy(mDir);

  ScopedEnv noProxy("no_proxy", nullptr);
  ScopedEnv noProxyUpper("NO_PROXY", nullptr);
  ScopedEnv httpProxy("http_proxy", ("http://127.0.0.1:" + std::to_string(proxy.Port())).c_str());
  std::unique_ptr<Uploader> uploader(CreateUploader());
  EXPECT_TRUE(uploader->UploadFile(path, server.Url()));
  ASSERT_NE(uploader->GetReply(), nullptr);
  EXPECT_STREQ(uploader->GetReply(), "Hibernate 30");

  ASSERT_EQ(server.Requests().size(), 1u);
  Request request(server.Requests()[0]);
  std::vector<std::string> via = request.Values("Via");
  ASSERT_EQ(via.size(), 1u) << "the request did not pass the proxy";
  EXPECT_NE(via[0].find("tinyproxy"), std::string::npos) << via[0];
  EXPECT_EQ(request.Values("User-Agent"), std::vector<std::string>{kUserAgentText});
  const std::string boundary =
      request.Values("Content-Type").at(0).substr(std::strlen("multipart/form-data; boundary="));
  EXPECT_EQ(request.body, Uploader_Curl::ComposeMultipartBody(path, content, boundary));
}

TEST_F(UploadTransport, ReferenceReceiverStoresTheFileAndAnswersActive) {
  const char kHead[] = "first line\r\n\0\0binary\xff\r\n--";
  std::string content(kHead, sizeof kHead - 1);
  for (int i = 0; i < 2000; ++i) content += "entry " + std::to_string(i) + "\r\n";
  const std::string path = mDir / "u123_20080115.log";
  WriteFile(path, content);
  TempDir spool("upload-spool");
  ReceiverProcess receiver(spool.Path());

  std::unique_ptr<Uploader> uploader(CreateUploader());
  EXPECT_TRUE(uploader->UploadFile(path, receiver.Url()));
  ASSERT_NE(uploader->GetReply(), nullptr);
  EXPECT_STREQ(uploader->GetReply(), "Active");
  EXPECT_EQ(ReadFile(spool / "u123_20080115.log"), content);
  EXPECT_EQ(receiver.WaitForLines(1), std::vector<std::string>{"kind=u123 file=u123_20080115.log bytes=" +
                                                               std::to_string(content.size()) + " answer=Active"});
}

}  // namespace
