#include "UploadHandler.h"

#include <boost/beast/http/field.hpp>
#include <boost/beast/http/verb.hpp>
#include <cstdio>
#include <cstring>

#include "MultipartExtract.h"

namespace http = boost::beast::http;

namespace {

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

UploadHandler::UploadHandler(const Spool& inSpool, const ReplyPolicy& inPolicy)
    : mSpool(inSpool), mPolicy(inPolicy) {}

HandledRequest UploadHandler::Reject(http::status inStatus, const std::string& inReason) {
  return Rejected(inStatus, 11, false, inReason);
}

HandledRequest UploadHandler::Handle(const HttpRequest& inRequest) const {
  const unsigned version = inRequest.version();
  const bool keepAlive = inRequest.keep_alive();
  if (inRequest.method() != http::verb::post)
    return Rejected(http::status::bad_request, version, keepAlive, "not a POST");

  LogFileUpload upload;
  boost::beast::string_view contentType = inRequest[http::field::content_type];
  std::string reason =
      ExtractLogFile(std::string_view(contentType.data(), contentType.size()), inRequest.body(), upload);
  if (!reason.empty()) return Rejected(http::status::bad_request, version, keepAlive, reason);

  std::string name = Spool::StoredName(upload.fileName);
  if (name.empty())
    return Rejected(http::status::bad_request, version, keepAlive, "bad file name \"" + upload.fileName + "\"");
  if (int error = mSpool.Store(name, upload.content))
    return Rejected(http::status::internal_server_error, version, keepAlive,
                    "cannot store " + name + ": " + std::strerror(error));

  std::string kind = LogKind(name);
  std::string answer = mPolicy.AnswerFor(kind);
  return {TextResponse(http::status::ok, version, keepAlive, answer),
          "kind=" + PrintableText(kind) + " file=" + PrintableText(name) +
              " bytes=" + std::to_string(upload.content.size()) + " answer=" + PrintableText(answer)};
}
