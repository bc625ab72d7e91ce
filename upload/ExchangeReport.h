// What the transport can tell about how one exchange ended, for whoever
// wants to explain a pass (the run's diagnostics). The reply's text is not
// part of it: that stays with the uploader (GetReply).
#ifndef PORVANE_UPLOAD_EXCHANGEREPORT_H
#define PORVANE_UPLOAD_EXCHANGEREPORT_H

#include <string>

struct ExchangeReport {
  std::string url;      // the receiver URL as sent, without user name or password
  long httpStatus = 0;  // the status line's code; 0 when no reply came
  std::string error;    // why the exchange failed or could not be set up; "" when it did not
  // The file could not supply its length (it shrank, or a read of it failed)
  // and the exchange was cut short: the entry's trouble, not the receiver's.
  bool fileShrank = false;
};

// Receives one report at the end of every exchange, set up or not.
class ExchangeObserver {
 public:
  virtual void OnExchangeEnded(const ExchangeReport& inReport) = 0;

 protected:
  ~ExchangeObserver() = default;
};

#endif  // PORVANE_UPLOAD_EXCHANGEREPORT_H
