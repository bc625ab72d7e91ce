// The request body that carries one log file: multipart/form-data with one
// part named "logfile", exact to the byte.
//
//   "--" B CRLF
//   "Content-Disposition: form-data; name=\"logfile\"; filename=\"" N "\"" CRLF
//   "Content-Type: application/octet-stream" CRLF CRLF
//   <the file's bytes> CRLF CRLF "--" B "--"
//
// B is the boundary, N the source's file name with three bytes escaped as
// browsers do in form submissions: '"' as %22, CR as %0D, LF as %0A, so a
// name cannot end the quoted text or forge a header line. Every other byte,
// "%" included, is written as it is; a name without those three bytes goes
// out unchanged. Two CR LF pairs stand before the closing delimiter and none
// after it, so a parser that follows the multipart rules sees the file
// followed by one CR LF. Receivers in the field parse exactly this form; it
// is kept byte for byte. Nothing compares the boundary with the content.
//
// The body is handed out in pieces of the caller's size, the file's bytes
// read by position from the source's descriptor as they are asked for, so a
// caller need hold no more of it than one piece: a pass needs the same memory
// for a log of any size. The length is 64 bits wide and is fixed when the
// body is made, by the source's length: exactly that many of the file's bytes
// are sent, whatever is appended meanwhile.
#ifndef PORVANE_UPLOAD_MULTIPARTBODY_H
#define PORVANE_UPLOAD_MULTIPARTBODY_H

#include <cstdint>
#include <string>

struct UploadSource;

class MultipartBody {
 public:
  // How the last Read ended.
  enum class State {
    kReading,      // bytes came, or the body is complete (Read returned 0)
    kFileShrank,   // the file ended before the source's length
    kReadFailed,   // the descriptor reported an error (errno in ReadError())
  };

  // A body for inSource with a fresh boundary: the C library's generator
  // seeded with the time in whole seconds (srand(time(NULL))), then decimal
  // rand() values appended until the text is longer than 15 characters, so
  // 16 to 25 digits; two bodies made in the same second share a boundary.
  // Reads nothing yet.
  // REQUIRES: inSource.fd is open for reading and stays open, unmoved, for as
  // long as the body is read; the body keeps a copy of the rest of inSource.
  explicit MultipartBody(const UploadSource& inSource);
  MultipartBody(const MultipartBody&) = delete;
  MultipartBody& operator=(const MultipartBody&) = delete;

  const std::string& Boundary() const { return m_boundary; }
  // The whole body's size: the framing plus the source's length.
  uint64_t Length() const { return m_head.size() + m_contentLength + m_tail.size(); }

  // Copies up to inCapacity of the next bytes into outBuffer and returns how
  // many; 0 once the whole body has been read. When the file cannot supply
  // its part (it ended early or a read failed) returns 0 and State() says
  // why; the body is then useless. EINTR is retried.
  size_t Read(char* outBuffer, size_t inCapacity);
  // Makes the next Read start at byte inPosition of the body (0 to send it
  // again). False, with nothing changed, past the end.
  bool Seek(uint64_t inPosition);

  State GetState() const { return m_state; }
  int ReadError() const { return m_readError; }

 private:
  // Reads file bytes at inOffset of the content; false with m_state set when
  // none came.
  bool ReadContent(uint64_t inOffset, char* outBuffer, size_t inCount, size_t& outGot);

  int m_fd;
  uint64_t m_contentLength;
  std::string m_boundary;
  std::string m_head;  // everything before the file's bytes
  std::string m_tail;  // everything after them
  uint64_t m_position = 0;
  State m_state = State::kReading;
  int m_readError = 0;
};

// inValue in decimal: no sign, fill or separators, whatever the locale. The
// value of the "Content-Length" header.
std::string FormatLength(uint64_t inValue);

#endif  // PORVANE_UPLOAD_MULTIPARTBODY_H
