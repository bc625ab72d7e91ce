#include "ORUSysAccessor.h"

#include <algorithm>
#include <stdexcept>
#include <vector>

namespace qvd {

namespace {

// The C names of the entries, indexed by ORUSysFunction.
const char* const kORUSysFunctionNames[kORUSysFunctionCount] = {
    "system", "getenv", "setenv", "unsetenv", "socket", "ioctl", "getprotobyname", "popen",
    "pclose", "fread",  "fseek",  "ftell",    "ftok",   "semget", "semop",         "signal",
    "ualarm", "sem_open", "sem_close", "sem_unlink", "nice", "access"};

const char* const kORUSystemLibrary = "libc.so.6";

// Looks up inCount function names of inBundle, in order, and stores them in
// outSlots[0..inCount). All or nothing: the first name the library does not
// export throws std::runtime_error("missing symbol") and outSlots is left as
// it was.
void ResolveFunctionTable(const ORUFrameworkBundle& inBundle, const char* const* inNames, size_t inCount,
                          void** outSlots) {
  // Resolved aside first, so that a failure leaves no half-filled table.
  std::vector<void*> resolved(inCount);
  for (size_t i = 0; i < inCount; ++i) {
    resolved[i] = inBundle.getFunctionPointer(inNames[i]);
    if (resolved[i] == nullptr) throw std::runtime_error("missing symbol");
  }
  std::copy(resolved.begin(), resolved.end(), outSlots);
}

}  // namespace

ORUSysAccessor::ORUSysAccessor() : mBundle(kORUSystemLibrary), mFunctions() {
  ResolveFunctionTable(mBundle, kORUSysFunctionNames, kORUSysFunctionCount, mFunctions);
}

ORUSysAccessor::~ORUSysAccessor() = default;

char* ORUSysAccessor::getenv(const char* inName) const {
  return entry<char* (*)(const char*)>(kORUGetenv)(inName);
}

int ORUSysAccessor::ioctl(int inFd, unsigned long inRequest, void* inArgument) const {
  return entry<int (*)(int, unsigned long, ...)>(kORUIoctl)(inFd, inRequest, inArgument);
}

sem_t* ORUSysAccessor::sem_open(const char* inName, int inOpenFlags, mode_t inMode, unsigned inValue) const {
  return entry<sem_t* (*)(const char*, int, ...)>(kORUSemOpen)(inName, inOpenFlags, inMode, inValue);
}

int ORUSysAccessor::sem_close(sem_t* inSemaphore) const {
  return entry<int (*)(sem_t*)>(kORUSemClose)(inSemaphore);
}

int ORUSysAccessor::sem_unlink(const char* inName) const {
  return entry<int (*)(const char*)>(kORUSemUnlink)(inName);
}

GlobalORUSysAccessor& GlobalORUSysAccessor::instance() {
  static GlobalORUSysAccessor sInstance;
  return sInstance;
}

}  // namespace qvd
