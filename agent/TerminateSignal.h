// The SIGTERM handler of the agent.
#ifndef PORVANE_AGENT_TERMINATESIGNAL_H
#define PORVANE_AGENT_TERMINATESIGNAL_H

// Installed with signal(SIGTERM, OnTerminateSignal). When a file is being
// handled (activeStopFlag non-null) it sets that file's stopRequested, which
// ends the file's transfer and retries; between files it does nothing. It
// never logs and never ends the process: the pass always finishes normally.
// Async-signal-safe: one atomic load and at most one atomic store.
void OnTerminateSignal(int inSignal);

#endif  // PORVANE_AGENT_TERMINATESIGNAL_H
