// Who may upload: HTTP Basic credentials checked against a file of
// "user:hash" lines, the hash in crypt(3) form as `openssl passwd -6` or
// `mkpasswd` make it.
#ifndef PORVANE_RECEIVER_BASICAUTH_H
#define PORVANE_RECEIVER_BASICAUTH_H

#include <map>
#include <mutex>
#include <set>
#include <string>
#include <string_view>

class BasicAuth {
 public:
  // The realm named in the WWW-Authenticate header of a 401.
  static constexpr const char* kRealm = "porvane-receiver";

  BasicAuth() = default;
  BasicAuth(const BasicAuth&) = delete;
  BasicAuth& operator=(const BasicAuth&) = delete;

  // Reads the users from inPath: one "user:hash" a line; blank lines and
  // lines starting with "#" are passed over, a CR before the line feed is
  // dropped. Returns "", or a one-line message when the file cannot be read,
  // names no user, or has a line without ":", with an empty user, or with a
  // hash that libcrypt does not take ("line 3: ...").
  std::string Read(const std::string& inPath);

  // Whether inAuthorization, an Authorization header value ("Basic " and
  // base64 of "user:password"), names a user of the file with its password.
  // A pair once verified is remembered (as a digest), so that an agent
  // sending many files pays the slow hash once. Thread-safe once Read has
  // returned.
  bool Allows(std::string_view inAuthorization) const;

 private:
  std::map<std::string, std::string> mHashes;  // user to hash
  mutable std::mutex mMutex;
  mutable std::set<std::string> mVerified;  // SHA-256 of "user:password"
};

#endif  // PORVANE_RECEIVER_BASICAUTH_H
