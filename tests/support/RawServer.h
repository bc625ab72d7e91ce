// A loopback HTTP peer that misbehaves on purpose: every connection goes to
// the test's handler, on the server's thread, one at a time.
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
  // Handles one connection; the socket is closed after it returns.
  using Handler = std::function<void(RawServer& inServer, int inSocket)>;

  // Listens on a free port of 127.0.0.1.
  explicit RawServer(Handler inHandler);
  // Stops: a handler blocked in ReadRequest sees the end of its peer.
  ~RawServer();
  RawServer(const RawServer&) = delete;
  RawServer& operator=(const RawServer&) = delete;

  int Port() const { return mPort; }
  std::string Url(const std::string& inPath = "/upload") const;
  // Every request ReadRequest has read so far.
  std::vector<std::string> Requests();

  // Reads one request, headers and a Content-Length body; less when the
  // peer closes first or the server stops (then "" for a further call).
  std::string ReadRequest(int inSocket);
  // Sends inData, a few kilobytes at most (ignoring a peer that is gone).
  static void Send(int inSocket, const std::string& inData);
  // A whole reply with status inStatus and body inBody; the connection closes.
  static std::string Reply(const std::string& inBody, int inStatus = 200);

 private:
  Handler mHandler;
  int mListener = -1;
  int mPort = 0;
  std::atomic<int> mClient{-1};
  std::atomic<bool> mStopping{false};
  std::mutex mMutex;
  std::vector<std::string> mRequests;
  std::thread mThread;
};

#endif  // PORVANE_TESTS_SUPPORT_RAWSERVER_H
