// The C library functions the component library calls through pointers
// resolved at run time, and the one process-wide table of them.
#ifndef PORVANE_INCLUDE_ORUSYSACCESSOR_H
#define PORVANE_INCLUDE_ORUSYSACCESSOR_H

#include <semaphore.h>
#include <sys/types.h>

#include <cstddef>

#include "ORUFrameworkBundle.h"
#include "PorvaneExport.h"

namespace qvd {

// The table's entries, in table order.
enum ORUSysFunction {
  kORUSystem, kORUGetenv, kORUSetenv, kORUUnsetenv, kORUSocket, kORUIoctl,
  kORUGetprotobyname, kORUPopen, kORUPclose, kORUFread, kORUFseek, kORUFtell,
  kORUFtok, kORUSemget, kORUSemop, kORUSignal, kORUUalarm, kORUSemOpen,
  kORUSemClose, kORUSemUnlink, kORUNice, kORUAccess,
  kORUSysFunctionCount
};

// Loads the C library ("libc.so.6") and resolves the whole table; a table that cannot be
// resolved completely is no table ("missing symbol", or "unable to load
// bundle" from the load). The forwarding calls take the C function's
// arguments and return its result unchanged, errno included: nothing is
// translated. Not copyable (it owns the loaded library).
class PORVANE_API ORUSysAccessor {
 public:
  ORUSysAccessor();
  virtual ~ORUSysAccessor();

  ORUSysAccessor(const ORUSysAccessor&) = delete;
  ORUSysAccessor& operator=(const ORUSysAccessor&) = delete;

  char* getenv(const char* inName) const;
  int ioctl(int inFd, unsigned long inRequest, void* inArgument) const;
  // The semaphore handle, or SEM_FAILED with errno set.
  sem_t* sem_open(const char* inName, int inOpenFlags, mode_t inMode, unsigned inValue) const;
  int sem_close(sem_t* inSemaphore) const;
  int sem_unlink(const char* inName) const;

 private:
  template <typename Function>
  Function entry(ORUSysFunction inWhich) const {
    return reinterpret_cast<Function>(mFunctions[inWhich]);
  }

  ORUFrameworkBundle mBundle;
  void* mFunctions[kORUSysFunctionCount];  // written once, in the constructor
};

// The one table of the process. Built by the first call of instance(); if
// that build throws, the exception reaches that caller and the next call
// builds again. Destroyed at exit, after main has returned.
class PORVANE_API GlobalORUSysAccessor : public ORUSysAccessor {
 public:
  // Thread-safe: the language's guard for local statics serialises the build.
  static GlobalORUSysAccessor& instance();

 private:
  GlobalORUSysAccessor() = default;
};

}  // namespace qvd

#endif  // PORVANE_INCLUDE_ORUSYSACCESSOR_H
