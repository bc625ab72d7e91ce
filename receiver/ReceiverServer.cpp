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
#include <map>
#include <mutex>
#include <sstream>
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
  SessionContext(const UploadHandler& inHandler, LinePrinter& inPrinter, net::io_context& inStorage,
                 const ReceiverOptions& inOptions)
      : handler(inHandler),
        printer(inPrinter),
        storage(inStorage),
        answerDelay(inOptions.delayMs),
        headerTimeout(inOptions.headerTimeoutSeconds),
        maxPerAddress(inOptions.maxPerAddress),
        maxBodyBytes(inOptions.maxBodyBytes) {}

  // Counts one more connection of inAddress that has not sent its headers;
  // false, counting nothing, when that address is at its limit.
  bool AdmitWaiting(const net::ip::address& inAddress) {
    std::lock_guard<std::mutex> lock(waitingMutex);
    int& count = waiting[inAddress];
    if (maxPerAddress > 0 && count >= maxPerAddress) return false;
    ++count;
    return true;
  }
  void EndWaiting(const net::ip::address& inAddress) {
    std::lock_guard<std::mutex> lock(waitingMutex);
    auto found = waiting.find(inAddress);
    if (found != waiting.end() && --found->second <= 0) waiting.erase(found);
  }

  const UploadHandler& handler;
  LinePrinter& printer;
  net::io_context& storage;  // writes to the spool, password checks
  const std::chrono::milliseconds answerDelay;
  const std::chrono::seconds headerTimeout;
  const int maxPerAddress;
  const unsigned long long maxBodyBytes;
  std::atomic<int> openConnections{0};
  std::mutex waitingMutex;
  std::map<net::ip::address, int> waiting;  // connections without headers yet, per address
};

// The read buffer of a connection between requests, and the largest piece
// of a body read at once.
constexpr size_t kHeaderBufferBytes = 4 * 1024;
constexpr size_t kBodyPieceBytes = 64 * 1024;
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

// Runs inContext's handlers until it stops. A handler that throws (memory
// running out, say) loses its connection, whose objects go with the
// handler; the others are served on.
void RunCatching(net::io_context& inContext, LinePrinter& inPrinter) {
  for (;;) {
    try {
      inContext.run();
      return;
    } catch (const std::exception& e) {
      inPrinter.Print(std::string("rejected status=0 reason=") + e.what());
    }
  }
}

// One connection, plain or TLS: read a request's headers, judge them, read
// its body piece by piece into the spool, answer, and again while the
// client keeps the connection open. Socket steps run on the connection's
// strand, spool steps on the storage threads, one step at a time.
template <class Stream>
class Session : public std::enable_shared_from_this<Session<Stream>> {
  static constexpr bool kTls = std::is_same_v<Stream, TlsStream>;

 public:
  // The connection has been counted as waiting for its headers.
  template <class... TlsContext>
  Session(tcp::socket&& inSocket, const net::ip::address& inAddress, const std::shared_ptr<SessionContext>& inContext,
          TlsContext&... inTls)
      : mStream(std::move(inSocket), inTls...), mAddress(inAddress), mContext(inContext), mDelay(mStream.get_executor()) {
    ++mContext->openConnections;
    mBuffer.reserve(kHeaderBufferBytes);
  }
  ~Session() {
    if (mWaiting) mContext->EndWaiting(mAddress);
    --mContext->openConnections;
  }

  void Start() { net::dispatch(mStream.get_executor(), beast::bind_front_handler(&Session::Handshake, Self())); }

 private:
  std::shared_ptr<Session> Self() { return this->shared_from_this(); }
  beast::tcp_stream& Tcp() { return beast::get_lowest_layer(mStream); }

  // Runs inWork on a storage thread, then inThen back on the strand.
  template <class Work, class Then>
  void OnStorage(Work inWork, Then inThen) {
    net::post(mContext->storage, [self = Self(), inWork = std::move(inWork), inThen = std::move(inThen)]() mutable {
      inWork();
      net::post(self->mStream.get_executor(), std::move(inThen));
    });
  }

  void Handshake() {
    // One deadline for the handshake and the first request's headers: a
    // silent client holds its slot no longer.
    Tcp().expires_after(mContext->headerTimeout);
    if constexpr (!kTls) {
      OnHandshake({});
    } else {
      mStream.async_handshake(ssl::stream_base::server, beast::bind_front_handler(&Session::OnHandshake, Self()));
    }
  }

  void OnHandshake(error_code inError) {
    if (!inError) return ReadHeader();
    if (!IsQuietEnd(inError)) mContext->printer.Print("rejected status=0 reason=TLS handshake: " + inError.message());
    CloseTcp();
  }

  void ReadHeader() {
    mParser.emplace();
    mParser->body_limit(mContext->maxBodyBytes);
    if (!mWaiting) Tcp().expires_after(ReceiverServer::kIdleTimeout);
    http::async_read_header(mStream, mBuffer, *mParser, beast::bind_front_handler(&Session::OnHeader, Self()));
  }

  void OnHeader(error_code inError, size_t) {
    if (mWaiting) {
      mWaiting = false;
      mContext->EndWaiting(mAddress);
    }
    if (inError) return OnReadError(inError);
    OnStorage([this] { mUpload = mContext->handler.Begin(mParser->get().base(), mHandled); },
              [self = Self()] { self->OnBegun(); });
  }

  // curl and other clients wait for "100 Continue" before sending a large
  // body; answering it at once spares them a second of waiting.
  void OnBegun() {
    if (!mUpload) return Answer();
    if (!beast::iequals(mParser->get()[http::field::expect], "100-continue")) return ReadBody();
    mContinue = http::response<http::empty_body>(http::status::continue_, mParser->get().version());
    Tcp().expires_after(ReceiverServer::kIdleTimeout);
    http::async_write(mStream, mContinue, [self = Self()](error_code inWriteError, size_t) {
      if (inWriteError) return self->Close();
      self->ReadBody();
    });
  }

  void ReadBody() {
    if (mParser->is_done()) return Finish();
    if (!mPiece) {
      // A small body gets a small buffer: many connections may be reading.
      const auto length = mParser->content_length();
      mPieceBytes = static_cast<size_t>(std::min<unsigned long long>(kBodyPieceBytes, length ? *length : kBodyPieceBytes));
      mPiece = std::make_unique<char[]>(std::max<size_t>(mPieceBytes, 1));
      if (mPieceBytes > kHeaderBufferBytes) mBuffer.reserve(kBodyPieceBytes);
    }
    mParser->get().body().data = mPiece.get();
    mParser->get().body().size = mPieceBytes;
    mParser->get().body().more = true;
    Tcp().expires_after(ReceiverServer::kIdleTimeout);
    http::async_read_some(mStream, mBuffer, *mParser, beast::bind_front_handler(&Session::OnPiece, Self()));
  }

  void OnPiece(error_code inError, size_t) {
    if (inError == http::error::need_buffer) inError = {};
    if (inError) return OnReadError(inError);
    const size_t read = mPieceBytes - mParser->get().body().size;
    if (read == 0) return ReadBody();
    auto goesOn = std::make_shared<bool>(true);
    OnStorage([this, goesOn, read] { *goesOn = mUpload->Feed(std::string_view(mPiece.get(), read)); },
              [self = Self(), goesOn] { *goesOn ? self->ReadBody() : self->Finish(); });
  }

  void Finish() {
    OnStorage(
        [this] {
          mHandled = mUpload->Finish();
          mUpload.reset();
        },
        [self = Self()] { self->Answer(); });
  }

  // A request that could not be read whole. A connection that just ends
  // (IsQuietEnd) is closed; anything else gets its reason, and the
  // connection is closed after it because the request's end cannot be known.
  void OnReadError(error_code inError) {
    // The temporary file goes, on a storage thread.
    if (mUpload) net::post(mContext->storage, [upload = std::move(mUpload)] {});
    // A TLS client that hangs up without close_notify in the middle of a
    // request is refused as a plain one is.
    if (inError == ssl::error::stream_truncated && mParser->got_some()) inError = http::error::partial_message;
    if (IsQuietEnd(inError)) return Close();
    bool tooLarge = inError == http::error::body_limit;
    mHandled = UploadHandler::Reject(tooLarge ? http::status::payload_too_large : http::status::bad_request,
                                     tooLarge ? "body limit exceeded" : inError.message());
    Answer();
  }

  // Prints the line of mHandled and sends its response.
  void Answer() {
    mContext->printer.Print(mHandled.line);
    mPiece.reset();
    if (mContext->answerDelay.count() <= 0) return Write();
    mDelay.expires_after(mContext->answerDelay);
    mDelay.async_wait([self = Self()](error_code) { self->Write(); });
  }

  void Write() {
    Tcp().expires_after(ReceiverServer::kIdleTimeout);
    http::async_write(mStream, mHandled.response, beast::bind_front_handler(&Session::OnWrite, Self()));
  }

  void OnWrite(error_code inError, size_t) {
    if (inError || !mHandled.response.keep_alive()) return Close();
    // Between requests a connection holds a small buffer only.
    if (mBuffer.capacity() > kHeaderBufferBytes) {
      mBuffer.shrink_to_fit();
      mBuffer.reserve(kHeaderBufferBytes);
    }
    ReadHeader();
  }

  // Over TLS a close_notify first, so that the client can tell our close
  // from a cut connection. Over plain TCP our side is shut first and what
  // the client still sends (a body we answered early) is read and dropped
  // for a while: closing on unread bytes resets the connection, and the
  // reset can destroy the answer on its way.
  void Close() {
    if constexpr (!kTls) {
      error_code ignored;
      Tcp().socket().shutdown(tcp::socket::shutdown_send, ignored);
      Tcp().expires_after(kShutdownTimeout);
      Drain();
    } else {
      Tcp().expires_after(kShutdownTimeout);
      mStream.async_shutdown([self = Self()](error_code) { self->CloseTcp(); });
    }
  }

  void Drain() {
    mBuffer.consume(mBuffer.size());
    Tcp().async_read_some(mBuffer.prepare(kHeaderBufferBytes), [self = Self()](error_code inError, size_t) {
      if (inError) return self->CloseTcp();
      self->Drain();
    });
  }

  void CloseTcp() {
    error_code ignored;
    Tcp().socket().shutdown(tcp::socket::shutdown_send, ignored);
    Tcp().close();
  }

  Stream mStream;
  const net::ip::address mAddress;
  std::shared_ptr<SessionContext> mContext;
  bool mWaiting = true;  // no request headers yet: counted for mAddress
  beast::flat_buffer mBuffer;
  std::optional<http::request_parser<http::buffer_body>> mParser;
  std::unique_ptr<char[]> mPiece;  // the body's bytes on their way to the spool
  size_t mPieceBytes = 0;
  std::unique_ptr<Upload> mUpload;
  http::response<http::empty_body> mContinue;
  HandledRequest mHandled;
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
  Impl(const UploadHandler& inHandler, LinePrinter& inPrinter, const ReceiverOptions& inOptions)
      : context(std::make_shared<SessionContext>(inHandler, inPrinter, storage, inOptions)) {}

  // A connection beyond the limits is refused before anything is read: a
  // 503 sent without waiting, over TLS nothing, and closed.
  void Refuse(tcp::socket& ioSocket, const std::string& inReason) {
    HandledRequest handled = UploadHandler::Reject(http::status::service_unavailable, inReason);
    context->printer.Print(handled.line);
    if (!tls) {
      std::ostringstream response;
      response << handled.response;
      error_code ignored;
      ioSocket.non_blocking(true, ignored);
      ioSocket.write_some(net::buffer(response.str()), ignored);
    }
    error_code ignored;
    ioSocket.close(ignored);
  }

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
      error_code peerError;
      const net::ip::address address = inSocket.remote_endpoint(peerError).address();
      if (peerError) {
        // Gone before it could be served.
      } else if (context->openConnections.load() >= kMaxConnections) {
        Refuse(inSocket, "too many connections");
      } else if (!context->AdmitWaiting(address)) {
        Refuse(inSocket, "too many connections without a request from " + address.to_string());
      } else if (tls) {
        std::make_shared<Session<TlsStream>>(std::move(inSocket), address, context, *tls)->Start();
      } else {
        std::make_shared<Session<PlainStream>>(std::move(inSocket), address, context)->Start();
      }
      Accept();
    });
  }

  // The sockets' context outlives the storage threads' one: work left
  // there at the end holds connections, whose sockets need the former.
  net::io_context ioContext;
  net::io_context storage;
  std::shared_ptr<SessionContext> context;
  std::unique_ptr<ssl::context> tls;  // null for plain HTTP
  tcp::acceptor acceptor{ioContext};
  net::steady_timer retry{ioContext};
  net::signal_set signals{ioContext, SIGTERM, SIGINT};
};

ReceiverServer::ReceiverServer(const UploadHandler& inHandler, LinePrinter& inPrinter,
                               const ReceiverOptions& inOptions)
    : mImpl(std::make_unique<Impl>(inHandler, inPrinter, inOptions)) {
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
  SessionContext& context = *mImpl->context;
  auto storageWork = net::make_work_guard(mImpl->storage);
  mImpl->signals.async_wait([this](error_code, int) {
    mImpl->storage.stop();
    mImpl->ioContext.stop();
  });
  mImpl->Accept();
  // Sockets need few threads, as they never wait for the disk; the storage
  // threads let a few slow writes go on while others are served.
  const unsigned ioThreads = std::max(2u, std::thread::hardware_concurrency());
  const unsigned kStorageThreads = 4;
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < kStorageThreads; ++i)
    threads.emplace_back([this, &context] { RunCatching(mImpl->storage, context.printer); });
  for (unsigned i = 1; i < ioThreads; ++i)
    threads.emplace_back([this, &context] { RunCatching(mImpl->ioContext, context.printer); });
  RunCatching(mImpl->ioContext, context.printer);
  for (std::thread& thread : threads) thread.join();
}
