#include "server/libBoundedServer.h"

#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <exception>
#include <functional>
#include <utility>

namespace vestrel {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds patience{10};

/// What the library reads of one request and writes in answer. The library itself keeps whatever a
/// client sends as one line or as headers, and waits for as long as now and then a byte comes.
class RequestStream : public httplib::Stream {
 public:
    explicit RequestStream(socket_t socket) : socket_(socket) {}

    /// Called when all headers have been read.
    void EndHead() {
        inHead_ = false;
        line_ = 0;
        Renew();
    }

    bool is_readable() const override { return next_ < end_ || Waits(POLLIN, patience); }
    bool is_writable() const override { return Waits(POLLOUT, patience); }

    ssize_t read(char* target, std::size_t size) override {
        // The library reads lines, and nothing else, byte by byte: headers and lengths of chunks.
        constexpr std::size_t longestHead = 65536;
        constexpr std::size_t longestLine = 8192;
        if (size == 1 && ++line_ > (inHead_ ? longestHead : longestLine)) return -1;
        if (next_ == end_) {
            const ssize_t received = Receive();
            if (received <= 0) return received;
        }
        const std::size_t given = std::min(size, end_ - next_);
        std::copy_n(buffer_.data() + next_, given, target);
        next_ += given;
        if (!inHead_ && (size > 1 || *target == '\n')) line_ = 0;
        return static_cast<ssize_t>(given);
    }

    ssize_t write(const char* text, std::size_t size) override {
        if (!is_writable()) return -1;
        return send(socket_, text, size, MSG_DONTWAIT | MSG_NOSIGNAL);
    }

    // The addresses are not used.
    void get_remote_ip_and_port(std::string& /*ip*/, int& /*port*/) const override {}
    void get_local_ip_and_port(std::string& /*ip*/, int& /*port*/) const override {}
    socket_t socket() const override { return socket_; }

 private:
    bool Waits(short event, Clock::duration longest) const {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(longest).count();
        pollfd waited{socket_, event, 0};
        int ready = 0;
        do {
            ready = poll(&waited, 1, static_cast<int>(std::max<long>(left, 0)));
        } while (ready < 0 && errno == EINTR);
        return ready > 0;
    }

    /// Fills the buffer. @return the number of bytes; 0 at the end, −1 when none came in time
    ssize_t Receive() {
        if (!Waits(POLLIN, deadline_ - Clock::now())) return -1;
        const ssize_t received = recv(socket_, buffer_.data(), buffer_.size(), 0);
        next_ = 0;
        end_ = static_cast<std::size_t>(std::max<ssize_t>(received, 0));
        sinceRenewal_ += end_;
        constexpr std::size_t fewest = 10240;
        if (!inHead_ && sinceRenewal_ >= fewest) Renew();
        return received;
    }

    void Renew() {
        sinceRenewal_ = 0;
        deadline_ = Clock::now() + patience;
    }

    const socket_t socket_;
    bool inHead_ = true;
    std::size_t line_ = 0;  ///< bytes of this line so far, or of the head
    Clock::time_point deadline_ = Clock::now() + patience;
    std::size_t sinceRenewal_ = 0;  ///< bytes received
    std::array<char, 16384> buffer_;
    std::size_t next_ = 0;  ///< the part of the buffer that has not been read
    std::size_t end_ = 0;
};

/// Whether this thread only closes connections that it is given.
thread_local bool refuses = false;

/// The connections that are served or wait for it.
class Connections : public httplib::TaskQueue {
 public:
    explicit Connections(std::size_t most) : most_(most), threads_(128) {}

    void enqueue(std::function<void()> serve) override {
        if (open_ >= most_) {
            refuses = true;
            serve();
            refuses = false;
            return;
        }
        ++open_;
        threads_.enqueue([this, serve = std::move(serve)] {
            serve();
            --open_;
        });
    }

    void shutdown() override { threads_.shutdown(); }

 private:
    const std::size_t most_;
    std::atomic<std::size_t> open_{0};
    httplib::ThreadPool threads_;
};

/// How many connections there may be, so that the files of jobs can still be opened. Raises the
/// limit of open files where that is allowed.
std::size_t MostConnections() {
    constexpr rlim_t wanted = 4096;
    constexpr rlim_t most = 512;
    constexpr rlim_t fewest = 16;
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return fewest;
    if (limit.rlim_cur < wanted) {
        limit.rlim_cur = std::min(wanted, limit.rlim_max);
        setrlimit(RLIMIT_NOFILE, &limit);
    }
    return std::clamp(limit.rlim_cur / 4, fewest, most);
}

}  // namespace

BoundedServer::BoundedServer() {
    const std::size_t most = MostConnections();
    new_task_queue = [most] { return new Connections(most); };
}

bool BoundedServer::process_and_close_socket(socket_t socket) {
    bool served = false;
    if (!refuses && svr_sock_ != INVALID_SOCKET) {
        RequestStream stream(socket);
        bool closed = false;
        try {
            // A connection serves one request: the rest of one that was refused would be read as
            // the next, and hold a thread for as long as its client likes.
            served = process_request(stream, true, closed, [&stream](httplib::Request& request) {
                // A few bytes of them ask for a copy each.
                request.ranges.clear();
                stream.EndHead();
            });
        } catch (const std::exception&) {
            served = false;  // no memory for its headers
        }
    }
    ::shutdown(socket, SHUT_RDWR);
    close(socket);
    return served;
}

}  // namespace vestrel
