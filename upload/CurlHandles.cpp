#include "CurlHandles.h"

namespace {

// libcurl's global state is set up once per process, before the first easy
// handle, instead of implicitly (and unsynchronised) inside curl_easy_init.
// The function-local static makes the first use thread-safe.
void InitialiseCurlOnce() {
  static const CURLcode kInitResult = curl_global_init(CURL_GLOBAL_DEFAULT);
  (void)kInitResult;  // a failure shows as a null easy handle
}

// The one share of the process, or null. The agent sends one file after
// another to the same receiver, and opening and closing a connection for
// each took almost half its CPU; the share keeps connections open across
// uploader objects.
// It is made after curl_global_init, so at exit it is destroyed (closing the
// kept connections) before the TLS library's own clean-up, which was
// registered during that init. Every easy handle belongs to an uploader that
// lives for one attempt, so none is left when this static goes away.
CURLSH* ProcessShare() {
  static CurlShare share;
  return share.Get();
}

}  // namespace

CurlEasy::CurlEasy() {
  InitialiseCurlOnce();
  CURLSH* share = ProcessShare();
  m_handle = curl_easy_init();
  // A handle that cannot join still uploads, only on a fresh connection.
  if (m_handle != nullptr && share != nullptr) (void)curl_easy_setopt(m_handle, CURLOPT_SHARE, share);
}

CurlEasy::~CurlEasy() {
  if (m_handle != nullptr) curl_easy_cleanup(m_handle);
}

CurlShare::CurlShare() : m_handle(curl_share_init()) {
  if (m_handle == nullptr) return;
  if (curl_share_setopt(m_handle, CURLSHOPT_SHARE, CURL_LOCK_DATA_CONNECT) != CURLSHE_OK ||
      curl_share_setopt(m_handle, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS) != CURLSHE_OK) {
    curl_share_cleanup(m_handle);
    m_handle = nullptr;
  }
}

CurlShare::~CurlShare() {
  // CURLSHE_IN_USE would mean an easy handle outlived the share; libcurl then
  // frees nothing, and the end of the process closes the sockets.
  if (m_handle != nullptr) (void)curl_share_cleanup(m_handle);
}

CurlHeaderList::~CurlHeaderList() { curl_slist_free_all(m_list); }

bool CurlHeaderList::Append(const std::string& inLine) {
  curl_slist* extended = curl_slist_append(m_list, inLine.c_str());
  if (extended == nullptr) return false;
  m_list = extended;
  return true;
}
