// What the receiver does with an upload, apart from the network: the
// request's headers are judged, its body is fed in as it arrives and
// streamed to the spool, and its end gives the response. Kept free of
// sockets so that tests and fuzzers can drive it with requests built in
// memory.
#ifndef PORVANE_RECEIVER_UPLOADHANDLER_H
#define PORVANE_RECEIVER_UPLOADHANDLER_H

#include <boost/beast/http/message.hpp>
#include <boost/beast/http/status.hpp>
#include <boost/beast/http/string_body.hpp>
#include <memory>
#include <string>
#include <string_view>

#include "MultipartReader.h"
#include "Spool.h"

class BasicAuth;
class ReplyPolicy;

using RequestHeader = boost::beast::http::request_header<>;
using HttpResponse = boost::beast::http::response<boost::beast::http::string_body>;

// The User-Agent the agent sends, the same on every machine. Together with
// a CR LF at the end of the part's content it marks the agent's closing
// form, whose last CR LF is not the file's.
extern const char* const kAgentUserAgent;

// A response and the line the receiver prints for it (without line end):
//   kind=<kind> file=<stored name> bytes=<stored bytes> answer=<reply text>
//   rejected status=<http status> reason=<short text>
struct HandledRequest {
  HttpResponse response;
  std::string line;
};

// One request whose headers were accepted, its body being read. Used by
// one thread at a time.
class Upload {
 public:
  // Reads the next piece of the body. Returns false when the answer is
  // known before the body's end (the spool is full or cannot be written):
  // call Finish at once; its response then closes the connection.
  bool Feed(std::string_view inPiece);

  // The body is over (or Feed returned false). A POST of a
  // multipart/form-data body with a "logfile" part is placed in the spool
  // under its file name's last component, its escapes %22, %0D and %0A
  // turned back into the bytes they stand for, and its last CR LF dropped
  // when the request is the agent's (kAgentUserAgent, and the content ends
  // in CR LF); the reply is 200, text/plain, exactly the policy's answer for
  // the file's kind (LogKindOf). Otherwise 400 (not a POST, not multipart,
  // malformed body, unusable name), 507 (the spool's limit or a full disk),
  // or 500 (another failure to write); nothing is left in the spool then.
  // Replies quote at most 200 bytes of a name.
  HandledRequest Finish();

 private:
  friend class UploadHandler;
  Upload(Spool& inSpool, const ReplyPolicy& inPolicy, const RequestHeader& inHeader);
  int Sink(std::string_view inContent);
  HandledRequest Failed(boost::beast::http::status inStatus, const std::string& inReason) const;

  Spool& mSpool;
  const ReplyPolicy& mPolicy;
  unsigned mVersion;
  bool mKeepAlive;
  bool mFromAgent;
  std::string mRefusal;  // a reason known from the headers
  MultipartReader mReader;
  std::unique_ptr<Spool::Incoming> mFile;
  bool mEndedEarly = false;
};

class UploadHandler {
 public:
  // inSpool and inPolicy, and inAuth unless null (anyone may upload then),
  // must remain live while the handler and its uploads are used.
  UploadHandler(Spool& inSpool, const ReplyPolicy& inPolicy, const BasicAuth* inAuth);

  // Judges a request's headers. Returns the upload to feed the body to, or
  // null with outAnswer set when the answer needs no body: 401 for missing
  // or wrong credentials; the connection is to be closed after it.
  // Thread-safe: several requests may be handled at once.
  std::unique_ptr<Upload> Begin(const RequestHeader& inHeader, HandledRequest& outAnswer) const;

  // The response and line for a request that could not even be read whole
  // (inStatus 400 or 413), or a connection refused before its request (503);
  // the connection is to be closed after it.
  static HandledRequest Reject(boost::beast::http::status inStatus, const std::string& inReason);

 private:
  Spool& mSpool;
  const ReplyPolicy& mPolicy;
  const BasicAuth* mAuth;
};

// inText with control bytes written as \xNN, so a file name cannot break the
// one-line-per-request output.
std::string PrintableText(std::string_view inText);

#endif  // PORVANE_RECEIVER_UPLOADHANDLER_H
