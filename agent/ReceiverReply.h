// What the receiver's reply asks of the agent.
#ifndef PORVANE_AGENT_RECEIVERREPLY_H
#define PORVANE_AGENT_RECEIVERREPLY_H

#include <string>

enum class ReplyWord {
  kAccept,     // "Active" or "Delete": the file was taken
  kDisabled,   // "Disabled": stop sending this kind of log
  kHibernate,  // "Hibernate": pause this kind for `days` days
  kUnknown,    // anything else, the empty reply included: keep the file
};

struct ReceiverReply {
  ReplyWord word = ReplyWord::kUnknown;
  int days = 0;      // for kHibernate only
  std::string text;  // the first word as it came
};

// The meaning of a reply body. The word is the text up to the first of ' ',
// '\t', '\n' and '\r' (the whole text when it has none), compared exactly,
// case included. For "Hibernate" the days are atoi of the text after the
// first ' ' ("Hibernate 30" gives 30; without a ' ' the whole reply is read,
// which gives 0).
ReceiverReply InterpretReply(const std::string& inReply);

#endif  // PORVANE_AGENT_RECEIVERREPLY_H
