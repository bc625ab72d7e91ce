// The uploader over libcurl: one easy handle per object, driven on the calling
// thread. The TCP connection outlives the object: every easy handle joins the
// process's CurlShare, so the next uploader to the same server sends on it.
// Callers use it through Uploader (CreateUploader) and never name it.
#ifndef PORVANE_UPLOAD_UPLOADER_CURL_H
#define PORVANE_UPLOAD_UPLOADER_CURL_H

#include <curl/curl.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "CurlHandles.h"
#include "MultipartBody.h"
#include "Uploader.h"

class Uploader_Curl final : public Uploader {
 public:
  // The text sent as "User-Agent". It is the same fixed text on every
  // machine, whatever its processor or system; the mismatch with the machine
  // that sends it is deliberate and kept.
  static const char kUserAgent[];

  Uploader_Curl() = default;
  ~Uploader_Curl() override;

  // Releases the easy handle and the header list, if there are any; does
  // nothing otherwise. Leaves the flags alone. A connection the server left
  // open stays in the process's share for the next uploader; one that ended
  // early (a stop request, an error) is closed.
  void Close() override;

  // In this order: resets an object still marked in progress; marks it in
  // progress; makes the URL (CreateURL) and the body (MultipartBody); sets up
  // a POST over HTTP/1.1 with the User-Agent, Content-Length and Content-Type
  // headers and the body read from the source's descriptor as the socket
  // takes it (no "Expect", no chunked encoding, no Accept-Encoding; proxies
  // from the environment as libcurl reads them; TLS verification on); runs
  // the transfer until it ends, on a kept connection to the same server when
  // one is still open. When a kept connection turns out closed by the server
  // before any reply, libcurl sends the same request again on a fresh one,
  // the body read again from its start. Any end of the transfer, a failed
  // connection, a stop request, the idle limit or a file that ran out
  // included, marks the object finished, closes it and returns true; the
  // reply is whatever body bytes came. When the URL or the transfer cannot be
  // set up, or the source holds no descriptor, nothing is sent, the object is
  // closed and marked finished, and the result is false. Either way the
  // observer, if any, then hears the URL (without credentials), the HTTP
  // status, the error text and whether the file ran out.
  bool UploadFile(const UploadSource& inSource, const std::string& inUrl) override;
  using Uploader::UploadFile;

 private:
  // The URL text handed to libcurl for inText, or nothing when inText is empty,
  // libcurl's URL parser rejects the result, or its scheme is neither http
  // nor https. Every "%" followed by two
  // hexadecimal digits is decoded first; then every byte that may not stand
  // in a URL (anything but ASCII letters, digits and -._~!$&'()*+,;=:@/?#[])
  // is written as %XX with upper-case hex. So "%2F" becomes "/", "%41"
  // becomes "A" and a space (plain or escaped) becomes "%20".
  static std::optional<std::string> CreateURL(const std::string& inText);

  // Makes the easy handle and the header list and sets every option of the
  // request. False when any of that fails. m_body must be set.
  bool OpenTransfer(const std::string& inUrl);
  bool SetOptions(const std::string& inUrl);
  // Marks the object finished after a failed set-up, reports inWhy, and
  // returns false.
  bool FailSetUp(ExchangeReport& ioReport, const std::string& inWhy);
  // Reads all of m_body into m_wholeBody; false when the file ran out or failed.
  bool ReadWholeBody();
  // Marks ioReport's file as the trouble and returns the error text for it.
  std::string FileTrouble(ExchangeReport& ioReport) const;
  // Hands libcurl m_wholeBody when it holds the body, else the callbacks.
  bool SetBodySource(CURL* inEasy);
  // Marks the object finished, closes it and hands inReport to the observer.
  void EndExchange(const ExchangeReport& inReport);

  static size_t ReceiveReply(char* inData, size_t inSize, size_t inCount, void* inUploader);
  static int ReportProgress(void* inUploader, curl_off_t, curl_off_t inReceived, curl_off_t, curl_off_t inSent);
  // libcurl's read and seek callbacks over the MultipartBody in inBody.
  static size_t SendBody(char* outBuffer, size_t inSize, size_t inCount, void* inBody);
  static int SeekBody(void* inBody, curl_off_t inOffset, int inOrigin);

  std::unique_ptr<CurlEasy> m_easy;  // null while no transfer is open
  std::unique_ptr<CurlHeaderList> m_headers;
  std::unique_ptr<MultipartBody> m_body;  // the body being sent; read from the caller's descriptor
  std::string m_wholeBody;                // all of a small body, read before the request; else empty
  // The idle watch: bytes sent plus received at the last progress call that
  // saw them change, and when that was.
  curl_off_t m_bytesMoved = 0;
  std::chrono::steady_clock::time_point m_lastActivity;
  bool m_idleExpired = false;  // the idle limit ended the transfer
  char m_errorText[CURL_ERROR_SIZE] = {};  // libcurl's words for the last failure
};

#endif  // PORVANE_UPLOAD_UPLOADER_CURL_H
