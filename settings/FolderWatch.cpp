#include "FolderWatch.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {

constexpr uint32_t kChanges =
    IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_MODIFY | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF;

}  // namespace

FolderWatch::FolderWatch(const std::string& inFolder, const char* inIgnoredMarker)
    : mInotify(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)), mIgnoredMarker(inIgnoredMarker) {
  mWatching = mInotify.IsOpen() && ::inotify_add_watch(mInotify.Get(), inFolder.c_str(), kChanges | IN_ONLYDIR) >= 0;
}

void FolderWatch::StartListing() {
  if (!mWatching) return;
  DrainEvents(false);
  mOwnRemovals.clear();
}

bool FolderWatch::Stale() { return !mWatching || DrainEvents(true); }

bool FolderWatch::DrainEvents(bool inCount) {
  alignas(inotify_event) char buffer[16384];
  bool changed = false;
  for (;;) {
    const ssize_t length = ::read(mInotify.Get(), buffer, sizeof buffer);
    if (length < 0 && errno == EINTR) continue;
    if (length <= 0) {
      // Nothing queued (EAGAIN); anything else means changes can no longer
      // be told.
      if (length == 0 || errno != EAGAIN) mWatching = false;
      return changed || !mWatching;
    }
    for (ssize_t at = 0; at < length;) {
      const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
      at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
      // A full queue lost events; a watch that went with its folder tells
      // nothing more.
      if ((event->mask & (IN_Q_OVERFLOW | IN_IGNORED)) != 0) mWatching = false;
      if (!inCount || (event->mask & IN_ISDIR) != 0) continue;
      const std::string name = event->len > 0 ? event->name : "";
      if (!name.empty() && name.find(mIgnoredMarker) != std::string::npos) continue;
      auto own = mOwnRemovals.find(name);
      if ((event->mask & IN_DELETE) != 0 && own != mOwnRemovals.end()) {
        if (--own->second == 0) mOwnRemovals.erase(own);
        continue;
      }
      changed = true;
    }
  }
}
