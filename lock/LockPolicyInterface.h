// The operations every lock offers.
#ifndef PORVANE_LOCK_LOCKPOLICYINTERFACE_H
#define PORVANE_LOCK_LOCKPOLICYINTERFACE_H

#include <boost/noncopyable.hpp>

namespace qvd {

// A lock stands for something outside the object, so it is never copied or
// assigned. Implementations say how they wait and what a failure means.
class LockPolicyInterface : private boost::noncopyable {
 public:
  // Takes the lock; true when it is held on return.
  virtual bool lock() = 0;
  // Gives the lock back; inForce also removes one this object does not hold.
  // True when it was released.
  virtual bool unlock(bool inForce) = 0;
  // True while this object holds the lock.
  virtual bool isLocked() const = 0;

 protected:
  // Not deleted through this interface; owners hold the concrete class.
  ~LockPolicyInterface() = default;
};

}  // namespace qvd

#endif  // PORVANE_LOCK_LOCKPOLICYINTERFACE_H
