#include "MultipartReader.h"

#include <algorithm>
#include <cctype>
#include <vector>

namespace {

constexpr std::string_view kCrLf = "\r\n";
constexpr std::string_view kBlanks = " \t";

std::string LowerCase(std::string_view inText) {
  std::string lower(inText);
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return lower;
}

std::string_view TrimBlanks(std::string_view inText) {
  size_t first = inText.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  size_t last = inText.find_last_not_of(kBlanks);
  return inText.substr(first, last - first + 1);
}

// One "name=value" parameter of a header value such as
// 'form-data; name="logfile"; filename="usage1.log"'.
struct Parameter {
  std::string name;  // lower case
  std::string value;
};

// Reads a quoted value starting just after its opening quote. The value ends
// at the first quote that is followed by blanks and then ";" or the end:
// the agent writes file names raw, so a quote inside a name must not end it.
// An unclosed quote runs to the end of the header value.
std::string_view QuotedValue(std::string_view inText, size_t inStart, size_t& outNext) {
  for (size_t quote = inText.find('"', inStart); quote != std::string_view::npos;
       quote = inText.find('"', quote + 1)) {
    size_t after = inText.find_first_not_of(kBlanks, quote + 1);
    if (after == std::string_view::npos || inText[after] == ';') {
      outNext = after == std::string_view::npos ? inText.size() : after;
      return inText.substr(inStart, quote - inStart);
    }
  }
  outNext = inText.size();
  return inText.substr(inStart);
}

// Splits a header value into its leading token (returned, lower case,
// trimmed) and its parameters.
std::string SplitHeaderValue(std::string_view inValue, std::vector<Parameter>& outParameters) {
  size_t pos = std::min(inValue.find(';'), inValue.size());
  std::string token = LowerCase(TrimBlanks(inValue.substr(0, pos)));
  while (pos < inValue.size()) {
    ++pos;  // past the ';'
    size_t end = std::min(inValue.find_first_of(";=", pos), inValue.size());
    Parameter parameter{LowerCase(TrimBlanks(inValue.substr(pos, end - pos))), {}};
    pos = end;
    if (pos < inValue.size() && inValue[pos] == '=') {
      size_t valueStart = inValue.find_first_not_of(kBlanks, pos + 1);
      if (valueStart != std::string_view::npos && inValue[valueStart] == '"') {
        parameter.value = std::string(QuotedValue(inValue, valueStart + 1, pos));
      } else {
        size_t valueEnd = std::min(inValue.find(';', pos + 1), inValue.size());
        parameter.value = std::string(TrimBlanks(inValue.substr(pos + 1, valueEnd - pos - 1)));
        pos = valueEnd;
      }
    }
    if (!parameter.name.empty()) outParameters.push_back(std::move(parameter));
  }
  return token;
}

const Parameter* FindParameter(const std::vector<Parameter>& inParameters, std::string_view inName) {
  for (const Parameter& parameter : inParameters)
    if (parameter.name == inName) return &parameter;
  return nullptr;
}

// What the receiver needs to know of one part's header block.
struct PartHeader {
  bool isLogFile = false;
  bool hasFileName = false;
  std::string fileName;
};

PartHeader ReadPartHeader(std::string_view inBlock) {
  PartHeader header;
  size_t pos = 0;
  while (pos < inBlock.size()) {
    size_t lineEnd = std::min(inBlock.find(kCrLf, pos), inBlock.size());
    std::string_view line = inBlock.substr(pos, lineEnd - pos);
    pos = lineEnd + kCrLf.size();
    size_t colon = line.find(':');
    if (colon == std::string_view::npos || LowerCase(TrimBlanks(line.substr(0, colon))) != "content-disposition")
      continue;
    std::vector<Parameter> parameters;
    if (SplitHeaderValue(line.substr(colon + 1), parameters) != "form-data") continue;
    const Parameter* name = FindParameter(parameters, "name");
    const Parameter* fileName = FindParameter(parameters, "filename");
    header.isLogFile = name != nullptr && name->value == "logfile";
    header.hasFileName = fileName != nullptr;
    if (fileName != nullptr) header.fileName = fileName->value;
  }
  return header;
}

// The boundary named by a multipart/form-data Content-Type value; "" with
// outReason set when there is none.
std::string BoundaryOf(std::string_view inContentType, std::string& outReason) {
  std::vector<Parameter> parameters;
  if (SplitHeaderValue(inContentType, parameters) != "multipart/form-data") {
    outReason = multipart_error::kNotFormData;
    return {};
  }
  const Parameter* boundary = FindParameter(parameters, "boundary");
  if (boundary == nullptr || boundary->value.empty()) {
    outReason = multipart_error::kNoBoundary;
    return {};
  }
  return boundary->value;
}

// A part's header block larger than this is refused rather than held.
constexpr size_t kMaxPartHeaderBytes = 16 * 1024;
// Blanks allowed between a boundary and the CR LF that ends its line.
constexpr size_t kMaxDelimiterBlanks = 64;

}  // namespace

MultipartReader::MultipartReader(std::string_view inContentType) {
  std::string reason;
  const std::string boundary = BoundaryOf(inContentType, reason);
  if (boundary.empty()) {
    mReason = reason;
    mState = State::kRefused;
    return;
  }
  mCrLfDashBoundary = "\r\n--" + boundary;
  // The first delimiter may open the body without a CR LF before it: read
  // the body as if one stood there.
  mPending = std::string(kCrLf);
}

void MultipartReader::Refuse(const char* inReason) {
  mReason = inReason;
  mState = State::kRefused;
  mPending.clear();
}

bool MultipartReader::Feed(std::string_view inPiece, const Sink& inSink) {
  if (mState == State::kRefused || mSinkError != 0) return false;
  if (mState == State::kEpilogue) return true;  // passed over unread
  mPending.append(inPiece);
  Process(false, inSink);
  return mState != State::kRefused && mSinkError == 0;
}

std::string MultipartReader::Finish(const Sink& inSink) {
  if (mState != State::kRefused && mSinkError == 0) Process(true, inSink);
  if (mState == State::kRefused) return mReason;
  if (mState == State::kPartHeaders) return mPending.empty() ? multipart_error::kNoClosingDelimiter
                                                             : multipart_error::kTruncatedBody;
  if (mState == State::kContent) return mInPreamble ? multipart_error::kBoundaryNotFound
                                                    : multipart_error::kTruncatedBody;
  if (!mFoundLogFile) return multipart_error::kNoLogFilePart;
  if (!mHasFileName) return multipart_error::kNoFileName;
  return {};
}

void MultipartReader::Process(bool inAtEnd, const Sink& inSink) {
  for (;;) {
    if (mSinkError != 0) return;
    if (mState == State::kContent) {
      if (!ContentStep(inAtEnd, inSink)) return;
    } else if (mState == State::kPartHeaders) {
      if (!HeaderStep()) return;
    } else {
      return;
    }
  }
}

void MultipartReader::Emit(size_t inEnd, const Sink& inSink) {
  size_t begin = std::min(mSkip, inEnd);
  mSkip -= begin;
  if (mInLogFile && begin < inEnd && mSinkError == 0) {
    std::string_view content(mPending.data() + begin, inEnd - begin);
    mContentBytes += content.size();
    mLastTwo.append(content.substr(content.size() - std::min<size_t>(2, content.size())));
    if (mLastTwo.size() > 2) mLastTwo.erase(0, mLastTwo.size() - 2);
    mSinkError = inSink(content);
  }
  mPending.erase(0, inEnd);
}

// A delimiter is CR LF, "--" boundary, then "--" (the closing one), or
// blanks and CR LF (a part follows). Anything else is content.
bool MultipartReader::ContentStep(bool inAtEnd, const Sink& inSink) {
  const size_t hit = mPending.find(mCrLfDashBoundary);
  if (hit == std::string::npos) {
    // Keep what could still be the start of a delimiter.
    const size_t keep = std::min(mPending.size(), mCrLfDashBoundary.size() - 1);
    if (!inAtEnd) Emit(mPending.size() - keep, inSink);
    return false;
  }
  const size_t after = hit + mCrLfDashBoundary.size();
  std::string_view rest = std::string_view(mPending).substr(after);
  if (rest.size() < 2 && !inAtEnd) {
    Emit(hit, inSink);
    return false;
  }
  bool closing = rest.substr(0, 2) == "--";
  size_t lineEnd = 0;
  if (!closing) {
    const size_t blanks = std::min(rest.find_first_not_of(kBlanks), rest.size());
    if (blanks == rest.size() && !inAtEnd && blanks <= kMaxDelimiterBlanks) {
      Emit(hit, inSink);
      return false;
    }
    if (blanks == rest.size() && inAtEnd) {
      // A boundary line that the body ends on: no part can follow.
      Refuse(multipart_error::kNoClosingDelimiter);
      return false;
    }
    if (rest.substr(blanks, 1) == "\r" && blanks + 1 == rest.size() && !inAtEnd) {
      Emit(hit, inSink);
      return false;
    }
    if (rest.substr(blanks, 2) != kCrLf) {
      // The boundary is only a prefix of this text: content.
      Emit(hit + 1, inSink);
      return true;
    }
    lineEnd = after + blanks + kCrLf.size();
  }
  Emit(hit, inSink);  // the content ends before the delimiter's CR LF
  mInLogFile = false;
  mInPreamble = false;
  if (closing) {
    mState = State::kEpilogue;
    mPending.clear();
    return false;
  }
  mPending.erase(0, lineEnd - hit);
  mState = State::kPartHeaders;
  return true;
}

bool MultipartReader::HeaderStep() {
  size_t contentStart = 0;
  if (mPending.compare(0, kCrLf.size(), kCrLf) == 0) {
    contentStart = kCrLf.size();  // a part without header lines
  } else {
    const size_t headerEnd = mPending.find("\r\n\r\n");
    if (headerEnd == std::string::npos) {
      if (mPending.size() > kMaxPartHeaderBytes) Refuse(multipart_error::kPartHeadersTooLong);
      return false;
    }
    contentStart = headerEnd + 4;
  }
  const PartHeader header = ReadPartHeader(std::string_view(mPending).substr(0, contentStart));
  if (header.isLogFile) {
    if (mFoundLogFile) {
      Refuse(multipart_error::kTwoLogFileParts);
      return false;
    }
    mFoundLogFile = true;
    mHasFileName = header.hasFileName;
    mFileName = header.fileName;
  }
  mInLogFile = header.isLogFile;
  // The CR LF that ends the header block may also be the one before the
  // next delimiter (an empty part): keep it in view, but never as content.
  mPending.erase(0, contentStart - kCrLf.size());
  mSkip = kCrLf.size();
  mState = State::kContent;
  return true;
}
