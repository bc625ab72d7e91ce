// The reference receiver's request handling without sockets, two ways,
// chosen by the input's first byte:
//  - raw: the rest is "<Content-Type>\n<body>". ExtractLogFile answers "" or
//    one of its fixed reasons, and on success the content lies inside the
//    body; UploadHandler answers 200 (and stores exactly that content under
//    the name's last component, inside the spool) or 400/500 with a
//    "rejected" line, and never writes outside its spool folder.
//  - agent's form: a body built by the agent's own ComposeMultipartBody from
//    a boundary, a file name and content cut from the input must come back
//    whole: the same name and, byte for byte, the same content.
#include <boost/beast/http/field.hpp>
#include <boost/beast/http/verb.hpp>
#include <cstdint>
#include <filesystem>
#include <set>
#include <string>

#include "FuzzScratch.h"
#include "MultipartExtract.h"
#include "ReplyPolicy.h"
#include "Spool.h"
#include "Uploader_Curl.h"
#include "UploadHandler.h"

namespace fs = std::filesystem;
namespace http = boost::beast::http;

namespace {

const std::set<std::string> kReasons = {
    multipart_error::kNotFormData,       multipart_error::kNoBoundary,     multipart_error::kBoundaryNotFound,
    multipart_error::kTruncatedBody,     multipart_error::kNoClosingDelimiter, multipart_error::kNoLogFilePart,
    multipart_error::kTwoLogFileParts,   multipart_error::kNoFileName};

std::string SpoolFolder() { return ScratchFolder() + "/spool"; }

void CheckHandler(const HttpRequest& inRequest, const std::string& inReason, const LogFileUpload& inUpload) {
  static const Spool spool(SpoolFolder());
  static const ReplyPolicy policy;
  static const UploadHandler handler(spool, policy);

  const HandledRequest handled = handler.Handle(inRequest);
  const unsigned status = handled.response.result_int();

  if (status == 200) {
    FUZZ_CHECK(inReason.empty());
    FUZZ_CHECK(handled.line.rfind("kind=", 0) == 0);
    FUZZ_CHECK(handled.response.body() == "Active");
    const std::string stored = Spool::StoredName(inUpload.fileName);
    FUZZ_CHECK(!stored.empty() && stored.find('/') == std::string::npos);
    FUZZ_CHECK(ReadWholeFile(SpoolFolder() + "/" + stored) == std::string(inUpload.content));
  } else {
    FUZZ_CHECK(status == 400 || status == 500);
    FUZZ_CHECK(handled.line.rfind("rejected status=" + std::to_string(status) + " reason=", 0) == 0);
    FUZZ_CHECK(handled.line.find('\n') == std::string::npos);
    if (!inReason.empty()) FUZZ_CHECK(status == 400 && handled.response.body() == inReason);
  }
  // Nothing but the spool folder may appear beside it, and the spool holds
  // plain files only; emptied for the next input.
  for (const auto& entry : fs::directory_iterator(ScratchFolder())) FUZZ_CHECK(entry.path() == SpoolFolder());
  for (const auto& entry : fs::directory_iterator(SpoolFolder())) {
    FUZZ_CHECK(entry.is_regular_file());
    fs::remove(entry.path());
  }
}

void RawRequest(const std::string& inInput) {
  const size_t lineEnd = inInput.find('\n');
  // A header value as the HTTP parser lets it through: no control bytes
  // other than tab.
  std::string contentType;
  for (char c : inInput.substr(0, lineEnd))
    if (c == '\t' || (static_cast<unsigned char>(c) >= 0x20 && c != 0x7f)) contentType += c;
  const std::string body = lineEnd == std::string::npos ? std::string() : inInput.substr(lineEnd + 1);

  // The handler sees the header value as the request holds it (trailing
  // white space dropped, as an HTTP parser drops it).
  HttpRequest request(http::verb::post, "/upload", 11);
  request.set(http::field::content_type, contentType);
  request.body() = body;
  request.prepare_payload();
  const std::string& heldBody = request.body();

  LogFileUpload upload;
  const auto heldType = request[http::field::content_type];
  const std::string reason = ExtractLogFile(std::string_view(heldType.data(), heldType.size()), heldBody, upload);
  if (reason.empty()) {
    FUZZ_CHECK(upload.content.data() >= heldBody.data());
    FUZZ_CHECK(upload.content.data() + upload.content.size() <= heldBody.data() + heldBody.size());
  } else {
    FUZZ_CHECK(kReasons.count(reason) == 1);
  }
  CheckHandler(request, reason, upload);
}

void AgentFormRequest(const std::string& inInput) {
  if (inInput.empty()) return;
  // 16 to 25 decimal digits, as the agent makes them.
  std::string boundary;
  const size_t length = 16 + static_cast<unsigned char>(inInput[0]) % 10;
  for (size_t i = 0; i < length; ++i)
    boundary += static_cast<char>('0' + (i + 1 < inInput.size() ? static_cast<unsigned char>(inInput[i + 1]) : i) % 10);
  const std::string rest = inInput.size() > length + 1 ? inInput.substr(length + 1) : std::string();
  const size_t nameEnd = rest.find('\n');
  if (nameEnd == std::string::npos) return;
  const std::string name = rest.substr(0, nameEnd);
  const std::string content = rest.substr(nameEnd + 1);
  // Names the agent cannot quote, and content that carries the closing
  // delimiter itself, are outside the form's reach.
  if (name.empty() || name.find_first_of("\"\r\n/") != std::string::npos) return;
  if (content.find("\r\n--" + boundary) != std::string::npos) return;

  const std::string body = Uploader_Curl::ComposeMultipartBody("/logs/" + name, content, boundary);
  LogFileUpload upload;
  const std::string reason = ExtractLogFile("multipart/form-data; boundary=" + boundary, body, upload);
  FUZZ_CHECK(reason.empty());
  FUZZ_CHECK(upload.fileName == name);
  FUZZ_CHECK(upload.content == content);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fs::create_directories(SpoolFolder());
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* inData, size_t inSize) {
  if (inSize == 0) return 0;
  const std::string input(reinterpret_cast<const char*>(inData) + 1, inSize - 1);
  if (inData[0] & 1) {
    AgentFormRequest(input);
  } else {
    RawRequest(input);
  }
  return 0;
}
