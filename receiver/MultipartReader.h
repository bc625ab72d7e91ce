// Reading a multipart/form-data request body as it arrives, piece by piece,
// and handing the bytes of its "logfile" part on: a body of any size goes
// through a bounded amount of memory.
//
// The body must hold exactly one part whose Content-Disposition is form-data
// with name="logfile" and a filename parameter, and end with its closing
// delimiter; other parts, a preamble and an epilogue are passed over. The
// part's content is what the multipart framing delimits: a CR LF before the
// closing delimiter is framing, anything before it is content (the agent's
// extra CR LF included; telling the agent apart is the caller's business).
//
// Not thread-safe; one body per reader.
#ifndef PORVANE_RECEIVER_MULTIPARTREADER_H
#define PORVANE_RECEIVER_MULTIPARTREADER_H

#include <functional>
#include <string>
#include <string_view>

// Reasons the reader gives, word for word; they end up in the receiver's
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
inline constexpr const char* kPartHeadersTooLong = "part headers too long";
}  // namespace multipart_error

class MultipartReader {
 public:
  // Receives the logfile part's content in order, in pieces of any size;
  // returns 0, or an errno value that stops the reading.
  using Sink = std::function<int(std::string_view)>;

  // inContentType is the request's Content-Type value (media type compared
  // without regard to case, boundary plain or quoted). When it names no
  // multipart/form-data boundary the reader is refused at once.
  explicit MultipartReader(std::string_view inContentType);

  // Reads the next piece of the body. Returns false once the body is refused
  // (Reason() says why) or the sink failed (SinkError()); later pieces are
  // ignored then.
  bool Feed(std::string_view inPiece, const Sink& inSink);

  // The body is over. Returns "" when it was the upload described above,
  // else the reason (a multipart_error text).
  std::string Finish(const Sink& inSink);

  // The reason the body was refused so far, "" while it is not.
  const std::string& Reason() const { return mReason; }
  // The sink's errno value when it stopped the reading, else 0.
  int SinkError() const { return mSinkError; }
  // The part's filename parameter exactly as written: no path stripping, no
  // unescaping. A quote inside it ends it only when blanks and ";" or the
  // end of the line follow: older agents write names raw.
  const std::string& FileName() const { return mFileName; }
  // The content bytes handed to the sink, and whether the last two were CR LF.
  unsigned long long ContentBytes() const { return mContentBytes; }
  bool ContentEndsInCrLf() const { return mLastTwo == "\r\n"; }

 private:
  enum class State { kContent, kPartHeaders, kEpilogue, kRefused };

  // Works through mPending as far as it can; inAtEnd: no more bytes come.
  void Process(bool inAtEnd, const Sink& inSink);
  // One step in kContent; false when it needs more bytes.
  bool ContentStep(bool inAtEnd, const Sink& inSink);
  // One step in kPartHeaders; false when it needs more bytes.
  bool HeaderStep();
  // Hands mPending[0, inEnd) to the sink when it is the logfile part's
  // content, then drops those bytes.
  void Emit(size_t inEnd, const Sink& inSink);
  void Refuse(const char* inReason);

  std::string mCrLfDashBoundary;  // "\r\n--" + boundary
  State mState = State::kContent;
  bool mInPreamble = true;
  bool mInLogFile = false;      // the current part is the logfile part
  size_t mSkip = 0;             // leading bytes of mPending that are framing, not content
  std::string mPending;         // bytes read and not yet worked through
  bool mFoundLogFile = false;
  bool mHasFileName = false;
  std::string mFileName;
  unsigned long long mContentBytes = 0;
  std::string mLastTwo;
  std::string mReason;
  int mSinkError = 0;
};

#endif  // PORVANE_RECEIVER_MULTIPARTREADER_H
