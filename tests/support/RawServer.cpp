#include "RawServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>

RawServer::RawServer(Handler inHandler) : mHandler(std::move(inHandler)) {
  mListener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (bind(mListener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || listen(mListener, 16) != 0 ||
      getsockname(mListener, reinterpret_cast<sockaddr*>(&address), &length) != 0)
    throw std::runtime_error("cannot listen on loopback");
  mPort = ntohs(address.sin_port);
  mThread = std::thread([this] {
    for (int client; (client = accept4(mListener, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
      mClient = client;
      if (!mStopping) mHandler(*this, client);
      mClient = -1;
      close(client);
    }
  });
}

RawServer::~RawServer() {
  mStopping = true;
  shutdown(mListener, SHUT_RDWR);  // ends accept
  const int client = mClient.load();
  if (client >= 0) shutdown(client, SHUT_RDWR);  // ends a blocked read
  mThread.join();
  close(mListener);
}

std::string RawServer::Url(const std::string& inPath) const {
  return "http://127.0.0.1:" + std::to_string(mPort) + inPath;
}

std::vector<std::string> RawServer::Requests() {
  std::lock_guard<std::mutex> guard(mMutex);
  return mRequests;
}

std::string RawServer::ReadRequest(int inSocket) {
  std::string data;
  size_t wanted = std::string::npos;
  char chunk[65536];
  for (ssize_t got; data.size() < wanted && (got = recv(inSocket, chunk, sizeof chunk, 0)) > 0;) {
    data.append(chunk, static_cast<size_t>(got));
    const size_t end = data.find("\r\n\r\n");
    const size_t length = data.find("Content-Length: ");
    if (wanted == std::string::npos && end != std::string::npos)
      wanted = end + 4 + (length < end ? std::strtoul(data.c_str() + length + 16, nullptr, 10) : 0);
  }
  std::lock_guard<std::mutex> guard(mMutex);
  if (!data.empty()) mRequests.push_back(data);
  return data;
}

void RawServer::Send(int inSocket, const std::string& inData) {
  // The tests' replies are small: loopback takes each in one call.
  (void)send(inSocket, inData.data(), inData.size(), MSG_NOSIGNAL);
}

std::string RawServer::Reply(const std::string& inBody, int inStatus) {
  return "HTTP/1.1 " + std::to_string(inStatus) + " Whatever\r\nContent-Length: " + std::to_string(inBody.size()) +
         "\r\nConnection: close\r\n\r\n" + inBody;
}
