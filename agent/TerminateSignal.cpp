#include "TerminateSignal.h"

#include "StopFlag.h"

void OnTerminateSignal(int /*inSignal*/) {
  StopFlag* flag = activeStopFlag.load();
  if (flag != nullptr) flag->stopRequested.store(true);
}
