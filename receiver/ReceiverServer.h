// The receiver's network side: HTTP/1.1, or HTTPS with a certificate, on one
// address and port, any number of requests per connection, connections
// served concurrently.
#ifndef PORVANE_RECEIVER_RECEIVERSERVER_H
#define PORVANE_RECEIVER_RECEIVERSERVER_H

#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>

#include "ReceiverOptions.h"

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
  // A connection that sends nothing for this long, or whose handshake,
  // request or response takes longer, is closed.
  static constexpr std::chrono::seconds kIdleTimeout{60};

  // The certificate or key of inOptions cannot be used; what() is a
  // one-line message naming the file.
  struct CredentialsError : std::runtime_error {
    using std::runtime_error::runtime_error;
  };

  // Loads inOptions' certificate and key when it names them, then binds
  // inOptions.listenAddress (valid, as ParseReceiverOptions checks) and
  // inOptions.port (0: a free one) and starts listening. Answers wait
  // inOptions.delayMs after the request has been handled. inHandler and
  // inPrinter must outlive the server. Throws CredentialsError, or
  // boost::system::system_error when the address cannot be bound.
  ReceiverServer(const UploadHandler& inHandler, LinePrinter& inPrinter, const ReceiverOptions& inOptions);
  ~ReceiverServer();
  ReceiverServer(const ReceiverServer&) = delete;
  ReceiverServer& operator=(const ReceiverServer&) = delete;

  // The address and port listened on as a URL writes them: "127.0.0.1:8080",
  // "[::1]:8080".
  std::string Endpoint() const;

  // Serves until SIGTERM or SIGINT arrives, then drops the open connections
  // and returns. The signals are caught from construction on. A TLS
  // handshake that fails (a client refusing the certificate, a plain HTTP
  // client) is printed as "rejected status=0 reason=..." and only ends
  // that connection.
  void Run();

 private:
  struct Impl;
  std::unique_ptr<Impl> mImpl;
};

#endif  // PORVANE_RECEIVER_RECEIVERSERVER_H
