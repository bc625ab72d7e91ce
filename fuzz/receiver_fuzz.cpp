// An upload over arbitrary requests built in memory, the input being
// "<Content-Type>\n<body>", the body fed in pieces whose size the first byte
// of the body picks and sent as the agent sends it: it answers 200 having
// stored exactly one file in the spool and nothing beside it, or 400/500
// having left nothing behind, and its line is one line of the documented form.
#include <cstdlib>
#include <filesystem>
#include <string>

#include "ReplyPolicy.h"
#include "UploadHandler.h"

namespace fs = std::filesystem;

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* inData, size_t inSize) {
  static std::string scratch = fs::temp_directory_path() / "porvane-receiver-fuzz-XXXXXX";
  static const bool ready = ::mkdtemp(scratch.data()) != nullptr && std::atexit([] { fs::remove_all(scratch); }) == 0;
  static Spool spool(scratch + "/spool", 0);
  static const ReplyPolicy policy;
  static const UploadHandler handler(spool, policy, nullptr);
  const std::string input(reinterpret_cast<const char*>(inData), inSize);
  const size_t cut = std::min(input.find('\n'), inSize);
  const std::string body = cut < inSize ? input.substr(cut + 1) : "";
  RequestHeader header;
  header.method(boost::beast::http::verb::post);
  header.set(boost::beast::http::field::content_type, input.substr(0, cut));
  header.set(boost::beast::http::field::user_agent, kAgentUserAgent);
  fs::create_directory(spool.Folder());
  HandledRequest handled;
  std::unique_ptr<Upload> upload = handler.Begin(header, handled);
  const size_t piece = body.empty() ? 1 : static_cast<unsigned char>(body[0]) % 32 + 1;
  for (size_t i = 0; upload && i < body.size() && upload->Feed(std::string_view(body).substr(i, piece)); i += piece) {
  }
  if (upload) handled = upload->Finish();
  upload.reset();
  const unsigned status = handled.response.result_int();
  // remove_all counts the spool folder itself.
  if (!ready || (status != 200 && status != 400 && status != 500) || handled.line.find('\n') != std::string::npos ||
      handled.line.rfind(status == 200 ? "kind=" : "rejected status=" + std::to_string(status) + " reason=", 0) != 0 ||
      fs::remove_all(spool.Folder()) != (status == 200 ? 2u : 1u) || !fs::is_empty(scratch))
    std::abort();
  return 0;
}
