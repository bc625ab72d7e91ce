// The receiver's output: whole lines to a descriptor, written by a thread of
// their own, so that a reader who stops reading costs lines, never requests.
//
// Print only queues the line. The writer sends queued lines as soon as the
// descriptor takes them, never two lines run together. While the queue is
// full (a stalled reader) further lines are dropped and counted; the count
// goes to the error descriptor once the reader takes lines again, and when
// the printer stops.
#ifndef PORVANE_RECEIVER_LINEPRINTER_H
#define PORVANE_RECEIVER_LINEPRINTER_H

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

class LinePrinter {
 public:
  // Lines held while the reader does not take them.
  static constexpr size_t kQueueLines = 4096;

  // inOutput and inErrors must stay open while the printer is used; neither
  // is closed, nor switched to non-blocking mode (it may be shared).
  LinePrinter(int inOutput, int inErrors);
  // Stop().
  ~LinePrinter();
  LinePrinter(const LinePrinter&) = delete;
  LinePrinter& operator=(const LinePrinter&) = delete;

  // Queues inLine and a line feed; never waits for the reader. Thread-safe.
  void Print(const std::string& inLine);

  // Writes what is queued, waiting at most about a second for a stalled
  // reader, counts the rest as dropped, reports the count, and ends the
  // writer. Later lines are dropped silently. Call once the server is done.
  void Stop();

 private:
  void WriterLoop();
  // Writes inText whole unless the descriptor stays unwritable past the
  // wait or fails; false then.
  bool WriteOut(int inFd, const std::string& inText, bool inStopping);
  void ReportDropped(unsigned long long inCount);

  const int mOutput;
  const int mErrors;
  std::mutex mMutex;
  std::condition_variable mWake;
  std::deque<std::string> mQueue;
  unsigned long long mDropped = 0;  // not yet reported
  bool mStopping = false;
  std::thread mWriter;
};

#endif  // PORVANE_RECEIVER_LINEPRINTER_H
