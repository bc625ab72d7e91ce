// The uploader as the receiver sees it: real libcurl over loopback to a raw
// socket server that records the request bytes, through a real proxy, and
// against the reference receiver.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ChildProcess.h"
#include "RawServer.h"
#include "ReceiverProcess.h"
#include "ScopedEnvironment.h"
#include "TempDir.h"
#include "Uploader.h"
#include "Uploader_Curl.h"

namespace {

const char kUserAgentText[] =
    "Mozilla/5.0 (Macintosh; U; PPC Mac OS X; en-us) AppleWebKit/125.5.5 (KHTML, like Gecko) Safari/125";
const std::string kFormData = "multipart/form-data; boundary=";

// The values of header field inName (in any letter case) of the raw request
// inRaw, in the order sent.
std::vector<std::string> HeaderValues(const std::string& inRaw, const std::string& inName) {
  std::string head = inRaw.substr(0, inRaw.find("\r\n\r\n") + 2), key = "\r\n" + inName + ": ";
  for (std::string* text : {&head, &key})
    for (char& c : *text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  std::vector<std::string> values;
  for (size_t at = head.find(key); at != std::string::npos; at = head.find(key, at + 1)) {
    size_t start = at + key.size();
    values.push_back(inRaw.substr(start, head.find("\r\n", start) - start));
  }
  return values;
}

std::string BodyOf(const std::string& inRaw) { return inRaw.substr(inRaw.find("\r\n\r\n") + 4); }

// A server that reads the request whole and sends inReply.
RawServer::Handler Answer(const std::string& inReply) {
  return [inReply](int inSocket, RawServer& inServer) {
    inServer.ReadRequest(inSocket);
    RawServer::WriteAll(inSocket, inReply);
  };
}

// A loopback port on which nobody listens (any more).
int ClosedPort() {
  RawServer gone(Answer(""));
  return gone.Port();
}

// Loopback tests talk to 127.0.0.1 directly, whatever proxy the machine that
// runs them has configured.
class UploadTransport : public ::testing::Test {
 protected:
  UploadTransport() {
    for (const char* name : {"http_proxy", "all_proxy", "ALL_PROXY"}) mEnvironment.Unset(name);
    WriteFile(mFile, "data");
  }

  ScopedEnvironment mEnvironment;
  TempDir mDir{"upload-transport"};
  const std::string mFile = mDir / "u1.log";
};

TEST_F(UploadTransport, RequestOnTheWireIsThePostWithOurHeadersAndTheBuiltBody) {
  // Over 1 MiB, where libcurl would otherwise ask for 100-continue.
  std::string content;
  for (int i = 0; content.size() < 1536 * 1024; ++i) content += std::string("line\r\n\0", 7) + std::to_string(i);
  const std::string path = mDir / "u123_20080115.log";
  WriteFile(path, content);
  RawServer server(Answer(RawServer::HttpReply("Active")));

  std::unique_ptr<Uploader> uploader(CreateUploader());
  EXPECT_TRUE(uploader->UploadFile(path, server.Url()));
  EXPECT_TRUE(uploader->IsFinished());
  EXPECT_STREQ(uploader->GetReply(), "Active");

  ASSERT_EQ(server.Requests().size(), 1u);
  const std::string raw = server.Requests()[0];
  EXPECT_EQ(raw.substr(0, raw.find("\r\n")), "POST /upload HTTP/1.1");
  EXPECT_EQ(HeaderValues(raw, "User-Agent"), std::vector<std::string>{kUserAgentText});
  std::vector<std::string> contentType = HeaderValues(raw, "Content-Type");
  ASSERT_EQ(contentType.size(), 1u);
  ASSERT_EQ(contentType[0].rfind(kFormData, 0), 0u) << contentType[0];
  const std::string boundary = contentType[0].substr(kFormData.size());
  EXPECT_EQ(BodyOf(raw), Uploader_Curl::ComposeMultipartBody(path, content, boundary));
  EXPECT_EQ(HeaderValues(raw, "Content-Length"), std::vector<std::string>{std::to_string(BodyOf(raw).size())});
  for (const char* absent : {"Expect", "Transfer-Encoding", "Accept-Encoding"})
    EXPECT_TRUE(HeaderValues(raw, absent).empty()) << absent;
}

TEST_F(UploadTransport, AnyEndOfTheExchangeIsTrueAFailedSetUpFalseBothFinished) {
  // An error status does not hide the body; an empty body or a refused
  // connection gives a null reply; a request that cannot be set up is not sent.
  RawServer error(Answer(RawServer::HttpReply("Disabled", 500)));
  RawServer empty(Answer(RawServer::HttpReply("")));
  const std::string refused = "http://127.0.0.1:" + std::to_string(ClosedPort()) + "/upload";
  const struct {
    std::string file, url;
    bool sent;
    const char* reply;
  } kCases[] = {{mFile, error.Url(), true, "Disabled"}, {mFile, empty.Url(), true, nullptr},
                {mFile, refused, true, nullptr}, {mFile, "", false, nullptr}, {mFile, "no url here", false, nullptr},
                {mDir / "missing.log", empty.Url(), false, nullptr}, {mDir.Path(), empty.Url(), false, nullptr}};
  for (const auto& c : kCases) {
    std::unique_ptr<Uploader> uploader(CreateUploader());
    EXPECT_EQ(c.sent, uploader->UploadFile(c.file, c.url)) << c.file << " to " << c.url;
    EXPECT_TRUE(uploader->IsFinished());
    EXPECT_STREQ(uploader->GetReply(), c.reply);
  }
  EXPECT_EQ(empty.Connections(), 1);
}

TEST_F(UploadTransport, LaterUploadersReuseAKeptConnectionOrOpenAFreshOne) {
  // No "Connection: close": the client may keep the connection.
  const std::string kKeptReply = "HTTP/1.1 200 OK\r\nContent-Length: 6\r\n\r\nActive";
  // Answers every request on one connection. A client that opens a second
  // connection meanwhile gets it once no request has come for 3 s, so the
  // count fails instead of the test hanging.
  RawServer keepsAlive([&kKeptReply](int inSocket, RawServer& inServer) {
    for (int waited = 0; waited < 3000 && !inServer.Stopping(); waited += 50) {
      pollfd next{inSocket, POLLIN, 0};
      if (poll(&next, 1, 50) == 0) continue;
      if (inServer.ReadRequest(inSocket).empty() || !RawServer::WriteAll(inSocket, kKeptReply)) return;
      waited = 0;
    }
  });
  RawServer closesAfterReply(Answer(kKeptReply));
  // Closes a kept connection on its next request without answering, as a
  // server whose idle time-out strikes just then: the request must go again.
  RawServer dropsNextRequest([&kKeptReply](int inSocket, RawServer& inServer) {
    inServer.ReadRequest(inSocket);
    RawServer::WriteAll(inSocket, kKeptReply);
    inServer.ReadRequest(inSocket);
  });
  for (RawServer* server : {&keepsAlive, &closesAfterReply, &dropsNextRequest}) {
    for (int i = 0; i < 2; ++i) {
      std::unique_ptr<Uploader> uploader(CreateUploader());
      EXPECT_TRUE(uploader->UploadFile(mFile, server->Url()));
      EXPECT_STREQ(uploader->GetReply(), "Active") << server->Port() << " upload " << i;
    }
  }
  EXPECT_EQ(keepsAlive.Connections(), 1);
  EXPECT_EQ(closesAfterReply.Connections(), 2);
  EXPECT_EQ(dropsNextRequest.Connections(), 2);
  const std::vector<std::string> dropped = dropsNextRequest.Requests();
  ASSERT_GE(dropped.size(), 3u);
  EXPECT_EQ(dropped[2], dropped[1]) << "the request sent again differs from the one the server dropped";
}

TEST_F(UploadTransport, OnlyTheFirstChunkOfAReplyIsCounted) {
  // The second piece comes after a pause, so libcurl hands it over apart.
  RawServer split([](int inSocket, RawServer& inServer) {
    inServer.ReadRequest(inSocket);
    RawServer::WriteAll(inSocket, "HTTP/1.1 200 OK\r\nContent-Length: 8\r\nConnection: close\r\n\r\nActive");
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    RawServer::WriteAll(inSocket, "XY");
  });
  std::unique_ptr<Uploader> uploader(CreateUploader());
  EXPECT_TRUE(uploader->UploadFile(mFile, split.Url()));
  ASSERT_NE(uploader->GetReply(), nullptr);
  EXPECT_EQ(uploader->GetReplyLength(), 6u);
  EXPECT_EQ(std::string(uploader->GetReply(), 8), "ActiveXY");

  // A finished object is not reset by a second upload: the new reply is laid
  // behind the old one, uncounted.
  RawServer second(Answer(RawServer::HttpReply("Delete")));
  EXPECT_TRUE(uploader->UploadFile(mFile, second.Url()));
  EXPECT_EQ(uploader->GetReplyLength(), 6u);
  EXPECT_EQ(std::string(uploader->GetReply(), 12), "ActiveDelete");
}

TEST_F(UploadTransport, StopFlagEndsATransferToASilentServer) {
  // Silent until the client gives up, or 10 s pass: a client that ignores its
  // stop flag then fails the test instead of hanging it.
  RawServer silent([](int inSocket, RawServer& inServer) {
    inServer.ReadRequest(inSocket);
    pollfd closed{inSocket, POLLIN, 0};
    poll(&closed, 1, 10000);
  });
  std::atomic<bool> stop{false};
  std::unique_ptr<Uploader> uploader(CreateUploader());
  uploader->SetStopFlag(&stop);
  std::thread stopper([&stop] {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    stop = true;
  });
  auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(uploader->UploadFile(mFile, silent.Url()));
  auto elapsed = std::chrono::steady_clock::now() - start;
  stopper.join();
  EXPECT_TRUE(uploader->IsFinished());
  EXPECT_EQ(uploader->GetReply(), nullptr);
  EXPECT_EQ(silent.Requests().size(), 1u) << "the request went out before the stop";
  EXPECT_LT(elapsed, std::chrono::seconds(5)) << "the transfer hung after the stop request";
}

TEST_F(UploadTransport, ProxyFromTheEnvironmentCarriesTheRequest) {
  const char kTinyProxy[] = "/usr/bin/tinyproxy";
  if (access(kTinyProxy, X_OK) != 0) GTEST_SKIP() << "tinyproxy is not installed at " << kTinyProxy;
  RawServer server(Answer(RawServer::HttpReply("Hibernate 30")));
  // Running as root, the proxy drops to nobody; its log and pid file live in
  // our private folder, which it must be able to write.
  const int port = ClosedPort();
  WriteFile(mDir / "tinyproxy.conf", "User nobody\nGroup nogroup\nListen 127.0.0.1\nAllow 127.0.0.1\nPort " +
                                         std::to_string(port) + "\nLogFile \"" + mDir / "tinyproxy.log" +
                                         "\"\nPidFile \"" + mDir / "tinyproxy.pid" + "\"\n");
  chmod(mDir.Path().c_str(), 0777);
  ChildProcess proxy({kTinyProxy, "-d", "-c", mDir / "tinyproxy.conf"}, {}, mDir.Path());
  int probe;
  for (int waited = 0; (probe = RawServer::ConnectLoopback(port)) < 0; waited += 20) {
    ASSERT_LT(waited, 10000) << "tinyproxy did not start listening: " << proxy.Stderr();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  close(probe);

  mEnvironment.Unset("no_proxy");
  mEnvironment.Unset("NO_PROXY");
  mEnvironment.Set("http_proxy", "http://127.0.0.1:" + std::to_string(port));
  std::unique_ptr<Uploader> uploader(CreateUploader());
  EXPECT_TRUE(uploader->UploadFile(mFile, server.Url()));
  EXPECT_STREQ(uploader->GetReply(), "Hibernate 30");
  ASSERT_EQ(server.Requests().size(), 1u);
  std::vector<std::string> via = HeaderValues(server.Requests()[0], "Via");
  ASSERT_EQ(via.size(), 1u) << "the request did not pass the proxy";
  EXPECT_NE(via[0].find("tinyproxy"), std::string::npos) << via[0];
}

TEST_F(UploadTransport, ReferenceReceiverStoresTheFileAndAnswersActive) {
  const std::string content = std::string("first line\r\n\0\0binary\xff\r\n--", 25) + std::string(30000, 'e');
  const std::string path = mDir / "u123_20080115.log";
  WriteFile(path, content);
  TempDir spool("upload-spool");
  ReceiverProcess receiver(spool.Path());

  std::unique_ptr<Uploader> uploader(CreateUploader());
  EXPECT_TRUE(uploader->UploadFile(path, receiver.Url()));
  EXPECT_STREQ(uploader->GetReply(), "Active");
  EXPECT_EQ(ReadFile(spool / "u123_20080115.log"), content);
  EXPECT_EQ(receiver.WaitForLines(1), std::vector<std::string>{"kind=u123 file=u123_20080115.log bytes=" +
                                                               std::to_string(content.size()) + " answer=Active"});
}

}  // namespace
