#include "ReceiverReply.h"

#include <gtest/gtest.h>

TEST(ReceiverReplyTest, TheFirstWordDecidesAndHibernateReadsItsDays) {
  using W = ReplyWord;
  const struct { const char* reply; ReplyWord word; int days; } kCases[] = {
      {"Active", W::kAccept, 0}, {"Delete", W::kAccept, 0}, {"Active\r\n", W::kAccept, 0},
      {"Delete\tmore", W::kAccept, 0}, {"active", W::kUnknown, 0}, {"", W::kUnknown, 0},
      {"Disabled x", W::kDisabled, 0}, {"Hibernate", W::kHibernate, 0}, {"Hibernate 30", W::kHibernate, 30},
      {"Hibernate\t7", W::kHibernate, 0}, {"Hibernate  5 days", W::kHibernate, 5}};
  for (const auto& c : kCases) {
    const ReceiverReply reply = InterpretReply(c.reply);
    EXPECT_EQ(std::make_pair(reply.word, reply.days), std::make_pair(c.word, c.days)) << c.reply;
  }
}
