#include "Uploader_Curl.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "MultipartBody.h"

const char Uploader_Curl::kUserAgent[] =
    "Mozilla/5.0 (Macintosh; U; PPC Mac OS X; en-us) AppleWebKit/125.5.5 (KHTML, like Gecko) Safari/125";

namespace {

// The only schemes a request, or a redirect should one ever be followed,
// may use.
const char kProtocols[] = "http,https";

// The largest reply chunk handed to AppendReply at once.
constexpr long kReplyChunkSize = 16384;

// A body up to this size is read whole before the request starts and handed
// to libcurl as one block, which it sends in the same write as the request's
// headers. A streamed body always goes in a second write, which wakes the
// receiver twice per file: streaming 2 KiB logs cut the files sent per second
// over loopback by about half. The size is libcurl's own limit for that merged
// write, and no more than the upload buffer libcurl allocates for a streamed
// body anyway, so memory stays bounded whatever the file.
constexpr uint64_t kWholeBodyLimit = 64 * 1024 - 1;

int HexValue(char inDigit) {
  if (inDigit >= '0' && inDigit <= '9') return inDigit - '0';
  if (inDigit >= 'a' && inDigit <= 'f') return inDigit - 'a' + 10;
  if (inDigit >= 'A' && inDigit <= 'F') return inDigit - 'A' + 10;
  return -1;
}

// Every "%" followed by two hexadecimal digits becomes the byte they name;
// any other "%" stays as it is.
std::string DecodePercentEscapes(const std::string& inText) {
  std::string decoded;
  for (size_t i = 0; i < inText.size(); ++i) {
    if (inText[i] == '%' && i + 2 < inText.size() && HexValue(inText[i + 1]) >= 0 && HexValue(inText[i + 2]) >= 0) {
      decoded.push_back(static_cast<char>(HexValue(inText[i + 1]) * 16 + HexValue(inText[i + 2])));
      i += 2;
    } else {
      decoded.push_back(inText[i]);
    }
  }
  return decoded;
}

bool IsLegalInUrl(unsigned char inByte) {
  if ((inByte >= 'a' && inByte <= 'z') || (inByte >= 'A' && inByte <= 'Z') || (inByte >= '0' && inByte <= '9')) {
    return true;
  }
  return inByte != 0 && std::strchr("-._~!$&'()*+,;=:@/?#[]", inByte) != nullptr;
}

// Writes every byte that may not stand in a URL as %XX; reserved characters
// keep their meaning, so the URL's structure survives.
std::string EscapeIllegalBytes(const std::string& inText) {
  std::string escaped;
  for (unsigned char byte : inText) {
    if (IsLegalInUrl(byte)) {
      escaped.push_back(static_cast<char>(byte));
    } else {
      char code[4];
      std::snprintf(code, sizeof code, "%%%02X", byte);
      escaped.append(code);
    }
  }
  return escaped;
}

// inUrl without the user name and password it may carry, for reports: a
// diagnostic line must not give a credential away.
std::string WithoutCredentials(const std::string& inUrl) {
  const size_t scheme = inUrl.find("://");
  if (scheme == std::string::npos) return inUrl;
  const size_t start = scheme + 3;
  const size_t end = std::min(inUrl.find_first_of("/?#", start), inUrl.size());
  const size_t at = inUrl.rfind('@', end);
  if (at == std::string::npos || at < start) return inUrl;
  return inUrl.substr(0, start) + inUrl.substr(at + 1);
}

}  // namespace

Uploader* CreateUploader() { return new Uploader_Curl(); }

Uploader_Curl::~Uploader_Curl() { Close(); }

void Uploader_Curl::Close() {
  m_easy.reset();
  m_headers.reset();
  m_body.reset();
  m_wholeBody.clear();
  m_wholeBody.shrink_to_fit();
}

bool Uploader_Curl::UploadFile(const UploadSource& inSource, const std::string& inUrl) {
  // A finished object is not reset: one object serves one file.
  if (m_inProgress) Reset();
  m_inProgress = true;
  m_finished = false;

  m_errorText[0] = '\0';
  ExchangeReport report{WithoutCredentials(inUrl), 0, ""};
  std::optional<std::string> url = CreateURL(inUrl);
  if (!url) return FailSetUp(report, "not a usable http or https URL");
  report.url = WithoutCredentials(*url);
  if (inSource.fd < 0) return FailSetUp(report, "cannot read the log file");
  m_body = std::make_unique<MultipartBody>(inSource);
  if (m_body->Length() <= kWholeBodyLimit && !ReadWholeBody()) return FailSetUp(report, FileTrouble(report));
  if (!OpenTransfer(*url)) return FailSetUp(report, "cannot set up the transfer");

  // An error and a normal end are alike: the caller judges the reply text
  // alone, and a missing reply keeps the file for a later try.
  m_idleExpired = false;
  m_lastActivity = std::chrono::steady_clock::now();
  m_bytesMoved = 0;
  const CURLcode result = curl_easy_perform(m_easy->Get());
  curl_easy_getinfo(m_easy->Get(), CURLINFO_RESPONSE_CODE, &report.httpStatus);
  if (result != CURLE_OK) report.error = m_errorText[0] != '\0' ? m_errorText : curl_easy_strerror(result);
  if (m_body->GetState() != MultipartBody::State::kReading) {
    report.error = FileTrouble(report);
  } else if (m_idleExpired) {
    report.error = "no byte sent or received for " + std::to_string(IdleLimit().count()) + " s";
  }
  EndExchange(report);
  return true;
}

bool Uploader_Curl::ReadWholeBody() {
  m_wholeBody.resize(m_body->Length());
  size_t filled = 0;
  for (size_t got = 1; got > 0 && filled < m_wholeBody.size(); filled += got)
    got = m_body->Read(&m_wholeBody[filled], m_wholeBody.size() - filled);
  return m_body->GetState() == MultipartBody::State::kReading;
}

std::string Uploader_Curl::FileTrouble(ExchangeReport& ioReport) const {
  ioReport.fileShrank = true;
  if (m_body->GetState() == MultipartBody::State::kFileShrank) return "the log file shrank while it was read";
  return std::string("cannot read the log file: ") + std::strerror(m_body->ReadError());
}

bool Uploader_Curl::FailSetUp(ExchangeReport& ioReport, const std::string& inWhy) {
  ioReport.error = inWhy;
  EndExchange(ioReport);
  return false;
}

void Uploader_Curl::EndExchange(const ExchangeReport& inReport) {
  m_inProgress = false;
  m_finished = true;
  Close();
  Report(inReport);
}

bool Uploader_Curl::OpenTransfer(const std::string& inUrl) {
  m_easy = std::make_unique<CurlEasy>();
  if (m_easy->Get() == nullptr) return false;
  m_headers = std::make_unique<CurlHeaderList>();
  // Our three fields in this order. The empty "Expect:" keeps libcurl from
  // adding "Expect: 100-continue" to large bodies and waiting for an interim
  // answer that receivers need not give.
  return m_headers->Append(std::string("User-Agent: ") + kUserAgent) &&
         m_headers->Append("Content-Length: " + FormatLength(m_body->Length())) &&
         m_headers->Append("Content-Type: multipart/form-data; boundary=" + m_body->Boundary()) &&
         m_headers->Append("Expect:") && SetOptions(inUrl);
}

bool Uploader_Curl::SetOptions(const std::string& inUrl) {
  CURL* easy = m_easy->Get();
  // The body's size is given, so libcurl sends it whole with a plain
  // Content-Length (never chunked) and never asks for a compressed reply; it
  // asks SendBody for the bytes as the socket takes them, and rewinds through
  // SeekBody when it sends the request again on a fresh connection.
  // Proxies come from the environment, which libcurl reads unless told not to.
  // No time-out is set: the stop flag and the idle limit end a transfer early.
  // NOSIGNAL keeps libcurl's hands off the process's signals: the agent has
  // its own SIGTERM handler, and a name look-up must not raise SIGALRM.
  return curl_easy_setopt(easy, CURLOPT_URL, inUrl.c_str()) == CURLE_OK &&
         curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, kProtocols) == CURLE_OK &&
         curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, kProtocols) == CURLE_OK &&
         curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1)) == CURLE_OK &&
         curl_easy_setopt(easy, CURLOPT_POST, 1L) == CURLE_OK &&
         curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(m_body->Length())) == CURLE_OK &&
         SetBodySource(easy) &&
         curl_easy_setopt(easy, CURLOPT_HTTPHEADER, m_headers->Get()) == CURLE_OK &&
         curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L) == CURLE_OK &&
         curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, m_errorText) == CURLE_OK &&
         curl_easy_setopt(easy, CURLOPT_BUFFERSIZE, kReplyChunkSize) == CURLE_OK &&
         curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &Uploader_Curl::ReceiveReply) == CURLE_OK &&
         curl_easy_setopt(easy, CURLOPT_WRITEDATA, this) == CURLE_OK &&
         curl_easy_setopt(easy, CURLOPT_NOPROGRESS, 0L) == CURLE_OK &&
         curl_easy_setopt(easy, CURLOPT_XFERINFOFUNCTION, &Uploader_Curl::ReportProgress) == CURLE_OK &&
         curl_easy_setopt(easy, CURLOPT_XFERINFODATA, this) == CURLE_OK;
}

bool Uploader_Curl::SetBodySource(CURL* inEasy) {
  if (!m_wholeBody.empty()) return curl_easy_setopt(inEasy, CURLOPT_POSTFIELDS, m_wholeBody.data()) == CURLE_OK;
  return curl_easy_setopt(inEasy, CURLOPT_READFUNCTION, &Uploader_Curl::SendBody) == CURLE_OK &&
         curl_easy_setopt(inEasy, CURLOPT_READDATA, m_body.get()) == CURLE_OK &&
         curl_easy_setopt(inEasy, CURLOPT_SEEKFUNCTION, &Uploader_Curl::SeekBody) == CURLE_OK &&
         curl_easy_setopt(inEasy, CURLOPT_SEEKDATA, m_body.get()) == CURLE_OK;
}

size_t Uploader_Curl::SendBody(char* outBuffer, size_t inSize, size_t inCount, void* inBody) {
  auto* body = static_cast<MultipartBody*>(inBody);
  const size_t count = body->Read(outBuffer, inSize * inCount);
  // A file that ran out cannot complete the announced length: the request is
  // cut off, and libcurl closes the connection rather than reuse it.
  return body->GetState() == MultipartBody::State::kReading ? count : CURL_READFUNC_ABORT;
}

int Uploader_Curl::SeekBody(void* inBody, curl_off_t inOffset, int inOrigin) {
  if (inOrigin != SEEK_SET || inOffset < 0) return CURL_SEEKFUNC_CANTSEEK;
  return static_cast<MultipartBody*>(inBody)->Seek(static_cast<uint64_t>(inOffset)) ? CURL_SEEKFUNC_OK
                                                                                      : CURL_SEEKFUNC_FAIL;
}

size_t Uploader_Curl::ReceiveReply(char* inData, size_t inSize, size_t inCount, void* inUploader) {
  // libcurl hands over at most CURLOPT_BUFFERSIZE bytes at a time.
  size_t length = inSize * inCount;
  static_cast<Uploader_Curl*>(inUploader)
      ->AppendReply(reinterpret_cast<const uint8_t*>(inData), static_cast<uint32_t>(length));
  return length;
}

int Uploader_Curl::ReportProgress(void* inUploader, curl_off_t, curl_off_t inReceived, curl_off_t,
                                  curl_off_t inSent) {
  // libcurl calls this about once a second even on an idle connection, so a
  // stop request ends even a transfer to a server that never answers, and a
  // peer that stops moving bytes is given up on after the idle limit. A
  // non-zero result aborts the transfer, which then ends like an error.
  auto* uploader = static_cast<Uploader_Curl*>(inUploader);
  if (uploader->StopRequested()) return 1;
  const auto now = std::chrono::steady_clock::now();
  const curl_off_t moved = inReceived + inSent;
  if (moved != uploader->m_bytesMoved) {
    uploader->m_bytesMoved = moved;
    uploader->m_lastActivity = now;
  } else if (now - uploader->m_lastActivity >= uploader->IdleLimit()) {
    uploader->m_idleExpired = true;
    return 1;
  }
  return 0;
}

std::optional<std::string> Uploader_Curl::CreateURL(const std::string& inText) {
  if (inText.empty()) return std::nullopt;
  std::string url = EscapeIllegalBytes(DecodePercentEscapes(inText));
  CurlUrl parser;
  char* scheme = nullptr;
  if (parser.Get() == nullptr || curl_url_set(parser.Get(), CURLUPART_URL, url.c_str(), 0) != CURLUE_OK ||
      curl_url_get(parser.Get(), CURLUPART_SCHEME, &scheme, 0) != CURLUE_OK) {
    return std::nullopt;
  }
  // Only an HTTP exchange can deliver a file: libcurl would read a file://
  // URL or fetch from an FTP server, and its text would be taken for the
  // receiver's reply (a "Delete" there would remove logs never sent).
  const std::string sScheme = scheme;
  curl_free(scheme);
  if (sScheme != "http" && sScheme != "https") return std::nullopt;
  return url;
}
