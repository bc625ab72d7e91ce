// Test helper: environment variables changed for the length of one scope.
#ifndef PORVANE_TESTS_SUPPORT_SCOPEDENVIRONMENT_H
#define PORVANE_TESTS_SUPPORT_SCOPEDENVIRONMENT_H

#include <cstdlib>
#include <map>
#include <optional>
#include <string>

// Sets or unsets variables and puts every one it touched back as it was.
class ScopedEnvironment {
 public:
  ScopedEnvironment() = default;
  ScopedEnvironment(const ScopedEnvironment&) = delete;
  ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;
  ~ScopedEnvironment() {
    for (const auto& saved : mSaved) {
      if (saved.second) {
        ::setenv(saved.first.c_str(), saved.second->c_str(), 1);
      } else {
        ::unsetenv(saved.first.c_str());
      }
    }
  }

  void Set(const std::string& inName, const std::string& inValue) {
    Remember(inName);
    ::setenv(inName.c_str(), inValue.c_str(), 1);
  }

  void Unset(const std::string& inName) {
    Remember(inName);
    ::unsetenv(inName.c_str());
  }

 private:
  void Remember(const std::string& inName) {
    if (mSaved.count(inName) != 0) return;
    const char* value = std::getenv(inName.c_str());
    mSaved[inName] = value != nullptr ? std::optional<std::string>(value) : std::nullopt;
  }

  std::map<std::string, std::optional<std::string>> mSaved;
};

// One variable set (or unset, with std::nullopt) for the length of a scope.
class ScopedEnvironmentVariable {
 public:
  ScopedEnvironmentVariable(const std::string& inName, const std::optional<std::string>& inValue) {
    if (inValue) {
      mEnvironment.Set(inName, *inValue);
    } else {
      mEnvironment.Unset(inName);
    }
  }

 private:
  ScopedEnvironment mEnvironment;
};

#endif  // PORVANE_TESTS_SUPPORT_SCOPEDENVIRONMENT_H
