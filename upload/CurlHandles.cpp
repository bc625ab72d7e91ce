#include "upload/CurlHandles.h"

namespace {

// libcurl's global state is set up once per process, before the first easy
// handle, instead of implicitly (and unsynchronised) inside curl_easy_init.
// The function-local static makes the first use thread-safe.
void InitialiseCurlOnce() {
  static const CURLcode kInitResult = curl_global_init(CURL_GLOBAL_DEFAULT);
  (void)kInitResult;  // a failure shows as a null easy handle
}

}  // namespace

CurlEasy::CurlEasy() {
  InitialiseCurlOnce();
  m_handle = curl_easy_init();
}

CurlEasy::~CurlEasy() {
  if (m_handle != nullptr) curl_easy_cleanup(m_handle);
}

CurlHeaderList::~CurlHeaderList() { curl_slist_free_all(m_list); }

bool CurlHeaderList::Append(const std::string& inLine) {
  curl_slist* extended = curl_slist_append(m_list, inLine.c_str());
  if (extended == nullptr) return false;
  m_list = extended;
  return true;
}
