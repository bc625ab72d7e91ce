// The two misuses of a qvd::ResourceLocker, thrown with the resource involved.
#ifndef PORVANE_LOCK_RESOURCELOCKEXCEPTIONS_H
#define PORVANE_LOCK_RESOURCELOCKEXCEPTIONS_H

#include <stdexcept>
#include <string>

namespace qvd {

// lock() on an object that already holds its lock. what() is the message,
// resource() the lock name.
class resource_lock_fail : public std::runtime_error {
 public:
  resource_lock_fail(const std::string& inResource, const char* inMessage);
  ~resource_lock_fail() override;
  virtual const char* resource() const;

 private:
  std::string mResource;
};

// unlock(false) on an object that holds no lock. what() is the message,
// resource() the resource text given when thrown.
class no_resource_lock : public std::runtime_error {
 public:
  no_resource_lock(const std::string& inResource, const char* inMessage);
  ~no_resource_lock() override;
  virtual const char* resource() const;

 private:
  std::string mResource;
};

}  // namespace qvd

#endif  // PORVANE_LOCK_RESOURCELOCKEXCEPTIONS_H
