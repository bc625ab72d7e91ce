#include "TempDir.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>
#include <vector>

namespace fs = std::filesystem;

TempDir::TempDir(const std::string& inTag) {
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/" + inTag + "-XXXXXX";
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  if (mkdtemp(buffer.data()) == nullptr) throw std::runtime_error("mkdtemp failed for " + pattern);
  mPath = buffer.data();
}

TempDir::~TempDir() {
  // Tests make items read-only on purpose; give write permission back so the
  // whole tree can go.
  std::error_code ignored;
  for (auto it = fs::recursive_directory_iterator(mPath, ignored); it != fs::recursive_directory_iterator();
       it.increment(ignored)) {
    fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add | fs::perm_options::nofollow, ignored);
  }
  fs::remove_all(mPath, ignored);
}

void WriteFile(const std::string& inPath, const std::string& inContent) {
  std::ofstream out(inPath, std::ios::binary | std::ios::trunc);
  if (!out) throw std::runtime_error("cannot write " + inPath);
  out.write(inContent.data(), static_cast<std::streamsize>(inContent.size()));
  if (!out) throw std::runtime_error("cannot write " + inPath);
}

std::string ReadFile(const std::string& inPath) {
  // One bulk read: a byte-wise copy takes seconds for large uploads in an
  // unoptimised build.
  std::ifstream in(inPath, std::ios::binary | std::ios::ate);
  if (!in) throw std::runtime_error("cannot read " + inPath);
  std::string content(static_cast<size_t>(in.tellg()), '\0');
  in.seekg(0);
  in.read(content.data(), static_cast<std::streamsize>(content.size()));
  if (!in) throw std::runtime_error("cannot read " + inPath);
  return content;
}

std::vector<std::string> Names(const std::string& inFolder) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(inFolder)) names.push_back(entry.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}
