// Owners of libcurl's C handles: each frees its handle when it goes away and
// cannot be copied, so no path out of the uploader leaks one.
#ifndef PORVANE_UPLOAD_CURLHANDLES_H
#define PORVANE_UPLOAD_CURLHANDLES_H

#include <curl/curl.h>

#include <string>

// One easy handle. Get() is null when libcurl could not make one.
class CurlEasy {
 public:
  CurlEasy();
  ~CurlEasy();
  CurlEasy(const CurlEasy&) = delete;
  CurlEasy& operator=(const CurlEasy&) = delete;

  CURL* Get() const { return m_handle; }

 private:
  CURL* m_handle;
};

// A list of header lines for CURLOPT_HTTPHEADER. It must outlive the transfer
// that uses it.
class CurlHeaderList {
 public:
  CurlHeaderList() = default;
  ~CurlHeaderList();
  CurlHeaderList(const CurlHeaderList&) = delete;
  CurlHeaderList& operator=(const CurlHeaderList&) = delete;

  // Adds inLine at the end. False when libcurl could not store it; the list
  // then holds the lines added before.
  bool Append(const std::string& inLine);
  curl_slist* Get() const { return m_list; }

 private:
  curl_slist* m_list = nullptr;
};

// One URL handle of libcurl's URL parser. Get() is null when none was made.
class CurlUrl {
 public:
  CurlUrl() : m_handle(curl_url()) {}
  ~CurlUrl() { curl_url_cleanup(m_handle); }
  CurlUrl(const CurlUrl&) = delete;
  CurlUrl& operator=(const CurlUrl&) = delete;

  CURLU* Get() const { return m_handle; }

 private:
  CURLU* m_handle;
};

#endif  // PORVANE_UPLOAD_CURLHANDLES_H
