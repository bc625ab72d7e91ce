#include "ReceiverServer.h"

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <atomic>
#include <boost/asio/dispatch.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <cstring>
#include <optional>
#include <thread>
#include <type_traits>
#include <vector>

#include "LinePrinter.h"
#include "UploadHandler.h"

namespace net = boost::asio;
namespace ssl = net::ssl;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = net::ip::tcp;
using boost::system::error_code;

namespace {

// What every connection shares with the server.
struct SessionContext {
  SessionContext(const UploadHandler& inHandler, LinePrinter& inPrinter, std::chrono::milliseconds inDelay)
      : handler(inHandler), printer(inPrinter), answerDelay(inDelay) {}

  const UploadHandler& handler;
  LinePrinter& printer;
  std::chrono::milliseconds answerDelay;
  std::atomic<int> openConnections{0};
};

constexpr size_t kReadChunkBytes = 64 * 1024;
// A client that neither answers our close_notify nor hangs up is not waited
// for longer than this.
constexpr std::chrono::seconds kShutdownTimeout{5};

using PlainStream = beast::tcp_stream;
using TlsStream = beast::ssl_stream<beast::tcp_stream>;

// Ends of a connection that are no fault of the request: the client hangs
// up or resets an idle connection (over TLS, without close_notify), or it
// times out.
bool IsQuietEnd(error_code inError) {
  return inError == http::error::end_of_stream || inError == beast::error::timeout ||
         inError == net::error::operation_aborted || inError == net::error::connection_reset ||
         inError == net::error::eof || inError == ssl::error::stream_truncated;
}

// One connection, plain or TLS: read a request, answer it, and again while
// the client keeps the connection open. All its steps run on its own strand.
// A busy session answers 503 at once and closes.
template <class Stream>
class Session : public std::enable_shared_from_this<Session<Stream>> {
  static constexpr bool kTls = std::is_same_v<Stream, TlsStream>;

 public:
  template <class... TlsContext>
  Session(tcp::socket&& inSocket, const std::shared_ptr<SessionContext>& inContext, bool inBusy,
          TlsContext&... inTls)
      : mStream(std::move(inSocket), inTls...), mContext(inContext), mBusy(inBusy), mDelay(mStream.get_executor()) {
    ++mContext->openConnections;
    // Each read asks for no more than the buffer's free room (at least 512
    // bytes); without room to spare a 64 MiB upload takes over 100000 reads.
    mBuffer.reserve(kReadChunkBytes);
  }
  ~Session() { --mContext->openConnections; }

  void Start() { net::dispatch(mStream.get_executor(), beast::bind_front_handler(&Session::Handshake, Self())); }

 private:
  std::shared_ptr<Session> Self() { return this->shared_from_this(); }
  beast::tcp_stream& Tcp() { return beast::get_lowest_layer(mStream); }

  void Handshake() {
    if constexpr (!kTls) {
      OnHandshake({});
    } else {
      Tcp().expires_after(ReceiverServer::kIdleTimeout);
      mStream.async_handshake(ssl::stream_base::server, beast::bind_front_handler(&Session::OnHandshake, Self()));
    }
  }

  void OnHandshake(error_code inError) {
    if (inError) {
      if (!IsQuietEnd(inError)) mContext->printer.Print("rejected status=0 reason=TLS handshake: " + inError.message());
      return CloseTcp();
    }
    if (!mBusy) return ReadHeader();
    HandledRequest handled = UploadHandler::Reject(http::status::service_unavailable, "too many connections");
    mContext->printer.Print(handled.line);
    mResponse = std::move(handled.response);
    Write();
  }

  void ReadHeader() {
    mParser.emplace();
    mParser->body_limit(ReceiverServer::kMaxBodyBytes);
    Tcp().expires_after(ReceiverServer::kIdleTimeout);
    http::async_read_header(mStream, mBuffer, *mParser, beast::bind_front_handler(&Session::OnHeader, Self()));
  }

  // curl and other clients wait for "100 Continue" before sending a large
  // body; answering it at once spares them a second of waiting.
  void OnHeader(error_code inError, size_t) {
    if (inError) return OnReadError(inError);
    if (!beast::iequals(mParser->get()[http::field::expect], "100-continue")) return ReadBody();
    mContinue = http::response<http::empty_body>(http::status::continue_, mParser->get().version());
    http::async_write(mStream, mContinue, [self = Self()](error_code inWriteError, size_t) {
      if (inWriteError) return self->Close();
      self->ReadBody();
    });
  }

  void ReadBody() { http::async_read(mStream, mBuffer, *mParser, beast::bind_front_handler(&Session::OnBody, Self())); }

  void OnBody(error_code inError, size_t) {
    if (inError) return OnReadError(inError);
    HandledRequest handled = mContext->handler.Handle(mParser->get());
    mContext->printer.Print(handled.line);
    Answer(std::move(handled.response));
  }

  // A request that could not be read whole. A connection that just ends
  // (IsQuietEnd) is closed; anything else gets its reason, and the
  // connection is closed after it because the request's end cannot be known.
  void OnReadError(error_code inError) {
    // A TLS client that hangs up without close_notify in the middle of a
    // request is refused as a plain one is.
    if (inError == ssl::error::stream_truncated && mParser->got_some()) inError = http::error::partial_message;
    if (IsQuietEnd(inError)) return Close();
    bool tooLarge = inError == http::error::body_limit;
    HandledRequest handled =
        UploadHandler::Reject(tooLarge ? http::status::payload_too_large : http::status::bad_request,
                              tooLarge ? "body limit exceeded" : inError.message());
    mContext->printer.Print(handled.line);
    Answer(std::move(handled.response));
  }

  void Answer(HttpResponse&& inResponse) {
    mResponse = std::move(inResponse);
    if (mContext->answerDelay.count() <= 0) return Write();
    mDelay.expires_after(mContext->answerDelay);
    mDelay.async_wait([self = Self()](error_code) { self->Write(); });
  }

  void Write() {
    Tcp().expires_after(ReceiverServer::kIdleTimeout);
    http::async_write(mStream, mResponse, beast::bind_front_handler(&Session::OnWrite, Self()));
  }

  void OnWrite(error_code inError, size_t) {
    if (inError || !mResponse.keep_alive()) return Close();
    ReadHeader();
  }

  // Over TLS a close_notify first, so that the client can tell our close
  // from a cut connection.
  void Close() {
    if constexpr (!kTls) {
      CloseTcp();
    } else {
      Tcp().expires_after(kShutdownTimeout);
      mStream.async_shutdown([self = Self()](error_code) { self->CloseTcp(); });
    }
  }

  void CloseTcp() {
    error_code ignored;
    Tcp().socket().shutdown(tcp::socket::shutdown_send, ignored);
    Tcp().close();
  }

  Stream mStream;
  std::shared_ptr<SessionContext> mContext;
  bool mBusy;
  beast::flat_buffer mBuffer;
  std::optional<http::request_parser<http::string_body>> mParser;
  http::response<http::empty_body> mContinue;
  HttpResponse mResponse;
  net::steady_timer mDelay;
};

// Why a file could not be loaded. OpenSSL files a missing or unreadable file
// under its system library, the errno as the reason, which asio has no text for.
std::string LoadFailure(error_code inError) {
  const unsigned long code = static_cast<unsigned int>(inError.value());
  if (inError.category() == net::error::get_ssl_category() && ERR_GET_LIB(code) == ERR_LIB_SYS)
    return std::strerror(ERR_GET_REASON(code));
  return inError.message();
}

// The server's certificate and key, checked to belong together.
std::unique_ptr<ssl::context> LoadCredentials(const std::string& inCertificate, const std::string& inKey) {
  auto context = std::make_unique<ssl::context>(ssl::context::tls_server);
  // OpenSSL would ask for an encrypted key's passphrase on the terminal and
  // keep the server from starting; an empty one makes the load fail instead.
  context->set_password_callback([](size_t, ssl::context::password_purpose) { return std::string(); });
  error_code error;
  context->use_certificate_chain_file(inCertificate, error);
  if (error)
    throw ReceiverServer::CredentialsError("cannot load certificate " + inCertificate + ": " + LoadFailure(error));
  context->use_private_key_file(inKey, ssl::context::pem, error);
  if (error) throw ReceiverServer::CredentialsError("cannot load key " + inKey + ": " + LoadFailure(error));
  if (SSL_CTX_check_private_key(context->native_handle()) != 1)
    throw ReceiverServer::CredentialsError("key " + inKey + " does not match certificate " + inCertificate);
  return context;
}

}  // namespace

struct ReceiverServer::Impl {
  Impl(const UploadHandler& inHandler, LinePrinter& inPrinter, std::chrono::milliseconds inDelay)
      : context(std::make_shared<SessionContext>(inHandler, inPrinter, inDelay)) {}

  void Accept() {
    acceptor.async_accept(net::make_strand(ioContext), [this](error_code inError, tcp::socket inSocket) {
      if (inError == net::error::operation_aborted) return;
      if (inError) {
        // Out of descriptors and the like: try again shortly rather than
        // spin on an error that repeats at once.
        retry.expires_after(std::chrono::milliseconds(100));
        retry.async_wait([this](error_code inWaitError) {
          if (!inWaitError) Accept();
        });
        return;
      }
      const bool busy = context->openConnections.load() >= kMaxConnections;
      if (tls) {
        std::make_shared<Session<TlsStream>>(std::move(inSocket), context, busy, *tls)->Start();
      } else {
        std::make_shared<Session<PlainStream>>(std::move(inSocket), context, busy)->Start();
      }
      Accept();
    });
  }

  net::io_context ioContext;
  std::shared_ptr<SessionContext> context;
  std::unique_ptr<ssl::context> tls;  // null for plain HTTP
  tcp::acceptor acceptor{ioContext};
  net::steady_timer retry{ioContext};
  net::signal_set signals{ioContext, SIGTERM, SIGINT};
};

ReceiverServer::ReceiverServer(const UploadHandler& inHandler, LinePrinter& inPrinter,
                               const ReceiverOptions& inOptions)
    : mImpl(std::make_unique<Impl>(inHandler, inPrinter, std::chrono::milliseconds(inOptions.delayMs))) {
  if (!inOptions.certificateFile.empty()) mImpl->tls = LoadCredentials(inOptions.certificateFile, inOptions.keyFile);
  tcp::endpoint endpoint(net::ip::make_address(inOptions.listenAddress),
                         static_cast<unsigned short>(inOptions.port));
  mImpl->acceptor.open(endpoint.protocol());
  mImpl->acceptor.set_option(net::socket_base::reuse_address(true));
  mImpl->acceptor.bind(endpoint);
  mImpl->acceptor.listen(net::socket_base::max_listen_connections);
}

ReceiverServer::~ReceiverServer() = default;

std::string ReceiverServer::Endpoint() const {
  const tcp::endpoint endpoint = mImpl->acceptor.local_endpoint();
  const std::string address = endpoint.address().to_string();
  return (endpoint.address().is_v6() ? "[" + address + "]" : address) + ":" + std::to_string(endpoint.port());
}

void ReceiverServer::Run() {
  mImpl->signals.async_wait([this](error_code, int) { mImpl->ioContext.stop(); });
  mImpl->Accept();
  // Handling a request writes a file synchronously, so a few threads keep
  // one slow write from holding up the other connections.
  unsigned threadCount = std::max(4u, std::thread::hardware_concurrency());
  std::vector<std::thread> threads;
  for (unsigned i = 1; i < threadCount; ++i) threads.emplace_back([this] { mImpl->ioContext.run(); });
  mImpl->ioContext.run();
  for (std::thread& thread : threads) thread.join();
}
