// A shared library of the system, loaded at run time so that its symbols can
// be looked up by name.
#ifndef PORVANE_INCLUDE_ORUFRAMEWORKBUNDLE_H
#define PORVANE_INCLUDE_ORUFRAMEWORKBUNDLE_H

#include <string>

#include "PorvaneExport.h"

namespace qvd {

// Owns one dlopen handle: the library stays loaded for the object's life and
// is released (dlclose) when it goes away. Not copyable.
class PORVANE_API ORUFrameworkBundle {
 public:
  // Loads inFrameworkName the way the dynamic loader finds a soname (e.g.
  // "libc.so.6"), resolving all its symbols at once. A library already in the
  // process is not loaded twice, only referenced once more.
  // Throws std::runtime_error("unable to load bundle") when it cannot be loaded.
  explicit ORUFrameworkBundle(const std::string& inFrameworkName);
  virtual ~ORUFrameworkBundle();

  ORUFrameworkBundle(const ORUFrameworkBundle&) = delete;
  ORUFrameworkBundle& operator=(const ORUFrameworkBundle&) = delete;

  // The address of the function inFunctionName in this library (or one it
  // depends on); null when there is no such symbol.
  // REQUIRES: inFunctionName != nullptr (asserted).
  void* getFunctionPointer(const char* inFunctionName) const;

  // The address of the data symbol inSymbolName; null when there is none.
  // REQUIRES: inSymbolName != nullptr (asserted).
  void* getDataPointer(const char* inSymbolName) const;

 private:
  void* mBundleRef;  // the dlopen handle, never null in a constructed object
};

}  // namespace qvd

#endif  // PORVANE_INCLUDE_ORUFRAMEWORKBUNDLE_H
