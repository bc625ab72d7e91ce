// Finding the uploaded log file in a multipart/form-data request body.
//
// The agent sends one part named "logfile" that carries the file, and it
// closes the body with "\r\n\r\n--" boundary "--" and nothing behind it: one
// CR LF more than the multipart framing takes, so a strict reader would see
// the file followed by a stray CR LF. ExtractLogFile recognises that closing
// form and drops the extra CR LF, so the stored file equals the original; a
// body closed the usual way ("\r\n--" boundary "--\r\n", as curl -F sends)
// is read as the multipart rules say.
//
// Pure function: no I/O, no state; safe to call from any thread.
#ifndef PORVANE_RECEIVER_MULTIPARTEXTRACT_H
#define PORVANE_RECEIVER_MULTIPARTEXTRACT_H

#include <string>
#include <string_view>

// The file carried by the "logfile" part.
struct LogFileUpload {
  // The part's filename parameter exactly as written (no path stripping, no
  // unescaping): the sender writes the name raw, quote marks included.
  std::string fileName;
  // The file's bytes. Points into the body handed to ExtractLogFile and is
  // valid only as long as that body is.
  std::string_view content;
};

// Reasons ExtractLogFile gives, word for word; they end up in the receiver's
// "rejected" lines and 400 replies.
namespace multipart_error {
inline constexpr const char* kNotFormData = "not multipart/form-data";
inline constexpr const char* kNoBoundary = "no boundary";
inline constexpr const char* kBoundaryNotFound = "boundary not found";
inline constexpr const char* kTruncatedBody = "truncated body";
inline constexpr const char* kNoClosingDelimiter = "no closing delimiter";
inline constexpr const char* kNoLogFilePart = "no logfile part";
inline constexpr const char* kTwoLogFileParts = "more than one logfile part";
inline constexpr const char* kNoFileName = "logfile part has no file name";
}  // namespace multipart_error

// Reads inBody as a multipart/form-data body framed by the boundary named in
// inContentType (the request's Content-Type value; media type compared
// without regard to case, boundary plain or quoted).
//
// Returns "" and fills outUpload when the body holds exactly one part whose
// Content-Disposition is form-data with name="logfile" and a filename
// parameter, and the body is complete up to its closing delimiter. Other
// parts, a preamble and an epilogue are passed over. Otherwise returns one of
// the multipart_error reasons; outUpload may then hold anything.
std::string ExtractLogFile(std::string_view inContentType, std::string_view inBody, LogFileUpload& outUpload);

#endif  // PORVANE_RECEIVER_MULTIPARTEXTRACT_H
