#include "SettingsFile.h"

#include <cctype>
#include <cerrno>
#include <cstring>
#include <set>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

const char* const kSettingsTrimCharacters = " \t\r\n";

namespace {

const std::string& EmptyValue() {
  static const std::string kEmpty;
  return kEmpty;
}

// Owns one file descriptor; closes it on destruction.
class ScopedFd {
 public:
  explicit ScopedFd(int inFd) : mFd(inFd) {}
  ~ScopedFd() {
    if (mFd >= 0) ::close(mFd);
  }
  ScopedFd(const ScopedFd&) = delete;
  ScopedFd& operator=(const ScopedFd&) = delete;
  int Get() const { return mFd; }

 private:
  int mFd;
};

// Hands the text of a file out line by line, the line feed being the only
// delimiter (a CR before it stays in the line; trimming removes it later).
// Reads in fixed blocks, so any file, however long its lines, costs time
// linear in its size and memory bounded by its longest line.
class LineReader {
 public:
  explicit LineReader(int inFd) : mFd(inFd), mBuffer(kBlockSize) {}

  // False at end of file or on a read error. The last line may lack its
  // line feed; an empty tail after the final line feed is no line.
  bool Next(std::string& outLine) {
    outLine.clear();
    for (;;) {
      if (mPos < mFill) {
        const char* start = mBuffer.data() + mPos;
        const void* found = std::memchr(start, '\n', mFill - mPos);
        if (found != nullptr) {
          const size_t length = static_cast<const char*>(found) - start;
          outLine.append(start, length);
          mPos += length + 1;
          return true;
        }
        outLine.append(start, mFill - mPos);
        mPos = mFill;
      }
      if (mDone) return false;
      if (!Refill()) {
        mDone = true;
        // A read error mid-line drops that partial line; at end of file the
        // unterminated last line still counts.
        return !mFailed && !outLine.empty();
      }
    }
  }

 private:
  bool Refill() {
    for (;;) {
      const ssize_t count = ::read(mFd, mBuffer.data(), mBuffer.size());
      if (count > 0) {
        mPos = 0;
        mFill = static_cast<size_t>(count);
        return true;
      }
      if (count < 0 && errno == EINTR) continue;  // a signal is no end of file
      mFailed = count < 0;
      return false;
    }
  }

  static constexpr size_t kBlockSize = 65536;
  int mFd;
  std::vector<char> mBuffer;
  size_t mPos = 0;
  size_t mFill = 0;
  bool mDone = false;
  bool mFailed = false;
};

// Collects output and writes it in large blocks. After the first failed
// write everything else is dropped: an unwritable file loses the change and
// nothing more.
class BlockWriter {
 public:
  explicit BlockWriter(int inFd) : mFd(inFd) {}
  ~BlockWriter() { Flush(); }
  BlockWriter(const BlockWriter&) = delete;
  BlockWriter& operator=(const BlockWriter&) = delete;

  void Append(const char* inData, size_t inLength) {
    mPending.append(inData, inLength);
    if (mPending.size() >= kBlockSize) Flush();
  }
  void Append(const std::string& inText) { Append(inText.data(), inText.size()); }
  void Append(char inChar) { Append(&inChar, 1); }

  void Flush() {
    size_t done = 0;
    while (!mFailed && done < mPending.size()) {
      const ssize_t count = ::write(mFd, mPending.data() + done, mPending.size() - done);
      if (count < 0 && errno == EINTR) continue;
      if (count <= 0) {
        mFailed = true;
        break;
      }
      done += static_cast<size_t>(count);
    }
    mPending.clear();
  }

 private:
  static constexpr size_t kBlockSize = 65536;
  int mFd;
  std::string mPending;
  bool mFailed = false;
};

// The normalised form of a section or key name: trimmed, then lower case.
std::string NormalisedName(const std::string& inName) {
  std::string name = TrimString(inName);
  ToLower(name);
  return name;
}

// The text of a "[...]" header line: from the second character up to the
// first "]", or to the end when there is none.
std::string HeaderName(const std::string& inLine) {
  const size_t close = inLine.find(']');
  const std::string inner = close == std::string::npos ? inLine.substr(1) : inLine.substr(1, close - 1);
  return NormalisedName(inner);
}

}  // namespace

std::string TrimString(const std::string& inText, const char* inCharacters) {
  const size_t first = inText.find_first_not_of(inCharacters);
  if (first == std::string::npos) return std::string();
  const size_t last = inText.find_last_not_of(inCharacters);
  return inText.substr(first, last - first + 1);
}

std::string ToLower(std::string& ioText) {
  for (char& c : ioText) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return ioText;
}

int SettingsFile::Read(const std::string& inPath) {
  mValues.clear();
  ScopedFd fd(::open(inPath.c_str(), O_RDONLY | O_CLOEXEC));
  if (fd.Get() < 0) return 0;  // a missing or unreadable file reads as empty

  LineReader reader(fd.Get());
  std::string section;
  std::string line;
  while (reader.Next(line)) {
    if (line.empty()) continue;
    // Only the very first character marks a comment: an indented "#" line is
    // an ordinary key line, as files written by earlier versions expect.
    if (line[0] == '#' || line[0] == ';') continue;
    if (line[0] == '[') {
      section = HeaderName(line);
      continue;
    }
    // A line without "=" keeps its whole text as key and as value: the value
    // starts one past the missing "=", which wraps round to the start.
    const size_t equals = line.find('=');
    const std::string key = NormalisedName(line.substr(0, equals));
    const std::string value = TrimString(line.substr(equals == std::string::npos ? 0 : equals + 1));
    mValues[section + "/" + key] = value;
  }
  return 0;
}

int SettingsFile::Write(const std::string& inPath) const {
  ScopedFd fd(::open(inPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
  if (fd.Get() < 0) return 0;  // the change is lost; callers go on regardless

  BlockWriter out(fd.Get());
  std::set<std::string> written;
  for (const auto& entry : mValues) {
    const size_t slash = entry.first.find('/');
    const std::string section = entry.first.substr(0, slash);
    if (!written.insert(section).second) continue;
    out.Append('[');
    out.Append(section);
    out.Append("]\n", 2);
    // The entries listed under a header are those whose composite key merely
    // begins with the section's text, not with the text plus "/": so "sys"
    // also gathers the "system" entries (names cut at the length of "sys"),
    // and the unnamed section "[]" gathers every entry with its first
    // character dropped. Files already in the field were written this way and
    // read back into the same map, so the rule is kept. Keys sharing a prefix
    // are adjacent in the sorted map, so the walk starts at the first of them.
    for (auto it = mValues.lower_bound(section); it != mValues.end(); ++it) {
      if (it->first.compare(0, slash, section) != 0) break;
      out.Append(it->first.data() + slash + 1, it->first.size() - slash - 1);
      out.Append('=');
      out.Append(it->second);
      out.Append('\n');
    }
  }
  return 0;
}

const std::string& SettingsFile::GetValue(const std::string& inSection, const std::string& inKey) const {
  const auto found = mValues.find(NormalisedName(inSection) + "/" + NormalisedName(inKey));
  return found == mValues.end() ? EmptyValue() : found->second;
}

const std::string& SettingsFile::SetValue(const std::string& inSection, const std::string& inKey,
                                          const std::string& inValue) {
  const std::string section = NormalisedName(inSection);
  const std::string key = NormalisedName(inKey);
  // The unnamed section cannot be written, and a "/" would make the
  // composite key ambiguous.
  if (section.empty() || key.empty()) return EmptyValue();
  if (section.find('/') != std::string::npos || key.find('/') != std::string::npos) return EmptyValue();

  const std::string composite = section + "/" + key;
  // The value is stored as given; only its trimmed form decides between
  // storing and erasing.
  if (!TrimString(inValue).empty()) {
    std::string& stored = mValues[composite];
    stored = inValue;
    return stored;
  }
  mValues.erase(composite);
  return EmptyValue();
}
