#include "LinePrinter.h"

void LinePrinter::Print(const std::string& inLine) {
  std::lock_guard<std::mutex> lock(mMutex);
  std::fwrite(inLine.data(), 1, inLine.size(), mStream);
  std::fputc('\n', mStream);
  std::fflush(mStream);
}
