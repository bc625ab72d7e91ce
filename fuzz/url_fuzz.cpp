// Uploader_Curl::CreateURL over arbitrary texts, against a re-reading of its
// contract written here: every "%" with two hexadecimal digits is decoded,
// then every byte that may not stand in a URL is escaped as %XX (upper-case
// hex), and the result is handed out when libcurl's URL parser takes it.
// The result holds only URL characters, decodes to the same bytes as the
// input, and is a fixed point: making a URL from it again changes nothing.
#include <curl/curl.h>

#include <cstdint>
#include <cstring>
#include <optional>
#include <string>

#include "fuzz/FuzzScratch.h"
#include "upload/Uploader_Curl.h"

namespace {

int Hex(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::string Decode(const std::string& inText) {
  std::string out;
  for (size_t i = 0; i < inText.size(); ++i) {
    if (inText[i] == '%' && i + 2 < inText.size() && Hex(inText[i + 1]) >= 0 && Hex(inText[i + 2]) >= 0) {
      out.push_back(static_cast<char>(Hex(inText[i + 1]) * 16 + Hex(inText[i + 2])));
      i += 2;
    } else {
      out.push_back(inText[i]);
    }
  }
  return out;
}

bool Legal(unsigned char c) {
  if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) return true;
  return c != 0 && std::strchr("-._~!$&'()*+,;=:@/?#[]", c) != nullptr;
}

std::string Escape(const std::string& inText) {
  static const char kDigits[] = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : inText) {
    if (Legal(c)) {
      out.push_back(static_cast<char>(c));
    } else {
      out += '%';
      out += kDigits[c >> 4];
      out += kDigits[c & 15];
    }
  }
  return out;
}

bool CurlTakes(const std::string& inUrl) {
  CURLU* url = curl_url();
  const bool taken = url != nullptr && curl_url_set(url, CURLUPART_URL, inUrl.c_str(), 0) == CURLUE_OK;
  curl_url_cleanup(url);
  return taken;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* inData, size_t inSize) {
  const std::string text(reinterpret_cast<const char*>(inData), inSize);
  const std::optional<std::string> url = Uploader_Curl::CreateURL(text);
  if (text.empty()) {
    FUZZ_CHECK(!url);
    return 0;
  }
  const std::string expected = Escape(Decode(text));
  FUZZ_CHECK(url.has_value() == CurlTakes(expected));
  if (!url) return 0;

  FUZZ_CHECK(*url == expected);
  for (size_t i = 0; i < url->size(); ++i) {
    const char c = (*url)[i];
    if (c == '%') {
      FUZZ_CHECK(i + 2 < url->size());
      const std::string digits = url->substr(i + 1, 2);
      FUZZ_CHECK(digits.find_first_not_of("0123456789ABCDEF") == std::string::npos);
      i += 2;
    } else {
      FUZZ_CHECK(Legal(static_cast<unsigned char>(c)));
    }
  }
  FUZZ_CHECK(Decode(*url) == Decode(text));
  const std::optional<std::string> again = Uploader_Curl::CreateURL(*url);
  FUZZ_CHECK(again && *again == *url);
  return 0;
}
