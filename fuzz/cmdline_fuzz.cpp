// CommandLineOptions over arbitrary arguments (the input split at zero bytes
// into up to four arguments). Each outcome is checked against a plain
// re-reading of the option grammar written here, character by character:
// either construction throws std::invalid_argument whose text is the first
// argument that is not one whole option, or every argument was accepted and
// the options hold the last value of each name, which HasOption and
// GetOptionValue report.
#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "CommandLineOptions.h"
#include "FuzzScratch.h"

namespace {

bool IsAlnum(unsigned char c) { return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }
bool IsPunct(unsigned char c) { return c >= 0x21 && c <= 0x7e && !IsAlnum(c); }

// The option grammar, greedy and without backtracking into a repetition:
// prefix ("-", "--", "/" or a backslash), a name of letters, digits and "_",
// then optionally "=" or ":" and a value: an optional double quote, one or
// more items (a letter or digit, ':', '*', or a punctuation character with
// the next character when that one is a letter, digit or punctuation other
// than a double quote), and an optional closing double quote.
bool ReadOption(const std::string& inArg, std::string& outName, std::string& outValue) {
  const size_t n = inArg.size();
  size_t i = 0;
  if (n == 0) return false;
  if (inArg[0] == '-') {
    i = (n > 1 && inArg[1] == '-') ? 2 : 1;
  } else if (inArg[0] == '/' || inArg[0] == '\\') {
    i = 1;
  } else {
    return false;
  }
  const size_t nameStart = i;
  while (i < n && (IsAlnum(inArg[i]) || inArg[i] == '_')) ++i;
  if (i == nameStart) return false;
  outName = inArg.substr(nameStart, i - nameStart);
  outValue = "1";

  if (i < n && (inArg[i] == '=' || inArg[i] == ':')) {
    const size_t valueStart = i + 1;
    size_t j = valueStart;
    if (j < n && inArg[j] == '"') ++j;
    size_t items = 0;
    for (;;) {
      const unsigned char c = inArg[j];
      if (j < n && (IsAlnum(c) || c == ':' || c == '*')) {
        ++j;
      } else if (j + 1 < n && IsPunct(c) && inArg[j + 1] != '"' &&
                 (IsAlnum(inArg[j + 1]) || IsPunct(inArg[j + 1]))) {
        j += 2;
      } else {
        break;
      }
      ++items;
    }
    if (items > 0) {
      if (j < n && inArg[j] == '"') ++j;
      outValue = inArg.substr(valueStart, j - valueStart);
      i = j;
    }
  }
  return i == n;
}

// Only letters, digits and punctuation can stand in an accepted argument.
bool AllPrintable(const std::string& inArg) {
  for (unsigned char c : inArg)
    if (!IsAlnum(c) && !IsPunct(c)) return false;
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* inData, size_t inSize) {
  std::vector<std::string> args;
  std::string current;
  for (size_t i = 0; i < inSize && args.size() < 4; ++i) {
    if (inData[i] == 0) {
      args.push_back(current);
      current.clear();
    } else {
      current.push_back(static_cast<char>(inData[i]));
    }
  }
  if (args.size() < 4) args.push_back(current);

  std::vector<const char*> argv = {"porvane"};
  for (const std::string& a : args) argv.push_back(a.c_str());

  std::map<std::string, std::string> expected;
  const std::string* firstRejected = nullptr;
  for (const std::string& a : args) {
    std::string name, value;
    if (!ReadOption(a, name, value)) {
      firstRejected = &a;
      break;
    }
    FUZZ_CHECK(AllPrintable(a));
    expected[name] = value;
  }

  try {
    const CommandLineOptions options(static_cast<int>(argv.size()), argv.data());
    FUZZ_CHECK(firstRejected == nullptr);
    FUZZ_CHECK(options.Options() == expected);
    for (const auto& [name, value] : expected) {
      FUZZ_CHECK(options.HasOption(name));
      std::string got = "unchanged";
      FUZZ_CHECK(options.GetOptionValue(name, got));
      FUZZ_CHECK(got == value);
      FUZZ_CHECK(!value.empty());
    }
    // A name given nowhere (nor in the environment) is absent and leaves
    // the out-argument alone.
    std::string untouched = "unchanged";
    if (expected.count("porvaneFuzzAbsent") == 0) {
      FUZZ_CHECK(!options.HasOption("porvaneFuzzAbsent"));
      FUZZ_CHECK(!options.GetOptionValue("porvaneFuzzAbsent", untouched));
      FUZZ_CHECK(untouched == "unchanged");
    }
  } catch (const std::invalid_argument& rejected) {
    FUZZ_CHECK(firstRejected != nullptr);
    FUZZ_CHECK(std::string(rejected.what()) == *firstRejected);
  }
  return 0;
}
