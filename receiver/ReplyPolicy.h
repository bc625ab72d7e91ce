// The receiver's answers: which reply text each kind of log gets.
//
// A policy file uses the settings file format, section "Policy": the key is
// a kind of log (LogKindOf), the value the reply text ("u2=Hibernate 3");
// a line "=Hibernate 3" with no key is for the empty kind, key "*" for every
// kind not listed. Without a file, or for a kind matched by neither, the
// answer is "Active". Kinds are looked up without regard to case, as the
// settings file folds key names.
#ifndef PORVANE_RECEIVER_REPLYPOLICY_H
#define PORVANE_RECEIVER_REPLYPOLICY_H

#include <string>

#include "SettingsFile.h"

class ReplyPolicy {
 public:
  ReplyPolicy() = default;
  ReplyPolicy(const ReplyPolicy&) = delete;
  ReplyPolicy& operator=(const ReplyPolicy&) = delete;

  // Reads the policy file at inPath. Returns false, and keeps the current
  // policy, when the file cannot be opened for reading: an operator who names
  // a policy file expects it to be used.
  bool Read(const std::string& inPath);

  // The reply text for inKind. Safe to call from several threads at once
  // once Read has returned.
  std::string AnswerFor(const std::string& inKind) const;

 private:
  SettingsFile mSettings;
};

#endif  // PORVANE_RECEIVER_REPLYPOLICY_H
