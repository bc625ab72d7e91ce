#include "Diagnostics.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

Diagnostics Diagnostics::FromEnvironment() {
  const char* value = std::getenv("PORVANE_DEBUG");
  return Diagnostics(value != nullptr && value[0] != '\0' && std::strcmp(value, "0") != 0);
}

void Diagnostics::Say(const std::string& inLine) const {
  if (!mEnabled) return;
  // One write per line, so that lines of a pass never interleave with
  // anything else written to the journal at the same time.
  const std::string line = "porvane: " + Escape(inLine) + "\n";
  for (size_t done = 0; done < line.size();) {
    const ssize_t count = ::write(STDERR_FILENO, line.data() + done, line.size() - done);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return;  // nobody is listening: the pass goes on
    done += static_cast<size_t>(count);
  }
}

std::string Diagnostics::Escape(const std::string& inText) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string escaped;
  escaped.reserve(inText.size());
  for (const char c : inText) {
    const unsigned char byte = static_cast<unsigned char>(c);
    if (byte == '\\') {
      escaped += "\\\\";
    } else if (byte < 0x20 || byte == 0x7F) {
      escaped += "\\x";
      escaped += kHex[byte >> 4];
      escaped += kHex[byte & 0x0F];
    } else {
      escaped += c;
    }
  }
  return escaped;
}
