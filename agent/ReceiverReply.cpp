#include "ReceiverReply.h"

#include <cstdlib>

ReceiverReply InterpretReply(const std::string& inReply) {
  ReceiverReply reply;
  reply.text = inReply.substr(0, inReply.find_first_of(" \t\n\r"));
  if (reply.text == "Active" || reply.text == "Delete") {
    reply.word = ReplyWord::kAccept;
  } else if (reply.text == "Disabled") {
    reply.word = ReplyWord::kDisabled;
  } else if (reply.text == "Hibernate") {
    reply.word = ReplyWord::kHibernate;
    const std::string::size_type space = inReply.find(' ');
    const std::string sRest = space == std::string::npos ? inReply : inReply.substr(space + 1);
    reply.days = std::atoi(sRest.c_str());
  }
  return reply;
}
