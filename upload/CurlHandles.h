// Owners of libcurl's C handles: each frees its handle when it goes away and
// cannot be copied, so no path out of the uploader leaks one.
#ifndef PORVANE_UPLOAD_CURLHANDLES_H
#define PORVANE_UPLOAD_CURLHANDLES_H

#include <curl/curl.h>

#include <string>

// One easy handle, joined to the process's CurlShare, so that a connection
// it leaves open serves the next handle to the same server. Get() is null
// when libcurl could not make one; without a share it still works, on
// connections of its own.
//
// REQUIRES: every CurlEasy is gone before main returns (none lives in a
// static object), because the share is destroyed after that.
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

// A share handle through which easy handles keep connections and name
// look-ups for each other: CURL_LOCK_DATA_CONNECT and CURL_LOCK_DATA_DNS.
// Get() is null when libcurl could not make or set it up.
//
// The agent is single-threaded, so no lock callbacks are set; without them
// only one thread at a time may run transfers through the share. Going away
// closes the connections it still keeps.
// REQUIRES: every easy handle set to use it has been cleaned up before.
class CurlShare {
 public:
  CurlShare();
  ~CurlShare();
  CurlShare(const CurlShare&) = delete;
  CurlShare& operator=(const CurlShare&) = delete;

  CURLSH* Get() const { return m_handle; }

 private:
  CURLSH* m_handle;
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
