#include "Uploader.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

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
  void Append(const std::string& inBytes) {
    AppendReply(reinterpret_cast<const uint8_t*>(inBytes.data()), static_cast<uint32_t>(inBytes.size()));
  }

  int mCloseCalls = 0;
};

TEST(UploaderReply, FirstChunkCountsLaterFittingChunksLieBehindItUntilAReset) {
  ReplyProbe probe;
  probe.Append("Active");
  EXPECT_EQ(probe.GetReply(), nullptr) << "bytes arrived, but the exchange has not ended";
  probe.Finish();
  EXPECT_STREQ(probe.GetReply(), "Active");
  probe.Append("XY");
  EXPECT_EQ(probe.GetReplyLength(), 6u);
  EXPECT_EQ(std::string(probe.GetReply(), 8), "ActiveXY") << "the second chunk overwrites the terminator";
  probe.Append("Q");
  EXPECT_EQ(std::string(probe.GetReply(), 8), "ActiveQY") << "each later chunk lands at the same place";

  EXPECT_TRUE(probe.Reset());
  EXPECT_EQ(probe.mCloseCalls, 0) << "a finished exchange has nothing to close";
  EXPECT_FALSE(probe.IsFinished());
  EXPECT_EQ(probe.Capacity(), 0u);
  probe.UploadFile("", "");
  probe.Append("Hibernate 30");
  EXPECT_EQ(probe.GetReplyLength(), 12u) << "after a reset the next chunk is counted again";
  EXPECT_TRUE(probe.Reset());
  EXPECT_EQ(probe.mCloseCalls, 1) << "a transfer in progress is closed";
  EXPECT_EQ(probe.GetReplyLength(), 0u);
}

TEST(UploaderReply, ChunksThatDoNotFitGrowTheArrayAndAreTerminatedInBounds) {
  // Chunk sizes, then the capacity and length they leave. A first chunk that
  // fills the array puts its terminator one past the capacity (the sanitizer
  // build checks it stays in bounds); at 1 + 16384 the doubling stops with the
  // length past the capacity, and the next chunk must grow, not overwrite.
  const struct {
    std::vector<uint32_t> chunks;
    uint32_t capacity, length;
  } kCases[] = {{{16384}, 16384, 16384}, {{100, 16384}, 32768, 16484}, {{1, 16384}, 16384, 16385},
                {{1, 16384, 3}, 32768, 16388}, {{70000}, 131072, 70000}};
  for (const auto& c : kCases) {
    ReplyProbe probe;
    std::string all;
    for (uint32_t size : c.chunks) {
      std::string chunk(size, static_cast<char>('a' + all.size() % 26));
      probe.Append(chunk);
      all += chunk;
    }
    probe.Finish();
    EXPECT_EQ(probe.Capacity(), c.capacity) << all.size();
    EXPECT_EQ(probe.GetReplyLength(), c.length) << all.size();
    EXPECT_EQ(std::string(probe.GetReply()), all) << "every byte kept, then a terminator";
  }
}

}  // namespace
