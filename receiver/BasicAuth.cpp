#include "BasicAuth.h"

#include <crypt.h>
#include <openssl/crypto.h>
#include <openssl/sha.h>

#include <strings.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <memory>

namespace {

// Verified pairs remembered; the set starts over when it is full.
constexpr size_t kMaxVerified = 1024;

// Standard base64 with padding; false on anything else.
bool DecodeBase64(std::string_view inText, std::string& outBytes) {
  static constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  if (inText.size() % 4 != 0) return false;
  unsigned bits = 0;
  int count = 0;
  for (size_t i = 0; i < inText.size(); ++i) {
    if (inText[i] == '=') {
      // Padding only at the end: one or two of it.
      if (i + 2 < inText.size() || inText.substr(i).find_first_not_of('=') != std::string_view::npos) return false;
      break;
    }
    const size_t value = kAlphabet.find(inText[i]);
    if (value == std::string_view::npos) return false;
    bits = (bits << 6) | static_cast<unsigned>(value);
    if ((count += 6) >= 8) {
      count -= 8;
      outBytes += static_cast<char>((bits >> count) & 0xff);
    }
  }
  return true;
}

std::string Digest(const std::string& inText) {
  unsigned char digest[SHA256_DIGEST_LENGTH];
  SHA256(reinterpret_cast<const unsigned char*>(inText.data()), inText.size(), digest);
  return std::string(reinterpret_cast<const char*>(digest), sizeof digest);
}

}  // namespace

std::string BasicAuth::Read(const std::string& inPath) {
  std::ifstream in(inPath, std::ios::binary);
  if (!in) return "cannot read " + inPath;
  std::string line;
  for (int number = 1; std::getline(in, line); ++number) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.empty() || line[0] == '#') continue;
    const std::string where = inPath + " line " + std::to_string(number) + ": ";
    const size_t colon = line.find(':');
    if (colon == std::string::npos) return where + "not user:hash";
    if (colon == 0) return where + "no user";
    const std::string hash = line.substr(colon + 1);
    if (crypt_checksalt(hash.c_str()) != CRYPT_SALT_OK) return where + "not a hash libcrypt takes";
    mHashes[line.substr(0, colon)] = hash;
  }
  if (in.bad()) return "cannot read " + inPath;
  if (mHashes.empty()) return inPath + " names no user";
  return {};
}

bool BasicAuth::Allows(std::string_view inAuthorization) const {
  constexpr std::string_view kScheme = "basic ";
  if (inAuthorization.size() < kScheme.size() ||
      strncasecmp(inAuthorization.data(), kScheme.data(), kScheme.size()) != 0)
    return false;
  std::string_view encoded = inAuthorization.substr(kScheme.size());
  encoded.remove_prefix(std::min(encoded.find_first_not_of(' '), encoded.size()));
  std::string pair;
  if (!DecodeBase64(encoded, pair)) return false;
  const size_t colon = pair.find(':');
  if (colon == std::string::npos) return false;
  const std::string digest = Digest(pair);
  {
    std::lock_guard<std::mutex> lock(mMutex);
    if (mVerified.count(digest) != 0) return true;
  }
  const auto user = mHashes.find(pair.substr(0, colon));
  if (user == mHashes.end()) return false;
  const std::string password = pair.substr(colon + 1);
  // crypt_data is large (about 32 KiB): not for a thread's stack.
  auto data = std::make_unique<crypt_data>();
  const char* hashed = crypt_r(password.c_str(), user->second.c_str(), data.get());
  if (hashed == nullptr || std::strlen(hashed) != user->second.size() ||
      CRYPTO_memcmp(hashed, user->second.data(), user->second.size()) != 0)
    return false;
  std::lock_guard<std::mutex> lock(mMutex);
  if (mVerified.size() >= kMaxVerified) mVerified.clear();
  mVerified.insert(digest);
  return true;
}
