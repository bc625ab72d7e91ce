// The request body that carries one log file: multipart/form-data with one
// part named "logfile", exact to the byte.
//
//   "--" B CRLF
//   "Content-Disposition: form-data; name=\"logfile\"; filename=\"" N "\"" CRLF
//   "Content-Type: application/octet-stream" CRLF CRLF
//   <the file's bytes> CRLF CRLF "--" B "--"
//
// B is the boundary, N the text after the path's last "/" (the whole path
// when it has none), written as it is: no quoting, escaping or encoding. Two
// CR LF pairs stand before the closing delimiter and none after it, so a
// parser that follows the multipart rules sees the file followed by one CR
// LF. Receivers in the field parse exactly this form; it is kept byte for
// byte. Nothing compares the boundary with the content.
#ifndef PORVANE_UPLOAD_MULTIPARTBODY_H
#define PORVANE_UPLOAD_MULTIPARTBODY_H

#include <cstdint>
#include <memory>
#include <string>

// An owned, immutable request body; null when none could be built.
using MultipartBody = std::unique_ptr<const std::string>;

struct UploadSource;

// Reads inSource.length bytes of inSource from offset 0 and returns its body with a fresh
// boundary: the C library's generator seeded with the time in whole seconds
// (srand(time(NULL))), then decimal rand() values appended until the text is
// longer than 15 characters, so 16 to 25 digits; two bodies built in the
// same second share a boundary. On success ioBodyLength becomes the body's
// length and ioBoundary the boundary.
// Returns null, leaving both untouched and the generator unused, when the
// source holds no descriptor or fewer bytes than its length can be read.
MultipartBody BuildMultipartBody(const UploadSource& inSource, uint32_t& ioBodyLength, std::string& ioBoundary);

// inValue in decimal: no sign, fill or separators, whatever the locale. The
// value of the "Content-Length" header.
std::string FormatLength(uint32_t inValue);

#endif  // PORVANE_UPLOAD_MULTIPARTBODY_H
