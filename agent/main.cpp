// porvane: one pass of the log-upload agent.
//
// Exit status: 0 when the upload run completed, 1 otherwise, 2 for a rejected
// argument (reported on one line of standard error before any lock is taken).
// Any other exception is reported on one line and gives 1, once the stack
// has unwound and with it the lock been released; only a failed assertion
// (a programming error) ends the process abnormally.
#include <cstdio>
#include <stdexcept>

#include "AgentMain.h"

int main(int argc, char** argv) {
  try {
    return RunAgent(argc, argv);
  } catch (const std::invalid_argument& rejected) {
    std::fprintf(stderr, "porvane: invalid argument: %s\n", rejected.what());
    return 2;
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "porvane: %s\n", failure.what());
    return 1;
  }
}
