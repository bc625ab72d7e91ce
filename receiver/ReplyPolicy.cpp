#include "ReplyPolicy.h"

#include <fstream>

namespace {

const char* const kSection = "Policy";
const char* const kEveryOtherKind = "*";
const char* const kDefaultAnswer = "Active";

}  // namespace

bool ReplyPolicy::Read(const std::string& inPath) {
  // SettingsFile reads a missing file as an empty one; tell that case apart
  // first.
  if (!std::ifstream(inPath)) return false;
  mSettings.Read(inPath);
  return true;
}

std::string ReplyPolicy::AnswerFor(const std::string& inKind) const {
  const std::string& answer = mSettings.GetValue(kSection, inKind);
  if (!answer.empty()) return answer;
  const std::string& fallback = mSettings.GetValue(kSection, kEveryOtherKind);
  return fallback.empty() ? kDefaultAnswer : fallback;
}
