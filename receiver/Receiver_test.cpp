// The reference receiver: what it makes of one request, and the program as
// operators, attackers and the agent meet it.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "ChildProcess.h"
#include "PrivateHome.h"
#include "ReplyPolicy.h"
#include "UploadHandler.h"

// The body the agent sends for a file called inName: its one part closed by
// "\r\n\r\n--B--" and nothing behind it.
static std::string Body(const std::string& inName, const std::string& inContent = "abc") {
  return "--B\r\nContent-Disposition: form-data; name=\"logfile\"; filename=\"" + inName +
         "\"\r\nContent-Type: application/octet-stream\r\n\r\n" + inContent + "\r\n\r\n--B--";
}

TEST(UploadHandler, StreamsTheFileToTheSpoolOrGivesTheReason) {
  PrivateHome home;
  const std::string dir = home / "tmp";  // empty
  WriteFile(dir + "/p.cfg", "[Policy]\nu2=Hibernate 3\n=Hibernate 7\n*=Delete\n");
  ReplyPolicy policy;
  policy.Read(dir + "/p.cfg");
  Spool spool(dir, 0);
  const UploadHandler handler(spool, policy, nullptr);
  // The body arrives three bytes at a time, so delimiters are split.
  auto handle = [&](const std::string& inType, const std::string& inBody, const char* inAgent) {
    RequestHeader header;
    header.method(boost::beast::http::verb::post);
    header.set(boost::beast::http::field::content_type, inType);
    if (inAgent != nullptr) header.set(boost::beast::http::field::user_agent, inAgent);
    HandledRequest handled;
    std::unique_ptr<Upload> upload = handler.Begin(header, handled);
    for (size_t i = 0; i < inBody.size() && upload->Feed(inBody.substr(i, 3)); i += 3) {
    }
    return upload->Finish().line;
  };
  // The file's name holds control bytes, printed escaped; its content ends in
  // CR LF and holds the boundary followed by other text.
  const std::string type = "multipart/form-data; boundary=B", good = Body("/x/u3_a\n\x7f", "\r\n--Bx\r\n");
  const std::string no = "rejected status=400 reason=", far(256, 'n'), agent = kAgentUserAgent;
  const std::string kCases[][4] = {
      // The agent's last CR LF is dropped, only the agent's: a body closed
      // right after the delimiter by another client, or closed the usual
      // way, keeps it. A second upload of a name is stored beside the first.
      {type, "x\r\n" + good + "\r\n", "", "kind=u3 file=u3_a\\x0a\\x7f bytes=10 answer=Delete"},
      {type, good, agent, "kind=u3 file=u3_a\\x0a\\x7f.1 bytes=8 answer=Delete"},
      {type, good, "curl/7.88.1", "kind=u3 file=u3_a\\x0a\\x7f.2 bytes=10 answer=Delete"},
      // Preamble, other parameters and a quoted boundary are passed over; the
      // agent's %22 is a quote again. A name without "_" is of the empty kind.
      {"Multipart/Form-Data;x; boundary=\"B\"", Body("../U2_%22", ""), agent, "kind=U2 file=U2_\" bytes=0 answer=Hibernate 3"},
      {type, Body("plain"), agent, "kind= file=plain bytes=3 answer=Hibernate 7"},
      {type, Body(".."), agent, no + "bad file name \"..\""},
      {type, Body(std::string(300, 'x') + "/.."), agent, no + "bad file name \"" + std::string(200, 'x') + "\"..."},
      {"text/plain", good, agent, no + "not multipart/form-data"},
      {"multipart/form-data;boundary=", good, agent, no + "no boundary"},
      {"multipart/form-data; boundary=C", good, agent, no + "boundary not found"},
      {type, good.substr(0, good.size() - 1), agent, no + "truncated body"},
      {type, "--B\r\n", agent, no + "no closing delimiter"},
      {type, "--B\r\nContent-Disposition: form-data; name=x; filename=f\r\n\r\n--B--", agent, no + "no logfile part"},
      {type, "--B\r\nContent-Disposition: form-data; name=logfile\r\n\r\n--B--", agent, no + "logfile part has no file name"},
      {type, good.substr(0, good.size() - 5) + good, agent, no + "more than one logfile part"},
      // Too long a name fails at the rename: nothing may be left behind.
      {type, Body(far), agent, "rejected status=500 reason=cannot store \"" + far.substr(0, 200) + "\"...: File name too long"}};
  for (const auto& c : kCases) EXPECT_EQ(c[3], handle(c[0], c[1], c[2].empty() ? nullptr : c[2].c_str())) << c[1];
  // Stored under the last name component only, inside the spool, and nothing else.
  EXPECT_EQ((std::vector<std::string>{"U2_\"", "p.cfg", "plain", "u3_a\n\x7f", "u3_a\n\x7f.1", "u3_a\n\x7f.2"}), Names(dir));
  EXPECT_EQ("\r\n--Bx\r\n", ReadFile(dir + "/u3_a\n\x7f.1"));
}

// The guide's Python example, run as it stands on the agent's body, strips
// the extra CR LF for the agent and for no other client.
TEST(ReceiverGuide, PythonExampleDropsOnlyTheAgentsCrLf) {
  PrivateHome home;
  const std::string guide = ReadFile(PORVANE_SOURCE_DIR "/docs/receiver.md"), start = "```python\n";
  const size_t from = guide.find(start) + start.size();
  WriteFile(home / "body", Body("u1_x", "a\r\n"));
  for (const std::string agent : {kAgentUserAgent, "curl/7.88.1"}) {
    ChildProcess python({"/usr/bin/python3", "-c", guide.substr(from, guide.find("```", from) - from) +
                         "import sys\nsys.stdout.buffer.write(repr(logfile('multipart/form-data; boundary=B', "
                         "sys.argv[1], open(sys.argv[2], 'rb').read())).encode())", agent, home / "body"}, {}, home / "py");
    ASSERT_TRUE(python.Wait());
    EXPECT_EQ(agent == kAgentUserAgent ? "('u1_x', b'a\\r\\n')" : "('u1_x', b'a\\r\\n\\r\\n')", python.Stdout())
        << python.Stderr();
  }
}

namespace {

// A connection to 127.0.0.1:inPort from inSource; answers are waited for 5 s.
int Connect(int inPort, const char* inSource = "127.0.0.1") {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  inet_pton(AF_INET, inSource, &address.sin_addr);
  const timeval wait{5, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
  bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
  address.sin_port = htons(static_cast<uint16_t>(inPort));
  inet_pton(AF_INET, "127.0.0.1", &address.sin_addr);
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) return fd;
  close(fd);
  return -1;
}

// Sends inRequest on inFd and returns the whole response, or what came of it.
std::string Exchange(int inFd, const std::string& inRequest) {
  send(inFd, inRequest.data(), inRequest.size(), MSG_NOSIGNAL);
  std::string response;
  for (char buffer[4096];;) {
    const size_t end = response.find("\r\n\r\n"), length = response.find("Content-Length: ");
    if (end != std::string::npos && length < end && response.size() >= end + 4 + std::stoul(response.substr(length + 16)))
      return response;
    const ssize_t got = recv(inFd, buffer, sizeof buffer, 0);
    if (got <= 0) return response;
    response.append(buffer, static_cast<size_t>(got));
  }
}

const char kUsers[] =
    "# who may upload\nagent:$6$porvanesalt$xDLI89xYXbb74eJjKXrBp4BsijjrP20qFz7I02w3QmoG29oPC4xPVLq2tXD9ivMIpvFs9vZxdNNGPbuwKl"
    "Gdu0\n";

}  // namespace

TEST(ReceiverProgram, ServesOverHttpAndRefusesBadCommandLines) {
  PrivateHome dir;
  ReceiverProcess receiver(dir / "spool");
  const std::string out = " %{http_code} %{num_connects}\n", url = receiver.Url();
  ChildProcess curl({"/usr/bin/curl", "-sS", "--noproxy", "*", "-i", "-w", out, url, "--next", "-w", out, "-H",
                     "Content-Length: x", url, "--next", "-w", out, "-H", "Expect: 100-continue", "-F",
                     "logfile=line one;filename=u2_1.log", url}, {}, dir / "curl");
  ASSERT_TRUE(curl.Wait());
  // A GET is refused and the connection kept; a request that cannot be read
  // is refused and the connection closed; serving goes on, a client that
  // waits for "100 Continue" included.
  EXPECT_EQ("HTTP/1.1 400 Bad Request\r\nServer: porvane-receiver\r\nContent-Type: text/plain\r\nContent-Length: 10\r\n"
            "\r\nnot a POST 400 1\nbad Content-Length 400 0\nActive 200 1\n", curl.Stdout()) << curl.Stderr();
  EXPECT_EQ("kind=u2 file=u2_1.log bytes=8 answer=Active", receiver.Lines(3).at(2));

  WriteFile(dir / "users", kUsers);
  WriteFile(dir / "bad-users", "agent:secret\n");
  const std::string p = BuiltProgram("porvane-receiver"), error = "2 porvane-receiver: ";
  const std::pair<std::vector<std::string>, std::string> kCases[] = {
      {{p, "--port=0", "--help", "--bogus"}, "0 usage: porvane-receiver --spool DIR"},
      {{p, "--delay-ms", "3600000", "--port=6553x"}, error + "bad port '6553x'\n"},
      {{p, "--max-body=1", "--header-timeout", "0"}, error + "bad header time-out '0'\n"},
      {{p, "--spool", dir.Root(), "--policy", dir / "none"}, error + "cannot read policy file " + dir / "none\n"},
      {{p, "--spool", dir.Root(), "--auth", dir / "none"}, error + "bad user file: cannot read " + dir / "none\n"},
      {{p, "--spool", dir.Root(), "--auth", dir / "bad-users"},
       error + "bad user file: " + dir / "bad-users line 1: not a hash libcrypt takes\n"},
      {{p, "--spool", dir.Root(), "--cert", dir / "c", "--key", dir / "k"},
       error + "cannot load certificate " + dir / "c: No such file or directory\n"}};
  for (const auto& [args, expected] : kCases) {
    ChildProcess child(args, {}, dir / "child");
    child.Wait();
    EXPECT_EQ(expected, std::to_string(child.ExitCode()) + " " + child.Stderr() + child.Stdout().substr(0, 35));
  }
}

TEST(ReceiverProgram, LetsInOnlyItsUsersAndOnlyAsMuchAsItTakes) {
  PrivateHome home;
  WriteFile(home / "users", kUsers);
  ReceiverProcess receiver(home / "spool", {"--auth", home / "users", "--max-body", "2000", "--max-spool", "3000"});
  // The agent with credentials in its URL delivers; its file that ends in
  // CR LF, with a quote in its name, is stored as it was.
  WriteFile(home / "tmp/u5_\"q.log", "line\r\n");
  ChildProcess agent({BuiltProgram("porvane"), "-noLock", "-logDir=" + home / "tmp",
                      "-receiverURL=http://agent:pa55word@" + receiver.Url().substr(7)}, home.Environment(), home / "agent");
  ASSERT_TRUE(agent.Wait());
  EXPECT_EQ("line\r\n", ReadFile(home / "spool/u5_\"q.log")) << agent.Stderr();
  WriteFile(home / "big", std::string(2100, 'b'));
  WriteFile(home / "half", std::string(1500, 'h'));
  WriteFile(home / "rest", std::string(1494, 'r'));  // with the agent's 6 bytes and "half", the spool is full
  const std::pair<std::vector<std::string>, std::string> kCases[] = {
      {{"-F", "logfile=@" + home / "half"}, "unauthorized 401"},
      {{"-u", "agent:wrong", "-F", "logfile=@" + home / "half"}, "unauthorized 401"},
      {{"-u", "agent:pa55word", "-F", "logfile=@" + home / "big"}, "body limit exceeded 413"},
      {{"-u", "agent:pa55word", "-F", "logfile=@" + home / "half"}, "Active 200"},
      {{"-u", "agent:pa55word", "-F", "logfile=@" + home / "rest"}, "Active 200"},
      {{"-u", "agent:pa55word", "-F", "logfile=@" + home / "half"}, "cannot store \"half\": spool full 507"}};
  for (const auto& [args, expected] : kCases) {
    std::vector<std::string> command{"/usr/bin/curl", "-sS", "--noproxy", "*", "-w", " %{http_code}"};
    command.insert(command.end(), args.begin(), args.end());
    command.push_back(receiver.Url());
    ChildProcess curl(command, {}, home / "curl");
    curl.Wait();
    EXPECT_EQ(expected, curl.Stdout()) << args.front();
  }
  EXPECT_EQ((std::vector<std::string>{"half", "rest", "u5_\"q.log"}), Names(home / "spool"));
}

TEST(ReceiverProgram, SilentClientsHugeHeadersAndAStalledReaderHoldUpNoOne) {
  PrivateHome home;
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 2048);
  if (setrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur < 1100) GTEST_SKIP() << "needs 1100 descriptors";
  // 1,000 connections from 127.0.0.1 that send one byte and wait; ordinary
  // uploads from 127.0.0.2 go through, and the silent ones are closed.
  ReceiverProcess receiver(home / "spool", {"--header-timeout", "3"});
  std::vector<int> slow;
  for (int i = 0; i < 1000; ++i) slow.push_back(Connect(receiver.Port()));
  for (int fd : slow) send(fd, "P", 1, MSG_NOSIGNAL);
  Eventually([&] { return receiver.Lines().size() >= 900; });
  WriteFile(home / "u1_x", "x");
  ChildProcess curl({"/usr/bin/curl", "-sS", "--noproxy", "*", "--interface", "127.0.0.2", "-F",
                     "logfile=@" + home / "u1_x", receiver.Url(), "--next", "--interface", "127.0.0.2", "-F",
                     "logfile=@" + home / "u1_x", receiver.Url()}, {}, home / "curl");
  ASSERT_TRUE(curl.Wait());
  EXPECT_EQ("ActiveActive", curl.Stdout());
  char byte = 0;
  EXPECT_EQ(0, recv(slow.front(), &byte, 1, 0));  // closed within 5 s
  for (int fd : slow) close(fd);

  // Two bodies that announce 1 GiB and send a byte reserve nothing, even where
  // the address space would not hold them; a reader of the output that
  // stops costs lines, which are counted once it reads again.
  const std::string fifo = home / "out";
  ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
#ifdef __SANITIZE_ADDRESS__
  const std::string addressLimit = "";  // the sanitizer's shadow memory takes terabytes of address space
#else
  const std::string addressLimit = "ulimit -v 1500000; ";
#endif
  ChildProcess limited({"/bin/sh", "-c", addressLimit + "exec \"$0\" --port 0 --spool \"$1\" >\"$2\"",
                        BuiltProgram("porvane-receiver"), home / "spool2", fifo}, {}, home / "limited");
  const int output = open(fifo.c_str(), O_RDONLY | O_CLOEXEC);
  std::string listening;
  for (char c = 0; c != '\n' && read(output, &c, 1) == 1;) listening += c;
  const int port = std::atoi(listening.c_str() + listening.rfind(':') + 1);
  const std::string huge = "POST / HTTP/1.1\r\nContent-Type: multipart/form-data; boundary=B\r\nContent-Length: 1073741824\r\n\r\n-";
  const int first = Connect(port), second = Connect(port), fd = Connect(port);
  send(first, huge.data(), huge.size(), MSG_NOSIGNAL);
  send(second, huge.data(), huge.size(), MSG_NOSIGNAL);
  const std::string body = Body(std::string(180, 'n') + "/.."), request =
      "POST / HTTP/1.1\r\nContent-Type: multipart/form-data; boundary=B\r\nContent-Length: " + std::to_string(body.size()) +
      "\r\n\r\n" + body;
  int answered = 0;
  while (answered < 5000 && Exchange(fd, request).find("400 Bad Request") != std::string::npos) ++answered;
  EXPECT_EQ(5000, answered);
  close(first);
  close(second);
  close(fd);
  fcntl(output, F_SETFL, O_NONBLOCK);
  EXPECT_TRUE(Eventually([&] {
    for (char buffer[4096]; read(output, buffer, sizeof buffer) > 0;) {
    }
    return limited.Stderr().find(" output lines dropped: ") != std::string::npos;
  })) << limited.Stderr();
  close(output);
}
