#include "MultipartBody.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <locale>
#include <sstream>

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

// A name is the sender's text: a quote would end the quoted value early and a
// CR or LF would start a header line of its choosing. The escapes are the
// ones browsers send for the same three bytes; nothing else changes, so the
// names of ordinary logs go out as they always did.
std::string EscapeFileName(const std::string& inName) {
  std::string escaped;
  escaped.reserve(inName.size());
  for (const char byte : inName) {
    switch (byte) {
      case '"': escaped += "%22"; break;
      case '\r': escaped += "%0D"; break;
      case '\n': escaped += "%0A"; break;
      default: escaped += byte;
    }
  }
  return escaped;
}

}  // namespace

MultipartBody::MultipartBody(const UploadSource& inSource)
    : m_fd(inSource.fd), m_contentLength(inSource.length), m_boundary(MakeBoundary()) {
  m_head.append("--").append(m_boundary).append("\r\n");
  m_head.append("Content-Disposition: form-data; name=\"logfile\"; filename=\"")
      .append(EscapeFileName(inSource.fileName))
      .append("\"\r\n");
  m_head.append("Content-Type: application/octet-stream\r\n\r\n");
  m_tail.append("\r\n\r\n--").append(m_boundary).append("--");
}

size_t MultipartBody::Read(char* outBuffer, size_t inCapacity) {
  size_t filled = 0;
  // One call fills the buffer across the three pieces, so a small log goes
  // out in as few sends as if the body were one block.
  while (filled < inCapacity && m_position < Length() && m_state == State::kReading) {
    const size_t room = inCapacity - filled;
    const uint64_t contentEnd = m_head.size() + m_contentLength;
    size_t got = 0;
    if (m_position < m_head.size()) {
      got = std::min<uint64_t>(room, m_head.size() - m_position);
      std::memcpy(outBuffer + filled, m_head.data() + m_position, got);
    } else if (m_position < contentEnd) {
      const size_t count = static_cast<size_t>(std::min<uint64_t>(room, contentEnd - m_position));
      if (!ReadContent(m_position - m_head.size(), outBuffer + filled, count, got)) return 0;
    } else {
      got = std::min<uint64_t>(room, Length() - m_position);
      std::memcpy(outBuffer + filled, m_tail.data() + (m_position - contentEnd), got);
    }
    filled += got;
    m_position += got;
  }
  return filled;
}

bool MultipartBody::ReadContent(uint64_t inOffset, char* outBuffer, size_t inCount, size_t& outGot) {
  ssize_t count;
  do {
    count = ::pread(m_fd, outBuffer, inCount, static_cast<off_t>(inOffset));
  } while (count < 0 && errno == EINTR);
  if (count > 0) {
    outGot = static_cast<size_t>(count);
    return true;
  }
  if (count == 0) {
    m_state = State::kFileShrank;
  } else {
    m_state = State::kReadFailed;
    m_readError = errno;
  }
  return false;
}

bool MultipartBody::Seek(uint64_t inPosition) {
  if (inPosition > Length()) return false;
  m_position = inPosition;
  return true;
}

std::string FormatLength(uint64_t inValue) {
  // The classic locale: a global locale with digit grouping must not put
  // separators into a header value.
  std::ostringstream text;
  text.imbue(std::locale::classic());
  text << inValue;
  return text.str();
}
