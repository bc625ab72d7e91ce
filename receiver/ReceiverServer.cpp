#include "ReceiverServer.h"

#include <algorithm>
#include <atomic>
#include <boost/asio/dispatch.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <optional>
#include <thread>
#include <vector>

#include "LinePrinter.h"
#include "UploadHandler.h"

namespace net = boost::asio;
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

// One connection: read a request, answer it, and again while the client
// keeps the connection open. All its steps run on its own strand.
class Session : public std::enable_shared_from_this<Session> {
 public:
  Session(tcp::socket&& inSocket, const std::shared_ptr<SessionContext>& inContext)
      : mStream(std::move(inSocket)), mContext(inContext), mDelay(mStream.get_executor()) {
    ++mContext->openConnections;
    // Each read asks for no more than the buffer's free room (at least 512
    // bytes); without room to spare a 64 MiB upload takes over 100000 reads.
    mBuffer.reserve(kReadChunkBytes);
  }
  ~Session() { --mContext->openConnections; }

  void Start() {
    net::dispatch(mStream.get_executor(), beast::bind_front_handler(&Session::ReadHeader, shared_from_this()));
  }

 private:
  void ReadHeader() {
    mParser.emplace();
    mParser->body_limit(ReceiverServer::kMaxBodyBytes);
    mStream.expires_after(ReceiverServer::kIdleTimeout);
    http::async_read_header(mStream, mBuffer, *mParser,
                            beast::bind_front_handler(&Session::OnHeader, shared_from_this()));
  }

  // curl and other clients wait for "100 Continue" before sending a large
  // body; answering it at once spares them a second of waiting.
  void OnHeader(error_code inError, size_t) {
    if (inError) return OnReadError(inError);
    if (!beast::iequals(mParser->get()[http::field::expect], "100-continue")) return ReadBody();
    mContinue = http::response<http::empty_body>(http::status::continue_, mParser->get().version());
    http::async_write(mStream, mContinue, [self = shared_from_this()](error_code inWriteError, size_t) {
      if (inWriteError) return self->Close();
      self->ReadBody();
    });
  }

  void ReadBody() {
    http::async_read(mStream, mBuffer, *mParser, beast::bind_front_handler(&Session::OnBody, shared_from_this()));
  }

  void OnBody(error_code inError, size_t) {
    if (inError) return OnReadError(inError);
    HandledRequest handled = mContext->handler.Handle(mParser->get());
    mContext->printer.Print(handled.line);
    Answer(std::move(handled.response));
  }

  // A request that could not be read whole. An idle connection that the
  // client closes, or that times out, just ends; anything else gets its
  // reason, and the connection is closed after it because the request's end
  // cannot be known.
  void OnReadError(error_code inError) {
    if (inError == http::error::end_of_stream || inError == beast::error::timeout ||
        inError == net::error::operation_aborted || inError == net::error::connection_reset)
      return Close();
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
    mDelay.async_wait([self = shared_from_this()](error_code) { self->Write(); });
  }

  void Write() {
    mStream.expires_after(ReceiverServer::kIdleTimeout);
    http::async_write(mStream, mResponse, beast::bind_front_handler(&Session::OnWrite, shared_from_this()));
  }

  void OnWrite(error_code inError, size_t) {
    if (inError || !mResponse.keep_alive()) return Close();
    ReadHeader();
  }

  void Close() {
    error_code ignored;
    mStream.socket().shutdown(tcp::socket::shutdown_send, ignored);
    mStream.close();
  }

  beast::tcp_stream mStream;
  std::shared_ptr<SessionContext> mContext;
  beast::flat_buffer mBuffer;
  std::optional<http::request_parser<http::string_body>> mParser;
  http::response<http::empty_body> mContinue;
  HttpResponse mResponse;
  net::steady_timer mDelay;
};

// The answer for a connection beyond kMaxConnections.
void RefuseBusy(tcp::socket&& inSocket) {
  static const std::string kBusy =
      "HTTP/1.1 503 Service Unavailable\r\nContent-Type: text/plain\r\nContent-Length: 20\r\n"
      "Connection: close\r\n\r\ntoo many connections";
  auto socket = std::make_shared<tcp::socket>(std::move(inSocket));
  net::async_write(*socket, net::buffer(kBusy), [socket](error_code, size_t) {
    error_code ignored;
    socket->shutdown(tcp::socket::shutdown_send, ignored);
    socket->close(ignored);
  });
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
      if (context->openConnections.load() >= kMaxConnections) {
        context->printer.Print("rejected status=503 reason=too many connections");
        RefuseBusy(std::move(inSocket));
      } else {
        std::make_shared<Session>(std::move(inSocket), context)->Start();
      }
      Accept();
    });
  }

  net::io_context ioContext;
  std::shared_ptr<SessionContext> context;
  tcp::acceptor acceptor{ioContext};
  net::steady_timer retry{ioContext};
  net::signal_set signals{ioContext, SIGTERM, SIGINT};
};

ReceiverServer::ReceiverServer(const UploadHandler& inHandler, LinePrinter& inPrinter, int inPort,
                               std::chrono::milliseconds inAnswerDelay)
    : mImpl(std::make_unique<Impl>(inHandler, inPrinter, inAnswerDelay)) {
  tcp::endpoint endpoint(net::ip::address_v4::loopback(), static_cast<unsigned short>(inPort));
  mImpl->acceptor.open(endpoint.protocol());
  mImpl->acceptor.set_option(net::socket_base::reuse_address(true));
  mImpl->acceptor.bind(endpoint);
  mImpl->acceptor.listen(net::socket_base::max_listen_connections);
}

ReceiverServer::~ReceiverServer() = default;

int ReceiverServer::Port() const { return mImpl->acceptor.local_endpoint().port(); }

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
