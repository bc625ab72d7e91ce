#include "ReceiverReply.h"

#include <cstdlib>

ReceiverReply InterpretReply(const std::string& inReply) {
  ReceiverReply reply;
  const std::string sWord = inReply.substr(0, inReply.find_first_of(" \t\n\r"));
  if (sWord == "Active" || sWord == "Delete") {
    reply.word = ReplyWord::kAccept;
  } else if (sWord == "Disabled") {
    reply.word = ReplyWord::kDisabled;
  } else if (sWord == "Hibernate") {
    reply.word = ReplyWord::kHibernate;
    const std::string::size_type space = inReply.find(' ');
    const std::string sRest = space == std::string::npos ? inReply : inReply.substr(space + 1);
    reply.days = std::atoi(sRest.c_str());
  }
  return reply;
}
