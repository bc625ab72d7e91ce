// One request in, one response out: what the receiver does with an upload,
// apart from the network. Kept free of sockets so that tests and fuzzers can
// drive it with requests built in memory.
#ifndef PORVANE_RECEIVER_UPLOADHANDLER_H
#define PORVANE_RECEIVER_UPLOADHANDLER_H

#include <boost/beast/http/message.hpp>
#include <boost/beast/http/status.hpp>
#include <boost/beast/http/string_body.hpp>
#include <string>
#include <string_view>

#include "ReplyPolicy.h"
#include "Spool.h"

using HttpRequest = boost::beast::http::request<boost::beast::http::string_body>;
using HttpResponse = boost::beast::http::response<boost::beast::http::string_body>;

// A response and the line the receiver prints for it (without line end):
//   kind=<kind> file=<file name> bytes=<content bytes> answer=<reply text>
//   rejected status=<http status> reason=<short text>
struct HandledRequest {
  HttpResponse response;
  std::string line;
};

class UploadHandler {
 public:
  // inSpool and inPolicy must remain live while the handler is used.
  UploadHandler(const Spool& inSpool, const ReplyPolicy& inPolicy);

  // A POST of a multipart/form-data body with a "logfile" part is stored in
  // the spool under its file name's last component; the reply is 200,
  // text/plain, its body exactly the policy's answer for the file's kind.
  // Anything else gets 400 (not a POST, not multipart, no boundary, no
  // "logfile" part, malformed body, unusable file name), and a failed write
  // to the spool gets 500; their bodies hold the reason. The response keeps
  // the connection open when the request allows it.
  // Thread-safe: several requests may be handled at once.
  HandledRequest Handle(const HttpRequest& inRequest) const;

  // The response and line for a request that could not even be read whole
  // (inStatus 400 or 413), or for a connection beyond the server's limit
  // (503); the connection is to be closed after it.
  static HandledRequest Reject(boost::beast::http::status inStatus, const std::string& inReason);

 private:
  const Spool& mSpool;
  const ReplyPolicy& mPolicy;
};

// inText with control bytes written as \xNN, so a file name cannot break the
// one-line-per-request output.
std::string PrintableText(std::string_view inText);

#endif  // PORVANE_RECEIVER_UPLOADHANDLER_H
