#include "MultipartBody.h"

#include <cstdlib>
#include <ctime>
#include <locale>
#include <sstream>

#include "FileSystemUtils.h"

namespace {

std::string FileNameOf(const std::string& inFilePath) {
  const size_t slash = inFilePath.rfind('/');
  return slash == std::string::npos ? inFilePath : inFilePath.substr(slash + 1);
}

std::string MakeBoundary() {
  std::srand(static_cast<unsigned>(std::time(nullptr)));
  std::string boundary;
  while (boundary.size() <= 15) {
    std::ostringstream piece;
    piece.imbue(std::locale::classic());
    piece << std::rand();
    boundary += piece.str();
  }
  return boundary;
}

}  // namespace

MultipartBody BuildMultipartBody(const std::string& inFilePath, uint32_t& ioBodyLength, std::string& ioBoundary) {
  std::string content;
  if (FileSystemUtils::ReadWholeFile(inFilePath, content) == FileSystemUtils::ReadStatus::kCannotOpen) return nullptr;
  const std::string boundary = MakeBoundary();
  std::string body;
  body.reserve(content.size() + 2 * boundary.size() + inFilePath.size() + 128);
  body.append("--").append(boundary).append("\r\n");
  body.append("Content-Disposition: form-data; name=\"logfile\"; filename=\"")
      .append(FileNameOf(inFilePath))
      .append("\"\r\n");
  body.append("Content-Type: application/octet-stream\r\n\r\n");
  body.append(content);
  body.append("\r\n\r\n--").append(boundary).append("--");
  ioBodyLength = static_cast<uint32_t>(body.size());
  ioBoundary = boundary;
  return std::make_unique<const std::string>(std::move(body));
}

std::string FormatLength(uint32_t inValue) {
  // The classic locale: a global locale with digit grouping must not put
  // separators into a header value.
  std::ostringstream text;
  text.imbue(std::locale::classic());
  text << inValue;
  return text.str();
}
