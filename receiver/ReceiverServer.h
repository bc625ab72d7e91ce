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
  // Connections served at once; more are answered 503 (over TLS: closed)
  // at once. Each costs a descriptor and a few KiB, 128 KiB while a body is
  // read, not a thread.
  static constexpr int kMaxConnections = 1000;
  // A connection that has sent a request's headers may then wait this long
  // for each piece of a body, for its next request, and for a response to
  // be taken; before its first headers the options' header time-out holds.
  static constexpr std::chrono::seconds kIdleTimeout{60};

  // The certificate or key of inOptions cannot be used; what() is a
  // one-line message naming the file.
  struct CredentialsError : std::runtime_error {
    using std::runtime_error::runtime_error;
  };

  // Loads inOptions' certificate and key when it names them, then binds
  // inOptions.listenAddress (valid, as ParseReceiverOptions checks) and
  // inOptions.port (0: a free one) and starts listening. Answers wait
  // inOptions.delayMs after the request has been handled; the header
  // time-out, the per-address limit and the body limit come from inOptions
  // too. inHandler and inPrinter must outlive the server. Throws
  // CredentialsError, or boost::system::system_error when the address cannot
  // be bound.
  ReceiverServer(const UploadHandler& inHandler, LinePrinter& inPrinter, const ReceiverOptions& inOptions);
  ~ReceiverServer();
  ReceiverServer(const ReceiverServer&) = delete;
  ReceiverServer& operator=(const ReceiverServer&) = delete;

  // The address and port listened on as a URL writes them: "127.0.0.1:8080",
  // "[::1]:8080".
  std::string Endpoint() const;

  // Serves until SIGTERM or SIGINT arrives, then drops the open connections
  // and returns. The signals are caught from construction on. Sockets are
  // served by a few threads that never touch the disk; uploads are written,
  // placed and checked against the user file by threads of their own, so a
  // slow disk or a large upload holds up no other connection. A TLS
  // handshake that fails (a client refusing the certificate, a plain HTTP
  // client), or a request that meets an exception such as std::bad_alloc,
  // is printed as "rejected status=0 reason=..." and ends only that
  // connection.
  void Run();

 private:
  struct Impl;
  std::unique_ptr<Impl> mImpl;
};

#endif  // PORVANE_RECEIVER_RECEIVERSERVER_H
