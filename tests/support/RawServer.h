// A loopback TCP server for tests that need a peer misbehaving on purpose:
// each accepted connection is handed to the test's handler on the server's
// thread, one connection at a time.
#ifndef PORVANE_TESTS_SUPPORT_RAWSERVER_H
#define PORVANE_TESTS_SUPPORT_RAWSERVER_H

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

class RawServer {
 public:
  // Handles one connection; the server closes the socket after it returns.
  using Handler = std::function<void(int inSocket, RawServer& inServer)>;

  // Listens on 127.0.0.1 on a free port and starts accepting.
  explicit RawServer(Handler inHandler);
  // Stops accepting, ends a handler blocked in ReadRequest/WaitUntilStopped
  // and joins the thread.
  ~RawServer();
  RawServer(const RawServer&) = delete;
  RawServer& operator=(const RawServer&) = delete;

  int Port() const { return mPort; }
  std::string Url(const std::string& inPath = "/upload") const;
  int Connections() const { return mConnections.load(); }
  bool Stopping() const { return mStopping.load(); }

  // Reads one HTTP request (headers and a Content-Length body) from inSocket;
  // returns what arrived (possibly partial when the peer closed or the server
  // is stopping). Also appended to Requests().
  std::string ReadRequest(int inSocket);
  // Blocks until the server stops or the peer closes inSocket.
  void WaitUntilStoppedOrClosed(int inSocket);
  // Writes all of inData; false when the peer is gone.
  static bool WriteAll(int inSocket, const std::string& inData);
  // "HTTP/1.1 200 OK" with Content-Length and Connection: close.
  static std::string HttpReply(const std::string& inBody, int inStatus = 200);
  // A client socket connected to 127.0.0.1:inPort, owned by the caller (who
  // closes it); -1 when nothing accepts there.
  static int ConnectLoopback(int inPort);

  std::vector<std::string> Requests();

 private:
  void AcceptLoop();

  Handler mHandler;
  int mListener = -1;
  int mPort = 0;
  std::atomic<bool> mStopping{false};
  std::atomic<int> mConnections{0};
  std::mutex mMutex;
  std::vector<std::string> mRequests;
  std::thread mThread;
};

#endif  // PORVANE_TESTS_SUPPORT_RAWSERVER_H
