// The folder where the receiver keeps what it was sent: one file per upload,
// written aside as it arrives and given its name only when complete, never
// over a file that is there already; optionally held to a total size.
#ifndef PORVANE_RECEIVER_SPOOL_H
#define PORVANE_RECEIVER_SPOOL_H

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "FileDescriptor.h"

class Spool {
 public:
  // Copies under one name beyond the first: NAME.1 to NAME.999.
  static constexpr int kMaxCopies = 999;

  // REQUIRES: inFolder names an existing folder; it must remain so while the
  // Spool is used. inMaxBytes limits the sizes of the files in it, counted
  // together with the uploads being received; 0 for no limit. The folder is
  // looked over once now when there is a limit.
  Spool(std::string inFolder, unsigned long long inMaxBytes);

  // The name an upload called inFileName is stored under: its last path
  // component. "" when that is unusable ("", ".", "..", or holding a zero
  // byte), so nothing can ever be written outside the folder.
  static std::string StoredName(std::string_view inFileName);

  // One upload being received, in a temporary file of the spool (a dot
  // name, never one an upload can take); the file goes when the object does
  // unless Place gave it its name. Used by one thread at a time.
  class Incoming {
   public:
    ~Incoming();
    Incoming(const Incoming&) = delete;
    Incoming& operator=(const Incoming&) = delete;

    // Appends inData. Returns 0 or an errno value; EDQUOT when the spool's
    // limit would be passed (nothing of inData is written then).
    int Write(std::string_view inData);
    // Cuts the last inCount bytes written. Returns 0 or an errno value.
    int DropTail(unsigned long long inCount);
    unsigned long long Size() const { return mWritten; }

   private:
    friend class Spool;
    Incoming(Spool& inSpool, std::string inPath, FileDescriptor inFile);

    Spool& mSpool;
    std::string mPath;  // "" once placed
    FileDescriptor mFile;
    unsigned long long mWritten = 0;
  };

  // A new temporary file; null with outError set to the errno value when it
  // cannot be made.
  std::unique_ptr<Incoming> Open(int& outError);

  // Closes ioFile and names it inStoredName, or NAME.1, NAME.2 ... when that
  // is taken, never replacing a file. Returns 0 and the name in outName, or
  // an errno value (EEXIST when every copy name is taken); ioFile then still
  // removes its file.
  // REQUIRES: inStoredName is a non-empty result of StoredName.
  // Thread-safe: concurrent uploads of one name each get their own file.
  int Place(Incoming& ioFile, const std::string& inStoredName, std::string& outName);

  const std::string& Folder() const { return mFolder; }

 private:
  // Counts inBytes more against the limit; false when they do not fit, even
  // after looking the folder over again (at most once a second).
  bool Reserve(unsigned long long inBytes);
  void Release(unsigned long long inReceiving, unsigned long long inStored);
  // The sizes of the files in the folder, temporary ones left out.
  unsigned long long StoredBytes() const;

  std::string mFolder;
  const unsigned long long mMaxBytes;
  std::mutex mMutex;
  unsigned long long mStored = 0;     // in place, as last counted plus placed since
  unsigned long long mReceiving = 0;  // in temporary files
  std::chrono::steady_clock::time_point mLastCount;
};

#endif  // PORVANE_RECEIVER_SPOOL_H
