#include "MultipartExtract.h"

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

bool StartsWith(std::string_view inText, size_t inPos, std::string_view inPrefix) {
  return inPos <= inText.size() && inText.substr(inPos, inPrefix.size()) == inPrefix;
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

// A boundary line: "--" boundary, then "--" (the closing delimiter) or blanks
// and CR LF (a part follows).
struct Delimiter {
  size_t start = std::string_view::npos;  // index of its "--"; npos: none found
  // Index just past the line; the body's size when the body ends after the
  // boundary (and blanks): no part can follow then.
  size_t end = 0;
  bool closing = false;
};

// Whether a delimiter starts at inPos of inBody; fills outDelimiter if so.
bool ReadDelimiterAt(std::string_view inBody, std::string_view inDashBoundary, size_t inPos,
                     Delimiter& outDelimiter) {
  if (!StartsWith(inBody, inPos, inDashBoundary)) return false;
  size_t after = inPos + inDashBoundary.size();
  outDelimiter = Delimiter{inPos, after, false};
  if (StartsWith(inBody, after, "--")) {
    outDelimiter.closing = true;
    outDelimiter.end = after + 2;
    return true;
  }
  size_t lineEnd = inBody.find_first_not_of(kBlanks, after);
  if (lineEnd == std::string_view::npos) {
    outDelimiter.end = inBody.size();
    return true;
  }
  if (!StartsWith(inBody, lineEnd, kCrLf)) return false;  // the boundary is only a prefix of this text
  outDelimiter.end = lineEnd + kCrLf.size();
  return true;
}

// The first delimiter at or after inFrom that is preceded by CR LF.
Delimiter FindNextDelimiter(std::string_view inBody, std::string_view inDashBoundary, size_t inFrom) {
  std::string crLfDashBoundary = std::string(kCrLf) + std::string(inDashBoundary);
  Delimiter delimiter;
  for (size_t hit = inBody.find(crLfDashBoundary, inFrom); hit != std::string_view::npos;
       hit = inBody.find(crLfDashBoundary, hit + 1)) {
    if (ReadDelimiterAt(inBody, inDashBoundary, hit + kCrLf.size(), delimiter)) return delimiter;
  }
  return Delimiter{};
}

// The first delimiter: at the very start, or after a preamble and CR LF.
Delimiter FindFirstDelimiter(std::string_view inBody, std::string_view inDashBoundary) {
  Delimiter delimiter;
  if (ReadDelimiterAt(inBody, inDashBoundary, 0, delimiter)) return delimiter;
  return FindNextDelimiter(inBody, inDashBoundary, 0);
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

}  // namespace

std::string ExtractLogFile(std::string_view inContentType, std::string_view inBody, LogFileUpload& outUpload) {
  std::string reason;
  std::string boundary = BoundaryOf(inContentType, reason);
  if (boundary.empty()) return reason;
  const std::string dashBoundary = "--" + boundary;

  Delimiter delimiter = FindFirstDelimiter(inBody, dashBoundary);
  if (delimiter.start == std::string_view::npos) return multipart_error::kBoundaryNotFound;

  bool found = false;
  bool foundHasFileName = false;
  while (!delimiter.closing) {
    if (delimiter.end == inBody.size()) return multipart_error::kNoClosingDelimiter;
    size_t headerStart = delimiter.end;
    size_t contentStart = headerStart + kCrLf.size();  // a part without header lines
    if (!StartsWith(inBody, headerStart, kCrLf)) {
      size_t headerEnd = inBody.find("\r\n\r\n", headerStart);
      if (headerEnd == std::string_view::npos) return multipart_error::kTruncatedBody;
      contentStart = headerEnd + 4;
    }
    Delimiter next = FindNextDelimiter(inBody, dashBoundary, contentStart - kCrLf.size());
    if (next.start == std::string_view::npos) return multipart_error::kTruncatedBody;

    PartHeader header = ReadPartHeader(inBody.substr(headerStart, contentStart - headerStart));
    if (header.isLogFile) {
      if (found) return multipart_error::kTwoLogFileParts;
      found = true;
      foundHasFileName = header.hasFileName;
      outUpload.fileName = header.fileName;
      size_t contentEnd = std::max(next.start - kCrLf.size(), contentStart);
      outUpload.content = inBody.substr(contentStart, contentEnd - contentStart);
      // The agent's closing form: the body ends right after "--" boundary
      // "--" and one CR LF more than the framing stands before it.
      bool agentClosing = next.closing && next.end == inBody.size();
      if (agentClosing && outUpload.content.size() >= 2 &&
          outUpload.content.substr(outUpload.content.size() - 2) == kCrLf)
        outUpload.content.remove_suffix(2);
    }
    delimiter = next;
  }
  if (!found) return multipart_error::kNoLogFilePart;
  if (!foundHasFileName) return multipart_error::kNoFileName;
  return {};
}
