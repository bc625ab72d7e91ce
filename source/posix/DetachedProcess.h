// Starting programs: one that lives on by itself, or one that is waited for.
#ifndef PORVANE_SOURCE_POSIX_DETACHEDPROCESS_H
#define PORVANE_SOURCE_POSIX_DETACHEDPROCESS_H

#include <string>
#include <vector>

// Starts the program inArgv[0] with the arguments inArgv (inArgv[0] included,
// as argv[0]) and the current environment, in a new session, with standard
// input from /dev/null and standard output and error inherited.
//
// The program is started by a short-lived intermediate child and is then
// adopted by init (or the nearest subreaper): the caller never has to wait
// for it and no zombie is left behind. The call returns once the program
// has replaced the child (exec succeeded) or has failed to.
//
// inSearchPath: look inArgv[0] up in PATH (execvp) instead of taking it as a
// path (execv).
//
// Returns true when the program was started. False when inArgv is empty,
// when a pipe or process could not be made, or when exec failed (no such
// file, not executable, ...); in that case errno holds the reason.
bool StartDetached(const std::vector<std::string>& inArgv, bool inSearchPath);

// Runs the program inArgv[0] (looked up in PATH with inSearchPath) with the
// arguments inArgv and the current environment, standard input from
// /dev/null, and waits for it. Returns its exit status; -1 when inArgv is
// empty, when it could not be started (no such program, not executable) or
// when a signal ended it.
int RunProgram(const std::vector<std::string>& inArgv, bool inSearchPath);

#endif  // PORVANE_SOURCE_POSIX_DETACHEDPROCESS_H
