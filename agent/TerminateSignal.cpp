#include "agent/TerminateSignal.h"

#include "agent/StopFlag.h"

void OnTerminateSignal(int /*inSignal*/) {
  StopFlag* flag = activeStopFlag.load();
  if (flag != nullptr) flag->stopRequested.store(true);
}
