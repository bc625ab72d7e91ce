// One HTTP upload of one log file, and the reply that came back.
//
// Uploader owns the reply buffer and the two state flags; the transport lives
// in a platform class (Uploader_Curl) that callers never name: they get one
// from CreateUploader, call UploadFile once, read IsFinished and GetReply, and
// delete it. One object serves one file. Not thread-safe: everything happens
// on the thread that calls UploadFile.
#ifndef PORVANE_UPLOAD_UPLOADER_H
#define PORVANE_UPLOAD_UPLOADER_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <string>

#include "ExchangeReport.h"

// A log file opened for one upload. The run opens it (OpenRegularFile) and
// keeps it open; the uploader only reads it, by position from offset 0, and
// never closes it.
struct UploadSource {
  int fd = -1;           // open for reading
  uint64_t length = 0;   // bytes to send: the size the fstat at the open saw
  std::string fileName;  // the name given to the receiver
};

class Uploader {
 public:
  Uploader();
  Uploader(const Uploader&) = delete;
  Uploader& operator=(const Uploader&) = delete;

  // Ends whatever connection the platform class holds; leaves the flags.
  virtual void Close() = 0;
  virtual ~Uploader();

  // Posts inSource.length bytes of inSource as a multipart body to inUrl and
  // blocks until the exchange ends. True when the request was sent and the
  // exchange ran to its end (an error and a normal end alike, whatever the
  // HTTP status); false when it could not be set up (empty or bad URL). On
  // return IsFinished() is true in both cases. When the file holds fewer
  // bytes than inSource.length by the time they are read, or a read of it
  // fails, the exchange ends early and the report says so
  // (ExchangeReport::fileShrank); bytes beyond inSource.length are not sent.
  // An exchange in which no byte is sent or received for IdleLimit() ends
  // like a failed one, its report's error naming the limit.
  virtual bool UploadFile(const UploadSource& inSource, const std::string& inUrl) = 0;

  // The same for the file at inFilePath, opened here; its name is the text
  // after the path's last "/". False, with the report's error "cannot read
  // the log file", when it cannot be opened as a regular file.
  bool UploadFile(const std::string& inFilePath, const std::string& inUrl);

  // Closes a transfer in progress, drops the reply and returns to idle. True.
  bool Reset();

  // True once an exchange has ended, by success or failure.
  bool IsFinished() const { return m_finished; }

  // The reply body once finished, else null; null too when no reply byte came.
  // Valid until Reset() or destruction. Only the first chunk of a reply is
  // dependable (see AppendReply).
  const char* GetReply() const;

  // Hands the uploader the stop flag of the file being handled (may be null).
  // While a transfer runs, a flag that becomes true ends it promptly, as an
  // error would. REQUIRES: the flag outlives the uploader.
  void SetStopFlag(const std::atomic<bool>* inStopRequested) { m_stopRequested = inStopRequested; }

  // Hands the uploader an observer (may be null) that hears how each
  // exchange ended. REQUIRES: the observer outlives the uploader.
  void SetObserver(ExchangeObserver* inObserver) { m_observer = inObserver; }

  // How long an exchange may go without sending or receiving a byte before
  // it is given up (checked about once a second): 300 s unless set.
  void SetIdleLimit(std::chrono::seconds inLimit) { m_idleLimit = inLimit; }
  std::chrono::seconds IdleLimit() const { return m_idleLimit; }

  // Appends received reply bytes. When they do not fit (capacity - length <
  // inLength + 1) the array grows (16384 to start, doubling while capacity + 1
  // < length + inLength), the bytes are appended, the length advances and a
  // terminator is written. When they fit, they are copied to position
  // m_replyLength and the length stays: a later chunk is laid over the first
  // one's tail. Replies are one short word, well within one chunk; this
  // overlay is the kept behaviour. Every write stays inside the array.
  void AppendReply(const uint8_t* inData, uint32_t inLength);

 protected:
  bool StopRequested() const { return m_stopRequested != nullptr && m_stopRequested->load(); }
  void Report(const ExchangeReport& inReport) const {
    if (m_observer != nullptr) m_observer->OnExchangeEnded(inReport);
  }

  std::map<std::string, std::string> m_values;  // kept; nothing fills it
  uint8_t* m_replyData = nullptr;
  uint32_t m_replyLength = 0;
  uint32_t m_replyCapacity = 0;
  bool m_finished = false;
  bool m_inProgress = false;

 private:
  const std::atomic<bool>* m_stopRequested = nullptr;
  ExchangeObserver* m_observer = nullptr;
  std::chrono::seconds m_idleLimit{300};
};

// A new platform uploader, owned by the caller (delete through Uploader).
Uploader* CreateUploader();

#endif  // PORVANE_UPLOAD_UPLOADER_H
