// The built agent against the reference receiver over HTTPS, with
// certificates made for the test, and over HTTP on the IPv6 loopback address.
// A private home and /dev/shm as in the other end-to-end tests; the private
// mount namespace also lets the test's CA join the system's CA bundle, the
// only one libcurl reads.
#include <signal.h>
#include <sys/mount.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>

#include "PrivateHome.h"

namespace fs = std::filesystem;

// Into the folder $0: the CA "ca" the test trusts and "rogue" it does not;
// "good" and "other" from ca for 127.0.0.1 and for other.example, "untrusted"
// from rogue for 127.0.0.1; bundle.pem, the system's CAs and ca; "ipv6" when
// the machine has the loopback address ::1.
static const char kMakeCertificates[] = R"(cd "$0"; k="-config /dev/null -newkey ec -pkeyopt ec_paramgen_curve:P-256 -noenc"
for ca in ca rogue; do openssl req -x509 $k -addext basicConstraints=critical,CA:TRUE -subj /CN=$ca -keyout $ca.key -out $ca.pem; done
leaf() { openssl req -x509 $k -addext subjectAltName=$3 -CA $2.pem -CAkey $2.key -subj /CN=$1 -keyout $1.key -out $1.pem; }
leaf good ca IP:127.0.0.1; leaf other ca DNS:other.example; leaf untrusted rogue IP:127.0.0.1
cat /etc/ssl/certs/ca-certificates.crt ca.pem >bundle.pem; ! grep -qs '^0\{31\}1 ' /proc/net/if_inet6 || touch ipv6)";

TEST(AgentOverTls, DeliversOnlyToATrustedCertificateForTheHostItCalls) {
  if (const std::string why = UsePrivateShm(); !why.empty()) GTEST_SKIP() << "needs a private mount namespace: " << why;
  PrivateHome home;
  ChildProcess openssl({"/bin/sh", "-ec", kMakeCertificates, home.Root()}, home.Environment(), home / "tmp/ssl");
  ASSERT_TRUE(openssl.Wait() && openssl.ExitCode() == 0) << openssl.Stderr();
  ASSERT_EQ(mount((home / "bundle.pem").c_str(), "/etc/ssl/certs/ca-certificates.crt", nullptr, MS_BIND, nullptr), 0)
      << "errno " << errno;
  // The agent in a private prefix (the home's root), where no settings file is.
  fs::copy_file(BuiltProgram("porvane"), home / "tmp/porvane");
  fs::create_directories(home.LogFolder());
  ChildProcess::Environment env = home.Environment();
  env["PORVANE_DEBUG"] = "1";

  const std::string kept = "\", reply \"\"; kept, next try in 60 s", error = "HTTP 0, error \"SSL";
  const std::string removed = "HTTP 200, reply \"Active\"; removed", stored = "kind=k file=k_1.log bytes=3 answer=Active\n";
  // Certificate (none: plain HTTP), host in the URL, the agent's attempt line, the receiver's line.
  const std::string kCases[][4] = {
      {"untrusted", "127.0.0.1", error + " certificate problem: unable to get local issuer certificate" + kept,
       "rejected status=0 reason=TLS handshake: tlsv1 alert unknown ca\n"},
      {"other", "127.0.0.1", error + ": no alternative certificate subject name matches target host name '127.0.0.1'" + kept, ""},
      {"good", "127.0.0.1", removed, stored}, {"", "[::1]", removed, stored}};
  for (const auto& [cert, host, outcome, line] : kCases) {
    if (host == "[::1]" && !fs::exists(home / "ipv6")) GTEST_SKIP() << "HTTPS passed; the rest needs the address ::1";
    // A spool per case: the receiver never stores over an earlier upload.
    std::vector<std::string> args = {BuiltProgram("porvane-receiver"), "--spool", home / ("spool-" + cert)};
    if (!cert.empty()) args.insert(args.end(), {"--cert", home / (cert + ".pem"), "--key", home / (cert + ".key")});
    if (host == "[::1]") args.insert(args.end(), {"--listen", "::1"});
    ChildProcess receiver(args, home.Environment(), home / "tmp/receiver");
    ASSERT_TRUE(Eventually([&] { return receiver.Stdout().find('\n') != std::string::npos; })) << receiver.Stderr();
    const std::string out = receiver.Stdout(), port = std::to_string(std::stoi(out.substr(out.rfind(':') + 1)));
    EXPECT_EQ(out, "porvane-receiver: listening on " + host + ":" + port + (cert.empty() ? "\n" : " (TLS)\n"));

    WriteFile(home.LogFolder() + "/k_1.log", "abc");
    const std::string url = (cert.empty() ? "http://" : "https://") + host + ":" + port + "/x";
    ChildProcess agent({home / "tmp/porvane", "-receiverURL=" + url}, env, home / "tmp/agent");
    const std::string attempt = "porvane: " + home.LogFolder() + "/k_1.log to " + url + ": " + outcome + "\n";
    ASSERT_TRUE(Eventually([&] { return agent.Stderr().find(attempt) != std::string::npos; })) << agent.Stderr();
    // A kept file waits 60 s for its retry; SIGTERM ends the pass with 1.
    if (outcome != removed) agent.Signal(SIGTERM);
    EXPECT_EQ(agent.Wait() ? agent.ExitCode() : -2, outcome == removed ? 0 : 1) << cert;
    EXPECT_EQ(fs::exists(home.LogFolder() + "/k_1.log"), outcome != removed) << cert;
    EXPECT_TRUE(Eventually([&] { return receiver.Stdout() == out + line; })) << receiver.Stdout();
  }
}
