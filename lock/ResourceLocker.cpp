#include "ResourceLocker.h"

#include "ResourceLockerPlat.h"

namespace qvd {

ResourceLocker::ResourceLocker(const std::string& inName, uint32_t inTimeoutMs)
    : mImpl(std::make_unique<ResourceLockerPlat>(inName, inTimeoutMs)) {}

ResourceLocker::~ResourceLocker() = default;

bool ResourceLocker::lock() { return mImpl->lock(); }

bool ResourceLocker::unlock(bool inForce) { return mImpl->unlock(inForce); }

bool ResourceLocker::isLocked() const { return mImpl->isLocked(); }

void ResourceLocker::SetStopFlag(const std::atomic<bool>* inStop) { mImpl->SetStopFlag(inStop); }
int ResourceLocker::lastError() const { return mImpl->lastError(); }

}  // namespace qvd
