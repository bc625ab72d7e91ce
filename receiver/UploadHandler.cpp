#include "UploadHandler.h"

#include <boost/beast/core/string.hpp>
#include <boost/beast/http/field.hpp>
#include <boost/beast/http/rfc7230.hpp>
#include <boost/beast/http/verb.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "BasicAuth.h"
#include "LogKind.h"
#include "ReplyPolicy.h"

namespace http = boost::beast::http;

const char* const kAgentUserAgent =
    "Mozilla/5.0 (Macintosh; U; PPC Mac OS X; en-us) AppleWebKit/125.5.5 (KHTML, like Gecko) Safari/125";

namespace {

// Bytes of a file name an error reply quotes: a name of any length must not
// make a long reply.
constexpr size_t kQuotedNameBytes = 200;

HttpResponse TextResponse(http::status inStatus, unsigned inVersion, bool inKeepAlive, const std::string& inText) {
  HttpResponse response(inStatus, inVersion);
  response.set(http::field::server, "porvane-receiver");
  response.set(http::field::content_type, "text/plain");
  response.keep_alive(inKeepAlive);
  response.body() = inText;
  response.prepare_payload();
  return response;
}

HandledRequest Rejected(http::status inStatus, unsigned inVersion, bool inKeepAlive, const std::string& inReason) {
  return {TextResponse(inStatus, inVersion, inKeepAlive, inReason),
          "rejected status=" + std::to_string(static_cast<unsigned>(inStatus)) + " reason=" + PrintableText(inReason)};
}

std::string Quoted(const std::string& inName) {
  if (inName.size() <= kQuotedNameBytes) return "\"" + inName + "\"";
  return "\"" + inName.substr(0, kQuotedNameBytes) + "\"...";
}

// Whether the client lets the connection stay open after the answer.
bool KeepAlive(const RequestHeader& inHeader) {
  bool close = false, keep = false;
  for (const auto& token : http::token_list(inHeader[http::field::connection])) {
    close = close || boost::beast::iequals(token, "close");
    keep = keep || boost::beast::iequals(token, "keep-alive");
  }
  return inHeader.version() >= 11 ? !close : keep;
}

// The agent writes a '"', CR and LF of a name as %22, %0D and %0A, as
// browsers do; every other byte, '%' included, comes raw.
std::string Unescaped(const std::string& inName) {
  std::string name;
  for (size_t i = 0; i < inName.size(); ++i) {
    const std::string_view escape = std::string_view(inName).substr(i, 3);
    const char byte = escape == "%22" ? '"' : escape == "%0D" ? '\r' : escape == "%0A" ? '\n' : 0;
    name += byte != 0 ? byte : inName[i];
    if (byte != 0) i += 2;
  }
  return name;
}

}  // namespace

std::string PrintableText(std::string_view inText) {
  std::string printable;
  printable.reserve(inText.size());
  for (char c : inText) {
    unsigned char byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7f) {
      char escaped[5];
      std::snprintf(escaped, sizeof escaped, "\\x%02x", byte);
      printable += escaped;
    } else {
      printable += c;
    }
  }
  return printable;
}

UploadHandler::UploadHandler(Spool& inSpool, const ReplyPolicy& inPolicy, const BasicAuth* inAuth)
    : mSpool(inSpool), mPolicy(inPolicy), mAuth(inAuth) {}

HandledRequest UploadHandler::Reject(http::status inStatus, const std::string& inReason) {
  return Rejected(inStatus, 11, false, inReason);
}

std::unique_ptr<Upload> UploadHandler::Begin(const RequestHeader& inHeader, HandledRequest& outAnswer) const {
  if (mAuth != nullptr) {
    const boost::beast::string_view credentials = inHeader[http::field::authorization];
    if (!mAuth->Allows(std::string_view(credentials.data(), credentials.size()))) {
      outAnswer = Rejected(http::status::unauthorized, inHeader.version(), false, "unauthorized");
      outAnswer.response.set(http::field::www_authenticate, std::string("Basic realm=\"") + BasicAuth::kRealm + "\"");
      return nullptr;
    }
  }
  return std::unique_ptr<Upload>(new Upload(mSpool, mPolicy, inHeader));
}

Upload::Upload(Spool& inSpool, const ReplyPolicy& inPolicy, const RequestHeader& inHeader)
    : mSpool(inSpool),
      mPolicy(inPolicy),
      mVersion(inHeader.version()),
      mKeepAlive(KeepAlive(inHeader)),
      mFromAgent(inHeader[http::field::user_agent] == kAgentUserAgent),
      mRefusal(inHeader.method() == http::verb::post ? "" : "not a POST"),
      mReader([&] {
        const boost::beast::string_view type = inHeader[http::field::content_type];
        return std::string_view(type.data(), type.size());
      }()) {}

int Upload::Sink(std::string_view inContent) {
  int error = 0;
  if (!mFile) mFile = mSpool.Open(error);
  return mFile ? mFile->Write(inContent) : error;
}

bool Upload::Feed(std::string_view inPiece) {
  if (!mRefusal.empty()) return true;  // read to its end, then refused
  mReader.Feed(inPiece, [this](std::string_view inContent) { return Sink(inContent); });
  mEndedEarly = mReader.SinkError() != 0;
  return !mEndedEarly;
}

HandledRequest Upload::Failed(http::status inStatus, const std::string& inReason) const {
  return Rejected(inStatus, mVersion, mKeepAlive && !mEndedEarly, inReason);
}

HandledRequest Upload::Finish() {
  if (!mRefusal.empty()) return Failed(http::status::bad_request, mRefusal);
  const auto sink = [this](std::string_view inContent) { return Sink(inContent); };
  const std::string reason = mEndedEarly ? std::string() : mReader.Finish(sink);
  const std::string name = Unescaped(mReader.FileName());
  int error = mReader.SinkError();
  if (error == 0 && !reason.empty()) return Failed(http::status::bad_request, reason);

  const std::string storedName = Spool::StoredName(name);
  if (error == 0 && storedName.empty()) return Failed(http::status::bad_request, "bad file name " + Quoted(name));
  if (error == 0 && !mFile) mFile = mSpool.Open(error);  // an empty file
  if (error == 0 && mFromAgent && mReader.ContentEndsInCrLf()) error = mFile->DropTail(2);
  std::string placedName;
  if (error == 0) error = mSpool.Place(*mFile, storedName, placedName);
  if (error != 0) {
    mFile.reset();
    const bool full = error == EDQUOT || error == ENOSPC;
    return Failed(full ? http::status::insufficient_storage : http::status::internal_server_error,
                  "cannot store " + Quoted(storedName.empty() ? name : storedName) + ": " +
                      (error == EDQUOT ? "spool full" : std::strerror(error)));
  }

  const std::string kind = LogKindOf(storedName);
  const std::string answer = mPolicy.AnswerFor(kind);
  return {TextResponse(http::status::ok, mVersion, mKeepAlive, answer),
          "kind=" + PrintableText(kind) + " file=" + PrintableText(placedName) +
              " bytes=" + std::to_string(mFile->Size()) + " answer=" + PrintableText(answer)};
}
