#include "simulator/cloud-sim/tls_server.h"

#include <openssl/err.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <sstream>
#include <stdexcept>

#include "common/json/json.h"

namespace cloudsim {

using Tls = Owned<SSL, SSL_free>;

static constexpr char KEndOfHead[] = "\r\n\r\n";

// The current exchange of this thread's connection. The library's handlers have no other way to find it.
static thread_local Exchange* iExchange = nullptr;

// Feeds the library from a TLS connection, never beyond the request's end, and collects what it composes.
class RecordingStream : public httplib::Stream {
  public:
    explicit RecordingStream(SSL* tls) : tls_(tls) {}

    bool is_readable() const override { return true; }
    bool is_writable() const override { return true; }
    socket_t socket() const override { return SSL_get_fd(tls_); }
    void get_remote_ip_and_port(std::string& ip, int&) const override { ip = "127.0.0.1"; }
    void get_local_ip_and_port(std::string& ip, int&) const override { ip = "127.0.0.1"; }

    ssize_t read(char* bytes, size_t size) override {
        if (!composed.empty()) {  // "100 Continue": the client waits for it
            SSL_write(tls_, composed.data(), static_cast<int>(composed.size()));
            composed.clear();
        }
        if (inBody_) size = std::min(size, bodyLeft_);
        if (size == 0) return 0;
        const int got = SSL_read(tls_, bytes, static_cast<int>(size));
        if (got <= 0) return got;
        received.append(bytes, static_cast<size_t>(got));
        if (inBody_) {
            bodyLeft_ -= static_cast<size_t>(got);
        } else if (received.ends_with(KEndOfHead)) {
            inBody_ = true;
            bodyLeft_ = announcedLength();
        }
        return got;
    }

    ssize_t write(const char* bytes, size_t size) override {
        composed.append(bytes, size);
        return static_cast<ssize_t>(size);
    }

    std::string received;
    std::string composed;

  private:
    // Without a length there is no body: the library would wait for the connection's end instead.
    size_t announcedLength() const {
        static constexpr char KLength[] = "\r\nContent-Length: ";
        const size_t found = received.find(KLength);
        return found == std::string::npos ? 0 : strtoul(received.c_str() + found + strlen(KLength), nullptr, 10);
    }

    SSL* tls_;
    bool inBody_ = false;
    size_t bodyLeft_ = 0;
};

static void answer(Cloud& cloud, const httplib::Request& request, Exchange& exchange) {
    static constexpr std::string_view KMoved = "/moved";
    const std::lock_guard lock(cloud.mutex);
    exchange.url = cloud.url;
    exchange.target = request.target;
    const bool moved = request.path.starts_with(KMoved);
    std::string haId;
    const Resource* const resource = findResource(moved ? request.path.substr(KMoved.size()) : request.path, haId);
    if (!resource || resource->method != request.method) {
        exchange.status = resource ? 405 : 404;
        exchange.body = resource ? R"({"status":"METHOD_NOT_ALLOWED"})" : R"({"status":"NOT_FOUND"})";
        return;
    }
    resource->answer(cloud.state, request, haId, exchange);
    if (!moved) cloud.faults.apply(resource->name, exchange);
}

TlsServer::TlsServer(Cloud& cloud, const Certificates& certificates)
    : cloud_(cloud), certificates_(certificates), journal_(fopen((cloud.directory + "/journal").c_str(), "we")) {
    if (!journal_) throw std::runtime_error("cannot write " + cloud.directory + "/journal");
    const auto handler = [this](const httplib::Request& request, httplib::Response& response) {
        Exchange& exchange = *iExchange;
        answer(cloud_, request, exchange);
        response.status = exchange.status;
        for (const auto& [name, value] : exchange.headers) {
            response.set_header(name, value);
        }
        response.set_content(exchange.body, exchange.contentType);
    };
    Get(".*", handler);
    Post(".*", handler);
    Put(".*", handler);
    Delete(".*", handler);
    new_task_queue = [] { return new httplib::ThreadPool(16); };
}

bool TlsServer::adopt(socket_t socket) {
    const std::lock_guard lock(socketsMutex_);
    if (!closing_) sockets_.insert(socket);
    return !closing_;
}

void TlsServer::abandon(socket_t socket) {
    const std::lock_guard lock(socketsMutex_);
    sockets_.erase(socket);
    close(socket);
}

void TlsServer::closeConnections() {
    const std::lock_guard lock(socketsMutex_);
    closing_ = true;
    for (const socket_t socket : sockets_) {
        shutdown(socket, SHUT_RDWR);
    }
}

bool TlsServer::process_and_close_socket(socket_t socket) {
    if (adopt(socket)) serve(socket);
    abandon(socket);
    return true;
}

static bool isPeerGone(socket_t socket) {
    pollfd peer = {socket, POLLRDHUP, 0};
    return poll(&peer, 1, 0) > 0;
}

// Waits for what the exchange asks for; false when there is nobody left to answer.
bool TlsServer::waitUntilLetGo(socket_t socket, const Exchange& exchange) {
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::milliseconds KLookAtPeer{20};
    const auto end = Clock::now() + exchange.delay;
    std::unique_lock lock(cloud_.mutex);
    const unsigned releasesBefore = cloud_.releases;
    cloud_.held += exchange.held;
    bool wanted = true;
    while (wanted && (exchange.held ? cloud_.releases == releasesBefore : Clock::now() < end)) {
        cloud_.changed.wait_for(
            lock, exchange.held
                      ? KLookAtPeer
                      : std::min(KLookAtPeer, std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now())));
        wanted = !cloud_.stopping && !isPeerGone(socket);
    }
    cloud_.held -= exchange.held;
    return wanted;
}

void TlsServer::serve(socket_t socket) {
    const ConnectionKind* kind = nullptr;
    {
        const std::lock_guard lock(cloud_.mutex);
        kind = cloud_.faults.nextOfConnection();
    }
    if (kind && kind->fault == ConnectionFault::Reset) {
        const linger atOnce = {1, 0};
        setsockopt(socket, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
        printf("cloud-sim: a connection is reset\n");
        return;
    }
    if (kind && kind->fault == ConnectionFault::Stall) {
        Exchange stalled;
        stalled.held = true;
        printf("cloud-sim: a handshake is held\n");
        if (!waitUntilLetGo(socket, stalled)) return;
    }
    const Tls tls(SSL_new(certificates_.context(kind ? kind->certificate : Certificate::Good)));
    if (!tls || !SSL_set_fd(tls.get(), socket)) return;
    ERR_clear_error();
    if (SSL_accept(tls.get()) != 1) {
        const char* const reason = ERR_reason_error_string(ERR_peek_error());
        printf("cloud-sim: no handshake: %s\n", reason ? reason : "the client went away");
        return;
    }
    serveRequest(tls.get());
}

static void sendAll(SSL* tls, std::string_view bytes) {
    if (!bytes.empty()) SSL_write(tls, bytes.data(), static_cast<int>(bytes.size()));
}

static bool sendSlowly(SSL* tls, std::string_view bytes, const std::function<bool()>& waitForNext) {
    for (const char& byte : bytes) {
        if (SSL_write(tls, &byte, 1) != 1 || !waitForNext()) return false;
    }
    return true;
}

// What goes onto the wire of an answer that the library has composed.
static std::string wireBytes(std::string composed, const Exchange& exchange) {
    if (!exchange.raw.empty()) return exchange.raw;
    const size_t bodyBegin = std::min(composed.find(KEndOfHead) + strlen(KEndOfHead), composed.size());
    switch (exchange.ending) {
        case Ending::Whole: break;
        case Ending::NoHeaders: return "";
        case Ending::HalfBody:
        case Ending::ShortBody: composed.resize(bodyBegin + (composed.size() - bodyBegin) / 2); break;
        case Ending::BrokenChunk:
            return "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\n{\"sta\r\nno size\r\n";
    }
    return composed;
}

// A request as it stood on the wire.
struct Received {
    std::string method, target, headers, body;  // each header after the host's, followed by "|"
};

static Received takeApart(const std::string& bytes) {
    Received received;
    const size_t headEnd = std::min(bytes.find(KEndOfHead), bytes.size());
    std::istringstream head(bytes.substr(0, headEnd));
    std::string line;
    std::getline(head, line);
    const size_t methodEnd = std::min(line.find(' '), line.size());
    const size_t targetEnd = std::max(std::min(line.rfind(' '), line.size()), methodEnd);
    received.method = line.substr(0, methodEnd);
    if (targetEnd > methodEnd) received.target = line.substr(methodEnd + 1, targetEnd - methodEnd - 1);
    while (std::getline(head, line)) {
        if (line.ends_with('\r')) line.pop_back();
        if (!line.starts_with("Host:")) received.headers += line + "|";
    }
    received.body = bytes.substr(std::min(headEnd + strlen(KEndOfHead), bytes.size()));
    return received;
}

// The outcome as text: the HTTP status, the status in the JSON, and the fault that was applied.
static std::string outcome(const Exchange& exchange) {
    std::string words;
    if (exchange.raw.empty() && exchange.ending == Ending::Whole) {
        const OwnedJson body = parseJson(exchange.body.c_str());
        words = std::to_string(exchange.status) + " " + textOrEmpty(jsonTextMember(body.get(), "status"));
        if (words.ends_with(' ')) words.pop_back();
    }
    if (exchange.fault.empty()) return words;
    return words + (words.empty() ? "[" : " [") + exchange.fault + "]";
}

static void print(const Received& received, const std::string& what) {
    printf("cloud-sim: %s %s -> %s\n", received.method.c_str(), received.target.c_str(), what.c_str());
}

void TlsServer::writeJournal(const Received& received) {
    std::string body = received.body;
    std::replace(body.begin(), body.end(), '\n', ' ');
    const std::lock_guard lock(journalMutex_);
    fprintf(journal_.get(), "%s %s|%s%s\n", received.method.c_str(), received.target.c_str(), received.headers.c_str(),
            body.c_str());
    fflush(journal_.get());
}

void TlsServer::serveRequest(SSL* tls) {
    Exchange exchange;
    RecordingStream stream(tls);
    iExchange = &exchange;
    bool closed = false;
    process_request(stream, true, closed, nullptr);
    iExchange = nullptr;
    if (stream.received.empty()) {
        printf("cloud-sim: a connection without a request\n");
        return;
    }
    // The library refuses some requests without asking the handlers.
    if (stream.composed.starts_with("HTTP/1.1 ")) exchange.status = std::stoi(stream.composed.substr(9, 3));
    const Received received = takeApart(stream.received);
    writeJournal(received);
    const socket_t socket = SSL_get_fd(tls);
    if (exchange.held || exchange.delay.count() > 0) {
        print(received, "(waits)");
        if (!waitUntilLetGo(socket, exchange)) return;
    }
    print(received, outcome(exchange));
    const std::string bytes = wireBytes(std::move(stream.composed), exchange);
    if (exchange.byteInterval.count() < 0) {
        sendAll(tls, bytes);
    } else {
        Exchange pause;
        pause.delay = exchange.byteInterval;
        if (!sendSlowly(tls, bytes, [&] { return waitUntilLetGo(socket, pause); })) return;
    }
    if (exchange.ending == Ending::Whole || exchange.ending == Ending::ShortBody) SSL_shutdown(tls);
}

}  // namespace cloudsim
