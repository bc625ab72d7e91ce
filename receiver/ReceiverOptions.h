// The receiver's command line.
#ifndef PORVANE_RECEIVER_RECEIVEROPTIONS_H
#define PORVANE_RECEIVER_RECEIVEROPTIONS_H

#include <string>
#include <vector>

struct ReceiverOptions {
  std::string listenAddress = "127.0.0.1";  // an IPv4 or IPv6 address, never a host name
  int port = 0;                             // 0: the system picks a free port
  std::string spoolFolder;                  // required
  std::string policyFile;                   // "" when none was given
  std::string authFile;                     // "user:hash" lines; "" lets anyone upload
  std::string certificateFile;              // PEM chain; with keyFile, serve HTTPS; "" for HTTP
  std::string keyFile;                      // PEM private key of the certificate
  int delayMs = 0;                          // wait before each answer
  // The TLS handshake and a connection's first request headers must arrive
  // within this many seconds.
  int headerTimeoutSeconds = 10;
  // Connections of one client address that have not yet sent a request's
  // headers; more are refused at once. 0: no limit.
  int maxPerAddress = 16;
  unsigned long long maxBodyBytes = 1ull << 30;  // larger bodies get 413
  unsigned long long maxSpoolBytes = 0;          // 0: no limit; beyond it 507
  bool help = false;
};

// The usage text printed for --help.
extern const char* const kReceiverUsage;

// Parses the arguments after the program name. Options take their value as
// the next argument or after "=" ("--port 8080", "--port=8080"). Returns ""
// and fills outOptions, or a one-line message for the first problem found:
// an unknown option, a missing or malformed value (an address that is not a
// numeric IPv4 or IPv6 address included), no --spool, --cert without --key
// or the other way round. With --help the other options are not checked.
std::string ParseReceiverOptions(const std::vector<std::string>& inArgs, ReceiverOptions& outOptions);

#endif  // PORVANE_RECEIVER_RECEIVEROPTIONS_H
