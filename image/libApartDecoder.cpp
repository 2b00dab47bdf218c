#include "image/libApartDecoder.h"

namespace vestrel {

namespace {

thread_local bool everyDecoderApart = false;

}  // namespace

EveryDecoderApart::EveryDecoderApart(bool every) : before_(everyDecoderApart) {
    everyDecoderApart = every;
}

EveryDecoderApart::~EveryDecoderApart() {
    everyDecoderApart = before_;
}

bool EveryDecoderApart::Demanded() {
    return everyDecoderApart;
}

}  // namespace vestrel

#ifndef _WIN32

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <vector>

namespace vestrel {

namespace {

enum Kind : std::int64_t {
    StartMessage,
    RowMessage,
    StoredMessage,
    CardMessage,
    TextCardMessage,
    NumberCardMessage,
    RemarkMessage,
    OrientationMessage,
    FaultMessage,
    EndMessage
};

/// One call of the sink, as it is sent; the bytes of its texts follow.
struct Message {
    std::int64_t Kind = EndMessage;
    std::int64_t Number = 0;
    double Value = 0;
    std::uint64_t Lengths[3] = {};
};

/// How many numbers make up a picture's shape in a message, and the place of stored samples.
constexpr std::size_t ShapeNumbers = 6;
constexpr std::size_t StoredNumbers = 6;

std::size_t RowBytes(const PictureShape& shape) {
    return static_cast<std::size_t>(shape.Width) * static_cast<std::size_t>(shape.Channels) *
           SampleBytes(shape.Kind);
}

/// What the child has to say, as one stream of bytes in memory that both processes share. It
/// consists of several parts. The child fills one after the other and announces each by its
/// length; the parent acknowledges a part when it needs it no longer. A pipe would copy every byte
/// twice more, through pages that the system allocates for it.
class SharedParts {
 public:
    static constexpr std::size_t PartBytes = std::size_t{1} << 17;
    static constexpr std::size_t Parts = 8;

    SharedParts()
        : memory_(mmap(nullptr, PartBytes * Parts, PROT_READ | PROT_WRITE,
                       MAP_SHARED | MAP_ANONYMOUS, -1, 0)) {
        if (memory_ == MAP_FAILED) throw std::bad_alloc();
    }
    ~SharedParts() { munmap(memory_, PartBytes * Parts); }
    SharedParts(const SharedParts&) = delete;
    SharedParts& operator=(const SharedParts&) = delete;

    /// The n-th part of the stream.
    char* Part(std::uint64_t n) const {
        return static_cast<char*>(memory_) + n % Parts * PartBytes;
    }

 private:
    void* memory_;
};

/// The child's side: sends every call to the parent.
class Sender final : public PictureSink {  // NOLINT(*-virtual-class-destructor): final
 public:
    Sender(int socket, const SharedParts& parts) : socket_(socket), parts_(parts) {}

    void Start(const PictureShape& shape) override {
        rowBytes_ = RowBytes(shape);
        const std::int64_t numbers[ShapeNumbers] = {
            shape.Width,    shape.Height,
            shape.Channels, static_cast<std::int64_t>(shape.Kind),
            shape.BitPix,   shape.TopRowFirst ? 1 : 0};
        Send({StartMessage, 0, 0, {}}, {reinterpret_cast<const char*>(numbers), sizeof numbers});
    }
    void Row(std::int64_t y, const void* samples) override {
        Send({RowMessage, y, 0, {}}, {static_cast<const char*>(samples), rowBytes_});
    }
    void Stored(const StoredSamples& samples) override {
        const std::uint64_t numbers[StoredNumbers] = {samples.Start,
                                                      samples.BigEndian ? 1U : 0U,
                                                      samples.Planar ? 1U : 0U,
                                                      samples.LastRowFirst ? 1U : 0U,
                                                      samples.TopBitFlipped ? 1U : 0U,
                                                      samples.WholeNumbers ? 1U : 0U};
        Send({StoredMessage, 0, 0, {}}, {reinterpret_cast<const char*>(numbers), sizeof numbers});
    }
    void Card(std::string_view card) override { Send({CardMessage, 0, 0, {}}, card); }
    void TextCard(std::string_view keyword, std::string_view text,
                  std::string_view comment) override {
        Send({TextCardMessage, 0, 0, {}}, keyword, text, comment);
    }
    void NumberCard(std::string_view keyword, double value, std::string_view comment) override {
        Send({NumberCardMessage, 0, value, {}}, keyword, comment);
    }
    void Remark(std::string text) override { Send({RemarkMessage, 0, 0, {}}, text); }
    void Orientation(int value) override { Send({OrientationMessage, value, 0, {}}); }
    /// The last message; `fault` is empty when all went well.
    void End(std::string_view fault) {
        Send({fault.empty() ? EndMessage : FaultMessage, 0, 0, {}}, fault);
        Announce();
    }

 private:
    void Send(Message message, std::string_view first = {}, std::string_view second = {},
              std::string_view third = {}) {
        const std::string_view texts[] = {first, second, third};
        for (int n = 0; n < 3; ++n) message.Lengths[n] = texts[n].size();
        Write(&message, sizeof message);
        for (const std::string_view text : texts) Write(text.data(), text.size());
    }
    void Write(const void* bytes, std::size_t length) {
        const auto* from = static_cast<const char*>(bytes);
        while (length > 0) {
            const std::size_t taken = std::min(length, SharedParts::PartBytes - filled_);
            std::memcpy(parts_.Part(announced_) + filled_, from, taken);
            from += taken;
            length -= taken;
            filled_ += taken;
            if (filled_ == SharedParts::PartBytes) Announce();
        }
    }
    /// Hands over the part that is being filled, and waits until there is another one.
    void Announce() {
        if (filled_ == 0) return;
        const auto length = static_cast<std::uint32_t>(filled_);
        if (send(socket_, &length, sizeof length, 0) != sizeof length) _exit(1);
        ++announced_;
        filled_ = 0;
        if (announced_ - acknowledged_ < SharedParts::Parts) return;
        char signs[SharedParts::Parts];
        ssize_t got = 0;
        do {
            got = recv(socket_, signs, sizeof signs, 0);
        } while (got < 0 && errno == EINTR);
        if (got <= 0) _exit(1);
        acknowledged_ += static_cast<std::uint64_t>(got);
    }

    int socket_;
    const SharedParts& parts_;
    std::uint64_t announced_ = 0;
    std::uint64_t acknowledged_ = 0;
    std::size_t filled_ = 0;
    std::size_t rowBytes_ = 0;
};

/// The parent's side. The child may have written over its own memory: nothing it sends is trusted.
class Receiver {
 public:
    Receiver(pid_t child, int socket, const SharedParts& parts, int longestSilence)
        : child_(child), socket_(socket), parts_(parts), longestSilence_(longestSilence) {}
    Receiver(const Receiver&) = delete;
    Receiver& operator=(const Receiver&) = delete;
    /// The child is no longer needed, whatever it still does.
    ~Receiver() {
        close(socket_);
        kill(child_, SIGKILL);
        while (waitpid(child_, nullptr, 0) < 0 && errno == EINTR) {
        }
    }

    /// Passes the next message to the sink; false after the last one.
    bool Next(PictureSink& sink) {
        Message message;
        Read(&message, sizeof message);
        std::string texts[3];
        if (message.Kind == RowMessage) {
            if (message.Lengths[0] != row_.size() || message.Lengths[1] + message.Lengths[2] != 0 ||
                message.Number < 0 || message.Number >= height_) {
                BrokenOff();
            }
            Read(row_.data(), row_.size());
        } else {
            for (int n = 0; n < 3; ++n) texts[n] = Text(message.Lengths[n]);
        }
        switch (message.Kind) {
            case StartMessage:
                Start(texts[0], sink);
                return true;
            case RowMessage:
                sink.Row(message.Number, row_.data());
                return true;
            case StoredMessage:
                PassStored(texts[0], sink);
                return true;
            case CardMessage:
                sink.Card(texts[0]);
                return true;
            case TextCardMessage:
                sink.TextCard(texts[0], texts[1], texts[2]);
                return true;
            case NumberCardMessage:
                sink.NumberCard(texts[0], message.Value, texts[1]);
                return true;
            case RemarkMessage:
                sink.Remark(texts[0]);
                return true;
            case OrientationMessage:
                sink.Orientation(static_cast<int>(std::clamp<std::int64_t>(message.Number, 0, 9)));
                return true;
            case FaultMessage:
                throw DecodeFault(texts[0]);
            case EndMessage:
                return false;
            default:
                BrokenOff();
        }
    }

 private:
    [[noreturn]] static void BrokenOff() {
        throw DecodeFault("Its packed pixels are damaged: the decoder broke off.");
    }

    void Start(const std::string& sent, PictureSink& sink) {
        std::int64_t numbers[ShapeNumbers] = {};
        if (sent.size() != sizeof numbers || height_ > 0) BrokenOff();
        std::memcpy(numbers, sent.data(), sizeof numbers);
        const auto [width, height, channels, kind, bitPix, topRowFirst] = numbers;
        constexpr std::int64_t longest = 1 << 24;
        constexpr std::int64_t mostChannels = 1 << 10;
        if (width < 1 || width > longest || height < 1 || height > longest || channels < 1 ||
            channels > mostChannels || kind < 0 ||
            kind > static_cast<std::int64_t>(SampleKind::Float64) || bitPix < -64 || bitPix > 64) {
            BrokenOff();
        }
        const PictureShape shape{width,
                                 height,
                                 static_cast<int>(channels),
                                 static_cast<SampleKind>(kind),
                                 static_cast<int>(bitPix),
                                 topRowFirst != 0};
        sink.Start(shape);
        height_ = height;
        row_.resize(RowBytes(shape));
    }

    static void PassStored(const std::string& sent, PictureSink& sink) {
        std::uint64_t numbers[StoredNumbers] = {};
        if (sent.size() != sizeof numbers) BrokenOff();
        std::memcpy(numbers, sent.data(), sizeof numbers);
        sink.Stored({numbers[0], numbers[1] != 0, numbers[2] != 0, numbers[3] != 0, numbers[4] != 0,
                     numbers[5] != 0});
    }

    /// Bounds the length of all texts together by more than any header holds.
    std::string Text(std::uint64_t length) {
        constexpr std::uint64_t most = std::uint64_t{64} << 20;
        if (length > most - texts_) BrokenOff();
        texts_ += length;
        std::string text(static_cast<std::size_t>(length), '\0');
        Read(text.data(), text.size());
        return text;
    }

    void Read(void* bytes, std::size_t length) {
        auto* to = static_cast<char*>(bytes);
        while (length > 0) {
            if (taken_ == held_) NextPart();
            const std::size_t now = std::min(length, held_ - taken_);
            std::memcpy(to, parts_.Part(part_) + taken_, now);
            to += now;
            length -= now;
            taken_ += now;
        }
    }
    void NextPart() {
        if (held_ > 0) {
            const char sign = 0;
            // A child that has ended needs none, so this may fail.
            (void)send(socket_, &sign, sizeof sign, MSG_NOSIGNAL | MSG_DONTWAIT);
            ++part_;
        }
        std::uint32_t announced = 0;
        std::size_t got = 0;
        while (got < sizeof announced) {
            pollfd waited{socket_, POLLIN, 0};
            const int ready = poll(&waited, 1, longestSilence_);
            if (ready < 0 && errno == EINTR) continue;
            if (ready < 0 || (ready == 0 && !IsWorking())) BrokenOff();
            if (ready == 0) continue;
            const ssize_t more =
                recv(socket_, reinterpret_cast<char*>(&announced) + got, sizeof announced - got, 0);
            if (more < 0 && errno == EINTR) continue;
            if (more <= 0) BrokenOff();
            got += static_cast<std::size_t>(more);
        }
        if (announced < 1 || announced > SharedParts::PartBytes) BrokenOff();
        held_ = announced;
        taken_ = 0;
    }

    /// Whether the child has used the processor since the last time. On a busy machine it may have
    /// to be waited for; what it may use in all is limited.
    bool IsWorking() {
        clockid_t clock{};
        timespec used{};
        if (clock_getcpuclockid(child_, &clock) != 0 || clock_gettime(clock, &used) != 0) {
            return false;
        }
        constexpr double least = 0.1;  // seconds
        const double seconds =
            static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
        const bool works = seconds > usedSeconds_ + least;
        usedSeconds_ = seconds;
        return works;
    }

    pid_t child_;
    int socket_;
    const SharedParts& parts_;
    int longestSilence_;      ///< milliseconds
    double usedSeconds_ = 0;  ///< the child's processor time when it was last silent
    std::uint64_t part_ = 0;
    std::size_t held_ = 0;  ///< bytes of that part, and how many of them were taken
    std::size_t taken_ = 0;
    std::int64_t height_ = 0;
    std::vector<char> row_;
    std::uint64_t texts_ = 0;
};

void Limit(decltype(RLIMIT_AS) resource, std::uint64_t most) {
    rlimit limit{};
    if (getrlimit(resource, &limit) != 0) return;
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, most);
    setrlimit(resource, &limit);
}

/// The address space in use: the child's limit comes on top of it, because sanitizers map far more
/// than any machine has.
std::uint64_t MappedBytes() {
    unsigned long long pages = 0;
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen("/proc/self/statm", "r"),
                                                               std::fclose);
    char line[64] = {};
    if (file == nullptr || std::fgets(line, sizeof line, file.get()) == nullptr) return 0;
    pages = std::strtoull(line, nullptr, 10);
    return pages * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
}

/// All that the child process does.
[[noreturn]] void Child(int socket, const SharedParts& parts, std::uint64_t mapped,
                        const DecodeCall& decode, const ApartLimits& limits) {
    // Only the parent may notice how it ends: no crash report, no core file, no signal handler, and
    // no file that a tool would write.
    for (const int number : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTERM, SIGINT, SIGHUP,
                             SIGPIPE, SIGXCPU, SIGALRM, SIGUSR1, SIGUSR2}) {
        std::signal(number, SIG_DFL);
    }
    socket = fcntl(socket, F_DUPFD, 3);
    const int nowhere = open("/dev/null", O_RDWR);
    for (const int stream : {0, 1, 2}) dup2(nowhere, stream);
    if (mapped > 0) Limit(RLIMIT_AS, mapped + limits.Memory);
    Limit(RLIMIT_CPU, limits.ProcessorSeconds);
    Limit(RLIMIT_CORE, 0);
    Limit(RLIMIT_FSIZE, 0);
    try {
        Sender sender(socket, parts);
        sender.End(decode(sender));
    } catch (...) {
        _exit(1);
    }
    _exit(0);  // no destructors and no buffers: they are the parent's
}

}  // namespace

void DecodeApart(const DecodeCall& decode, PictureSink& sink, const ApartLimits& limits) {
    const SharedParts parts;
    int ends[2] = {};  // the parent's and the child's
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) {
        throw DecodeFault("The system has no socket left to decode it.");
    }
    for (const int end : ends) fcntl(end, F_SETFD, FD_CLOEXEC);
    const std::uint64_t mapped = MappedBytes();
    const pid_t child = fork();
    if (child == 0) {
        close(ends[0]);  // so that the child notices the end of its parent
        Child(ends[1], parts, mapped, decode, limits);
    }
    close(ends[1]);
    if (child < 0) {
        close(ends[0]);
        throw DecodeFault("The system has no process left to decode it.");
    }
    Receiver receiver(child, ends[0], parts, limits.SilenceMilliseconds);
    while (receiver.Next(sink)) {
    }
}

}  // namespace vestrel

#else

namespace vestrel {

void DecodeApart(const DecodeCall& decode, PictureSink& sink, const ApartLimits& /*limits*/) {
    const std::string fault = decode(sink);
    if (!fault.empty()) throw DecodeFault(fault);
}

}  // namespace vestrel

#endif
