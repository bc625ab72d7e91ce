// The receiver's network side: HTTP/1.1 on a loopback port, any number of
// requests per connection, connections served concurrently.
#ifndef PORVANE_RECEIVER_RECEIVERSERVER_H
#define PORVANE_RECEIVER_RECEIVERSERVER_H

#include <chrono>
#include <memory>

class LinePrinter;
class UploadHandler;

class ReceiverServer {
 public:
  // Largest request body read; larger requests get 413. Big enough for log
  // files far beyond what the agent keeps (64 MiB and more).
  static constexpr unsigned long long kMaxBodyBytes = 1ull << 30;
  // Connections served at once; more are answered 503 and closed. Each
  // costs a descriptor and a 64 KiB read buffer, not a thread.
  static constexpr int kMaxConnections = 1000;
  // A connection that sends nothing for this long, or whose request or
  // response takes longer, is closed.
  static constexpr std::chrono::seconds kIdleTimeout{60};

  // Binds 127.0.0.1:inPort (0: a free port) and starts listening. Answers
  // wait inAnswerDelay after the request has been handled. inHandler and
  // inPrinter must outlive the server. Throws boost::system::system_error
  // when the port cannot be bound.
  ReceiverServer(const UploadHandler& inHandler, LinePrinter& inPrinter, int inPort,
                 std::chrono::milliseconds inAnswerDelay);
  ~ReceiverServer();
  ReceiverServer(const ReceiverServer&) = delete;
  ReceiverServer& operator=(const ReceiverServer&) = delete;

  // The port listened on.
  int Port() const;

  // Serves until SIGTERM or SIGINT arrives, then drops the open connections
  // and returns. The signals are caught from construction on.
  void Run();

 private:
  struct Impl;
  std::unique_ptr<Impl> mImpl;
};

#endif  // PORVANE_RECEIVER_RECEIVERSERVER_H
