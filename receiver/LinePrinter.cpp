#include "LinePrinter.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

namespace {

// One write takes lines up to this size together; a pipe takes a write of
// at most PIPE_BUF bytes whole once poll says it has room.
constexpr size_t kBatchBytes = 4096;
// How long a write waits for a stalled reader before looking at the stop
// request again, and how many such waits Stop grants.
constexpr int kPollMs = 100;
constexpr int kStopPolls = 10;

}  // namespace

LinePrinter::LinePrinter(int inOutput, int inErrors)
    : mOutput(inOutput), mErrors(inErrors), mWriter([this] { WriterLoop(); }) {}

LinePrinter::~LinePrinter() { Stop(); }

void LinePrinter::Print(const std::string& inLine) {
  std::lock_guard<std::mutex> lock(mMutex);
  if (mStopping) return;
  if (mQueue.size() >= kQueueLines) {
    ++mDropped;
    return;
  }
  mQueue.push_back(inLine + "\n");
  if (mQueue.size() == 1) mWake.notify_one();
}

void LinePrinter::Stop() {
  {
    std::lock_guard<std::mutex> lock(mMutex);
    if (mStopping) return;
    mStopping = true;
  }
  mWake.notify_one();
  mWriter.join();
}

bool LinePrinter::WriteOut(int inFd, const std::string& inText, bool inStopping) {
  size_t done = 0;
  int waits = 0;
  while (done < inText.size()) {
    pollfd ready{inFd, POLLOUT, 0};
    int polled = ::poll(&ready, 1, kPollMs);
    if (polled < 0 && errno != EINTR) return false;
    if (polled <= 0) {
      // A stalled reader: keep waiting while serving, give up when stopping.
      if (inStopping && ++waits >= kStopPolls) return false;
      if (!inStopping) {
        std::lock_guard<std::mutex> lock(mMutex);
        inStopping = mStopping;
      }
      continue;
    }
    ssize_t written = ::write(inFd, inText.data() + done, inText.size() - done);
    if (written < 0) {
      if (errno == EINTR || errno == EAGAIN) continue;
      return false;  // a reader that went away is not the receiver's fault
    }
    done += static_cast<size_t>(written);
  }
  return true;
}

void LinePrinter::ReportDropped(unsigned long long inCount) {
  if (inCount == 0) return;
  WriteOut(mErrors,
           "porvane-receiver: " + std::to_string(inCount) + " output lines dropped: standard output was not read\n",
           true);
}

void LinePrinter::WriterLoop() {
  for (;;) {
    std::string batch;
    size_t lines = 0;
    bool stopping = false;
    {
      std::unique_lock<std::mutex> lock(mMutex);
      mWake.wait(lock, [this] { return !mQueue.empty() || mStopping; });
      stopping = mStopping;
      if (mQueue.empty()) break;
      while (!mQueue.empty() && (batch.empty() || batch.size() + mQueue.front().size() <= kBatchBytes)) {
        batch += mQueue.front();
        mQueue.pop_front();
        ++lines;
      }
    }
    if (!WriteOut(mOutput, batch, stopping)) {
      std::lock_guard<std::mutex> lock(mMutex);
      mDropped += lines;
      if (stopping) break;
      continue;
    }
    unsigned long long dropped = 0;
    {
      std::lock_guard<std::mutex> lock(mMutex);
      dropped = mDropped;
      mDropped = 0;
    }
    // The reader takes lines again: say how many it missed.
    ReportDropped(dropped);
  }
  unsigned long long dropped = 0;
  {
    std::lock_guard<std::mutex> lock(mMutex);
    dropped = mDropped + mQueue.size();
    mDropped = 0;
    mQueue.clear();
  }
  ReportDropped(dropped);
}
