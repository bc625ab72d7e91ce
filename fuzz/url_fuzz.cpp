// Uploader_Curl::CreateURL over arbitrary texts. Whatever it hands out is a
// URL libcurl parses, made only of URL characters and %XX escapes with
// upper-case hex, and making a URL from it again changes nothing (a kept
// escape decodes and is written again only when its byte may not stand in a
// URL). It refuses only empty texts and texts that do not parse: a text that
// is already a clean URL comes back as it is.
#include <curl/curl.h>

#include <cstdint>
#include <cstring>
#include <optional>
#include <string>

#include "FuzzScratch.h"
#include "Uploader_Curl.h"

namespace {

bool IsUrlCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         (c != '\0' && std::strchr("-._~!$&'()*+,;=:@/?#[]", c) != nullptr);
}

bool CurlParses(const std::string& inUrl) {
  CURLU* url = curl_url();
  const bool parsed = url != nullptr && curl_url_set(url, CURLUPART_URL, inUrl.c_str(), 0) == CURLUE_OK;
  curl_url_cleanup(url);
  return parsed;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* inData, size_t inSize) {
  const std::string text(reinterpret_cast<const char*>(inData), inSize);
  const std::optional<std::string> url = Uploader_Curl::CreateURL(text);
  bool clean = !text.empty();
  for (char c : text) clean = clean && IsUrlCharacter(c);
  if (clean && CurlParses(text)) FUZZ_CHECK(url && *url == text);
  if (!url) return 0;

  FUZZ_CHECK(!text.empty() && CurlParses(*url));
  for (size_t i = 0; i < url->size(); ++i) {
    if ((*url)[i] != '%') {
      FUZZ_CHECK(IsUrlCharacter((*url)[i]));
      continue;
    }
    FUZZ_CHECK(i + 2 < url->size());
    FUZZ_CHECK(url->substr(i + 1, 2).find_first_not_of("0123456789ABCDEF") == std::string::npos);
    i += 2;
  }
  const std::optional<std::string> again = Uploader_Curl::CreateURL(*url);
  FUZZ_CHECK(again && *again == *url);
  return 0;
}
