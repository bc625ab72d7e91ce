#include "upload/Uploader.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

// The reply buffer and the flags belong to Uploader itself; this subclass only
// lets the tests look at them. It sends nothing.
class ReplyProbe : public Uploader {
 public:
  void Close() override { ++mCloseCalls; }
  bool UploadFile(const std::string&, const std::string&) override {
    m_inProgress = true;
    return true;
  }
  void Finish() {
    m_inProgress = false;
    m_finished = true;
  }
  uint32_t Capacity() const { return m_replyCapacity; }
  const uint8_t* Data() const { return m_replyData; }
  void Append(const std::string& inBytes) {
    AppendReply(reinterpret_cast<const uint8_t*>(inBytes.data()), static_cast<uint32_t>(inBytes.size()));
  }
  std::string Bytes(uint32_t inCount) const { return std::string(reinterpret_cast<const char*>(Data()), inCount); }

  int mCloseCalls = 0;
};

TEST(UploaderReply, FirstChunkIsHeldTerminatedAndShownOnlyWhenFinished) {
  ReplyProbe probe;
  EXPECT_EQ(probe.Data(), nullptr);
  probe.Append("Active");
  EXPECT_EQ(probe.Capacity(), 16384u);
  EXPECT_EQ(probe.GetReplyLength(), 6u);
  EXPECT_EQ(probe.Data()[6], 0);
  EXPECT_EQ(probe.GetReply(), nullptr) << "bytes arrived, but the exchange has not ended";
  probe.Finish();
  ASSERT_NE(probe.GetReply(), nullptr);
  EXPECT_STREQ(probe.GetReply(), "Active");
}

TEST(UploaderReply, LaterChunkThatFitsIsLaidBehindWithoutBeingCounted) {
  ReplyProbe probe;
  probe.Append("Active");
  probe.Append("XY");
  EXPECT_EQ(probe.GetReplyLength(), 6u);
  EXPECT_EQ(probe.Capacity(), 16384u);
  EXPECT_EQ(probe.Bytes(8), "ActiveXY") << "the second chunk overwrites the terminator";
  probe.Append("Q");
  EXPECT_EQ(probe.Bytes(7), "ActiveQ") << "each later chunk lands at the same place";
  EXPECT_EQ(probe.GetReplyLength(), 6u);
}

TEST(UploaderReply, GrowthDoublesAndTerminatesInBounds) {
  // A first chunk that fills the array exactly: the terminator falls one past
  // the capacity, which the spare bytes absorb (the sanitizer build checks).
  ReplyProbe full;
  full.Append(std::string(16384, 'a'));
  EXPECT_EQ(full.Capacity(), 16384u);
  EXPECT_EQ(full.GetReplyLength(), 16384u);
  EXPECT_EQ(full.Data()[16384], 0);

  // A chunk that does not fit behind the first one doubles the array and is
  // appended and counted.
  ReplyProbe grown;
  grown.Append(std::string(100, 'b'));
  grown.Append(std::string(16384, 'c'));
  EXPECT_EQ(grown.Capacity(), 32768u);
  EXPECT_EQ(grown.GetReplyLength(), 16484u);
  EXPECT_EQ(grown.Bytes(16484), std::string(100, 'b') + std::string(16384, 'c'));
  EXPECT_EQ(grown.Data()[16484], 0);

  // 1 + 16384 bytes: the doubling stops with the length one past the capacity.
  // The buffer then counts as full, so the next chunk grows it again instead
  // of being written past its end.
  ReplyProbe edge;
  edge.Append("d");
  edge.Append(std::string(16384, 'e'));
  EXPECT_EQ(edge.Capacity(), 16384u);
  EXPECT_EQ(edge.GetReplyLength(), 16385u);
  EXPECT_EQ(edge.Data()[16385], 0);
  edge.Append("fgh");
  EXPECT_EQ(edge.Capacity(), 32768u);
  EXPECT_EQ(edge.GetReplyLength(), 16388u);
  EXPECT_EQ(edge.Bytes(16388), "d" + std::string(16384, 'e') + "fgh");

  // A large first chunk doubles until it fits.
  ReplyProbe large;
  large.Append(std::string(70000, 'g'));
  EXPECT_EQ(large.Capacity(), 131072u);
  EXPECT_EQ(large.GetReplyLength(), 70000u);
  EXPECT_EQ(large.Data()[70000], 0);
}

TEST(UploaderReply, ResetClosesOnlyATransferInProgressAndDropsTheReply) {
  ReplyProbe idle;
  EXPECT_TRUE(idle.Reset());
  EXPECT_EQ(idle.mCloseCalls, 0);
  EXPECT_FALSE(idle.IsFinished());
  EXPECT_EQ(idle.GetReplyLength(), 0u);

  ReplyProbe busy;
  busy.UploadFile("", "");
  busy.Append("Active");
  EXPECT_TRUE(busy.Reset());
  EXPECT_EQ(busy.mCloseCalls, 1);
  EXPECT_EQ(busy.Data(), nullptr);
  EXPECT_EQ(busy.GetReplyLength(), 0u);
  EXPECT_EQ(busy.Capacity(), 0u);

  ReplyProbe done;
  done.Append("Delete");
  done.Finish();
  EXPECT_TRUE(done.Reset());
  EXPECT_EQ(done.mCloseCalls, 0);
  EXPECT_FALSE(done.IsFinished());
  EXPECT_EQ(done.GetReply(), nullptr);
  // After a reset the buffer starts afresh: the next chunk is counted again.
  done.Append("Hibernate 30");
  EXPECT_EQ(done.GetReplyLength(), 12u);
}

}  // namespace
