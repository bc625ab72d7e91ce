// Whole lines to a stdio stream from several threads, each flushed at once:
// readers follow the receiver through a pipe and must see every request as
// it is answered, never two lines run together.
#ifndef PORVANE_RECEIVER_LINEPRINTER_H
#define PORVANE_RECEIVER_LINEPRINTER_H

#include <cstdio>
#include <mutex>
#include <string>

class LinePrinter {
 public:
  // inStream must remain open while the printer is used; it is not closed.
  explicit LinePrinter(std::FILE* inStream) : mStream(inStream) {}
  LinePrinter(const LinePrinter&) = delete;
  LinePrinter& operator=(const LinePrinter&) = delete;

  // Writes inLine and a line feed, then flushes. A reader that went away is
  // not an error of the receiver: write failures are ignored.
  void Print(const std::string& inLine);

 private:
  std::mutex mMutex;
  std::FILE* mStream;
};

#endif  // PORVANE_RECEIVER_LINEPRINTER_H
