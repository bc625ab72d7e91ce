#include "ResourceLockExceptions.h"

namespace qvd {

resource_lock_fail::resource_lock_fail(const std::string& inResource, const char* inMessage)
    : std::runtime_error(inMessage), mResource(inResource) {}

resource_lock_fail::~resource_lock_fail() = default;

const char* resource_lock_fail::resource() const { return mResource.c_str(); }

no_resource_lock::no_resource_lock(const std::string& inResource, const char* inMessage)
    : std::runtime_error(inMessage), mResource(inResource) {}

no_resource_lock::~no_resource_lock() = default;

const char* no_resource_lock::resource() const { return mResource.c_str(); }

}  // namespace qvd
