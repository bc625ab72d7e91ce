#include "ORUFrameworkBundle.h"

#include <dlfcn.h>

#include <stdexcept>

#include "Assert.h"

namespace qvd {

ORUFrameworkBundle::ORUFrameworkBundle(const std::string& inFrameworkName)
    : mBundleRef(dlopen(inFrameworkName.c_str(), RTLD_NOW | RTLD_LOCAL)) {
  // RTLD_NOW: a library with unresolvable dependencies fails here, at one
  // known place, instead of at some later call through the table.
  if (mBundleRef == nullptr) throw std::runtime_error("unable to load bundle");
}

ORUFrameworkBundle::~ORUFrameworkBundle() {
  QVD_ASSERT(mBundleRef);
  dlclose(mBundleRef);
}

void* ORUFrameworkBundle::getFunctionPointer(const char* inFunctionName) const {
  QVD_ASSERT(inFunctionName);
  return dlsym(mBundleRef, inFunctionName);
}

void* ORUFrameworkBundle::getDataPointer(const char* inSymbolName) const {
  QVD_ASSERT(inSymbolName);
  return dlsym(mBundleRef, inSymbolName);
}

}  // namespace qvd
