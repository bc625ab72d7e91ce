// porvane-receiver: the reference collection server for demos, tests and
// operators. Parses the command line, prepares the spool and the policy,
// then serves, on loopback unless told otherwise, until SIGTERM or SIGINT.
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <boost/system/system_error.hpp>
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include "BasicAuth.h"
#include "LinePrinter.h"
#include "ReceiverOptions.h"
#include "ReceiverServer.h"
#include "ReplyPolicy.h"
#include "Spool.h"
#include "UploadHandler.h"

namespace {

int Fail(const std::string& inMessage, int inStatus) {
  std::fprintf(stderr, "porvane-receiver: %s\n", inMessage.c_str());
  return inStatus;
}

// Load generators open many connections at once; the usual soft limit of
// 1024 descriptors would refuse them before kMaxConnections is reached. Each
// connection may hold a temporary file in the spool as well.
void AllowEnoughDescriptors() {
  const rlim_t kWanted = 2 * ReceiverServer::kMaxConnections + 64;
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= kWanted) return;
  limit.rlim_cur = std::min(kWanted, limit.rlim_max);
  ::setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace

int main(int argc, char** argv) {
  ReceiverOptions options;
  std::string error = ParseReceiverOptions(std::vector<std::string>(argv + 1, argv + argc), options);
  if (!error.empty()) return Fail(error, 2);
  if (options.help) {
    std::fputs(kReceiverUsage, stdout);
    return 0;
  }

  // Clients that disconnect, and a reader of our output that goes away, must
  // not end the server.
  ::signal(SIGPIPE, SIG_IGN);
  AllowEnoughDescriptors();

  std::error_code spoolError;
  std::filesystem::create_directories(options.spoolFolder, spoolError);
  if (spoolError || !std::filesystem::is_directory(options.spoolFolder))
    return Fail("cannot use spool folder " + options.spoolFolder + ": " + spoolError.message(), 2);
  ReplyPolicy policy;
  if (!options.policyFile.empty() && !policy.Read(options.policyFile))
    return Fail("cannot read policy file " + options.policyFile, 2);
  BasicAuth auth;
  if (!options.authFile.empty()) {
    error = auth.Read(options.authFile);
    if (!error.empty()) return Fail("bad user file: " + error, 2);
  }

  Spool spool(options.spoolFolder, options.maxSpoolBytes);
  UploadHandler handler(spool, policy, options.authFile.empty() ? nullptr : &auth);
  // Declared before the server, so that it outlives it: at the end it says
  // how many lines a stalled reader missed.
  LinePrinter printer(STDOUT_FILENO, STDERR_FILENO);
  try {
    ReceiverServer server(handler, printer, options);
    const bool tls = !options.certificateFile.empty();
    printer.Print("porvane-receiver: listening on " + server.Endpoint() + (tls ? " (TLS)" : ""));
    server.Run();
  } catch (const ReceiverServer::CredentialsError& e) {
    return Fail(e.what(), 2);
  } catch (const boost::system::system_error& e) {
    return Fail("cannot listen on " + options.listenAddress + " port " + std::to_string(options.port) + ": " +
                    e.code().message(),
                1);
  }
  return 0;
}
