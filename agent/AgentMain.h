// One pass of the agent, from the command line to the exit status.
#ifndef PORVANE_AGENT_AGENTMAIN_H
#define PORVANE_AGENT_AGENTMAIN_H

// The built-in receiver, used when neither the command line, the environment
// nor the installation's "UploadURL" names one.
extern const char* const kBuiltInReceiverUrl;

// Runs one pass: installs the SIGTERM handler, parses the options, takes the
// machine-wide lock (unless "noLock"), trims the default log folder, resolves
// the log folder and the receiver and uploads. Returns 0 when the upload run
// was made and completed, 1 otherwise.
// Throws std::invalid_argument (the argument's text) for a rejected argument,
// before any lock is taken; other exceptions of the called code pass through.
int RunAgent(int argc, char** argv);

#endif  // PORVANE_AGENT_AGENTMAIN_H
