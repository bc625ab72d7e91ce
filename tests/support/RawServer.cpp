#include "RawServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <stdexcept>

namespace {

// Polls inSocket for input in short slices so a stopping server is noticed.
// Returns >0 when readable, 0 when stopping.
int WaitReadable(int inSocket, const std::atomic<bool>& inStopping) {
  while (!inStopping.load()) {
    pollfd pfd{inSocket, POLLIN, 0};
    int r = poll(&pfd, 1, 50);
    if (r > 0) return r;
    if (r < 0 && errno != EINTR) return -1;
  }
  return 0;
}

size_t ContentLength(const std::string& inHeaders) {
  for (const char* name : {"\r\nContent-Length:", "\r\ncontent-length:"}) {
    auto pos = inHeaders.find(name);
    if (pos != std::string::npos) return std::strtoul(inHeaders.c_str() + pos + std::string(name).size(), nullptr, 10);
  }
  return 0;
}

}  // namespace

RawServer::RawServer(Handler inHandler) : mHandler(std::move(inHandler)) {
  mListener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (mListener < 0) throw std::runtime_error("socket failed");
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = 0;
  socklen_t len = sizeof addr;
  if (bind(mListener, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || listen(mListener, 16) != 0 ||
      getsockname(mListener, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
    close(mListener);
    throw std::runtime_error("bind/listen failed");
  }
  mPort = ntohs(addr.sin_port);
  mThread = std::thread([this] { AcceptLoop(); });
}

RawServer::~RawServer() {
  mStopping = true;
  mThread.join();
  close(mListener);
}

std::string RawServer::Url(const std::string& inPath) const {
  return "http://127.0.0.1:" + std::to_string(mPort) + inPath;
}

void RawServer::AcceptLoop() {
  while (WaitReadable(mListener, mStopping) > 0) {
    int client = accept4(mListener, nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0) continue;
    ++mConnections;
    mHandler(client, *this);
    close(client);
  }
}

std::string RawServer::ReadRequest(int inSocket) {
  std::string data;
  size_t wanted = std::string::npos;
  while (data.size() < wanted && WaitReadable(inSocket, mStopping) > 0) {
    char chunk[65536];
    ssize_t got = recv(inSocket, chunk, sizeof chunk, 0);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    data.append(chunk, static_cast<size_t>(got));
    auto end = data.find("\r\n\r\n");
    if (wanted == std::string::npos && end != std::string::npos) wanted = end + 4 + ContentLength(data.substr(0, end));
  }
  std::lock_guard<std::mutex> guard(mMutex);
  mRequests.push_back(data);
  return data;
}

void RawServer::WaitUntilStoppedOrClosed(int inSocket) {
  while (WaitReadable(inSocket, mStopping) > 0) {
    char chunk[4096];
    ssize_t got = recv(inSocket, chunk, sizeof chunk, 0);
    if (got == 0 || (got < 0 && errno != EINTR)) return;
  }
}

bool RawServer::WriteAll(int inSocket, const std::string& inData) {
  size_t sent = 0;
  while (sent < inData.size()) {
    ssize_t n = send(inSocket, inData.data() + sent, inData.size() - sent, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    sent += static_cast<size_t>(n);
  }
  return true;
}

std::string RawServer::HttpReply(const std::string& inBody, int inStatus) {
  return "HTTP/1.1 " + std::to_string(inStatus) + (inStatus == 200 ? " OK" : " Error") +
         "\r\nContent-Type: text/plain\r\nContent-Length: " + std::to_string(inBody.size()) +
         "\r\nConnection: close\r\n\r\n" + inBody;
}

int RawServer::ConnectLoopback(int inPort) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = htons(static_cast<uint16_t>(inPort));
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    close(fd);
    fd = -1;
  }
  return fd;
}

std::vector<std::string> RawServer::Requests() {
  std::lock_guard<std::mutex> guard(mMutex);
  return mRequests;
}
