#include "MultipartBody.h"

#include <cstdlib>
#include <ctime>
#include <locale>
#include <sstream>

#include <unistd.h>

#include <cerrno>

#include "Uploader.h"

namespace {

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

MultipartBody BuildMultipartBody(const UploadSource& inSource, uint32_t& ioBodyLength, std::string& ioBoundary) {
  if (inSource.fd < 0) return nullptr;
  std::string content(inSource.length, '\0');
  size_t done = 0;
  while (done < content.size()) {
    const ssize_t count = ::pread(inSource.fd, &content[done], content.size() - done, static_cast<off_t>(done));
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return nullptr;
    done += static_cast<size_t>(count);
  }
  const std::string boundary = MakeBoundary();
  std::string body;
  body.reserve(content.size() + 2 * boundary.size() + inSource.fileName.size() + 128);
  body.append("--").append(boundary).append("\r\n");
  body.append("Content-Disposition: form-data; name=\"logfile\"; filename=\"")
      .append(inSource.fileName)
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
