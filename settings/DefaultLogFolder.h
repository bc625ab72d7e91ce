/* The default log folder for callers in C as well as C++: where a host
 * application writes the logs the agent sends.
 *
 * Plain C. C++ callers also have the std::string form in Locations.h. */
#ifndef PORVANE_SETTINGS_DEFAULTLOGFOLDER_H
#define PORVANE_SETTINGS_DEFAULTLOGFOLDER_H

#include "PorvaneExport.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The status that says ioBuffer was too small (the other statuses are those
 * of GetUserPaths in Locations.h: 0 success, 4 location not found, 5 the
 * settings folder could not be made, 8 the log folder could not be made). */
#define PORVANE_BUFFER_TOO_SMALL 7

/* Works the user's folders out as GetUserPaths does (making them when
 * missing) and copies the log folder ($XDG_STATE_HOME/Logs/Tarvo/Porvane,
 * else ~/.local/state/Logs/Tarvo/Porvane) into ioBuffer with its closing NUL.
 * - GetUserPaths failed: returns its status; nothing else changes.
 * - The folder and its NUL need more than *ioSize bytes: returns 7 and sets
 *   *ioSize to the size needed; ioBuffer is not touched.
 * - Otherwise copies with strncpy(ioBuffer, folder, *ioSize), so the rest of
 *   the buffer is filled with NULs, sets *ioSize to the size used (length
 *   + 1) and returns 0. When the state folder could not be looked up but the
 *   settings folder could, that folder is "" (GetUserPaths masks the failure).
 * REQUIRES: ioSize is not NULL; ioBuffer holds *ioSize bytes (it may be NULL
 * when *ioSize is 0, which asks for the size alone). */
PORVANE_API int GetDefaultLogFolder(char* ioBuffer, unsigned int* ioSize);

#ifdef __cplusplus
}
#endif

#endif /* PORVANE_SETTINGS_DEFAULTLOGFOLDER_H */
