// A private folder for one fuzzing process, and the checks the targets share.
#ifndef PORVANE_FUZZ_FUZZSCRATCH_H
#define PORVANE_FUZZ_FUZZSCRATCH_H

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

// The folder, made once per process under $TMPDIR (else /tmp) and left for
// the operating system's clean-up: libFuzzer ends the process with exit(),
// and a folder that stays after a crash helps to reproduce it.
inline const std::string& ScratchFolder() {
  static const std::string folder = [] {
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/porvane-fuzz-XXXXXX";
    if (mkdtemp(&pattern[0]) == nullptr) {
      std::perror("mkdtemp");
      std::abort();
    }
    return pattern;
  }();
  return folder;
}

inline void WriteWholeFile(const std::string& inPath, const std::string& inContent) {
  std::ofstream out(inPath, std::ios::binary | std::ios::trunc);
  out << inContent;
}

inline std::string ReadWholeFile(const std::string& inPath) {
  std::ifstream in(inPath, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// A broken promise of the code under test: report it and abort, which
// libFuzzer records as a crash with the input that caused it.
#define FUZZ_CHECK(condition)                                                      \
  do {                                                                             \
    if (!(condition)) {                                                            \
      std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition); \
      std::abort();                                                                \
    }                                                                              \
  } while (0)

#endif  // PORVANE_FUZZ_FUZZSCRATCH_H
