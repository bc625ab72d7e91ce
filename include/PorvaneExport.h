/* What libporvane exports.
 *
 * The shared library is built with hidden visibility: only declarations
 * marked PORVANE_API are part of its face, everything else stays inside.
 * The static libraries the programs link carry the same marks, where they
 * change nothing. Plain C, so that C headers can use it too. */
#ifndef PORVANE_INCLUDE_PORVANEEXPORT_H
#define PORVANE_INCLUDE_PORVANEEXPORT_H

#if defined(__GNUC__)
#define PORVANE_API __attribute__((visibility("default")))
#else
#define PORVANE_API
#endif

#endif /* PORVANE_INCLUDE_PORVANEEXPORT_H */
