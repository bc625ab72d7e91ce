// UploadHandler over arbitrary requests built in memory, the input being
// "<Content-Type>\n<body>": it answers 200 having stored exactly one file in
// the spool and nothing beside it, or 400/500 having left nothing behind, and
// its line is one line of the documented form.
#include <cstdlib>
#include <filesystem>
#include <string>

#include "UploadHandler.h"

namespace fs = std::filesystem;

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* inData, size_t inSize) {
  static std::string scratch = fs::temp_directory_path() / "porvane-receiver-fuzz-XXXXXX";
  static const bool ready = ::mkdtemp(scratch.data()) != nullptr && std::atexit([] { fs::remove_all(scratch); }) == 0;
  static const Spool spool(scratch + "/spool");
  const std::string input(reinterpret_cast<const char*>(inData), inSize);
  const size_t cut = std::min(input.find('\n'), inSize);
  HttpRequest request(boost::beast::http::verb::post, "/upload", 11, cut < inSize ? input.substr(cut + 1) : "");
  request.set(boost::beast::http::field::content_type, input.substr(0, cut));
  fs::create_directory(spool.Folder());
  const HandledRequest handled = UploadHandler(spool, ReplyPolicy()).Handle(request);
  const unsigned status = handled.response.result_int();
  // remove_all counts the spool folder itself.
  if (!ready || (status != 200 && status != 400 && status != 500) || handled.line.find('\n') != std::string::npos ||
      handled.line.rfind(status == 200 ? "kind=" : "rejected status=" + std::to_string(status) + " reason=", 0) != 0 ||
      fs::remove_all(spool.Folder()) != (status == 200 ? 2u : 1u) || !fs::is_empty(scratch))
    std::abort();
  return 0;
}
