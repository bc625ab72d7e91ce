#include "StopFlag.h"

#include <csignal>
#include <initializer_list>

#include "Assert.h"

std::atomic<StopFlag*> activeStopFlag{nullptr};

void OnTerminateSignal(int /*inSignal*/) {
  StopFlag* flag = activeStopFlag.load();
  if (flag != nullptr) flag->stopRequested.store(true);
}

void InstallStopHandlers() {
  struct sigaction action = {};
  action.sa_handler = OnTerminateSignal;
  sigemptyset(&action.sa_mask);
  action.sa_flags = 0;  // no SA_RESTART: an interrupted sleep returns at once
  for (int signal : {SIGTERM, SIGINT, SIGHUP}) ::sigaction(signal, &action, nullptr);
}

StopPublisher::StopPublisher(StopFlag& inFlag) {
  StopFlag* none = nullptr;
  const bool published = activeStopFlag.compare_exchange_strong(none, &inFlag);
  QVD_ASSERT(published);
}

StopPublisher::~StopPublisher() { activeStopFlag.store(nullptr); }
