#include "image/libApartDecoder.h"

#ifndef _WIN32

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>

#include "image/libPictureChannel.h"

namespace vestrel {

namespace {

/// The running child. It is no longer needed when this ends, whatever it still does.
class ChildProcess {
 public:
    ChildProcess(pid_t child, int socket) : child_(child), socket_(socket) {}
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    ~ChildProcess() {
        close(socket_);
        kill(child_, SIGKILL);
        while (waitpid(child_, nullptr, 0) < 0 && errno == EINTR) {
        }
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

 private:
    pid_t child_;
    int socket_;
    double usedSeconds_ = 0;  ///< the child's processor time when it was last silent
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
[[noreturn]] void Child(int socket, pid_t parent, const SharedParts& parts, std::uint64_t mapped,
                        const DecodeCall& decode, const ApartLimits& limits) {
    // It ends with its parent, which may have ended already.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(1);
    // A terminal sends these to both. The parent decides: a child that ended first would look as
    // if the picture had broken it.
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) std::signal(number, SIG_IGN);
    // Only the parent may notice how it ends: no crash report, no core file, no signal handler, and
    // no file that a tool would write.
    for (const int number :
         {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGPIPE, SIGXCPU, SIGALRM, SIGUSR1, SIGUSR2}) {
        std::signal(number, SIG_DFL);
    }
    // Nothing else of the parent stays open here: no journal that it has locked, no port.
    socket = dup2(socket, 3);
    close_range(4, ~0U, 0);
    const int nowhere = open("/dev/null", O_RDWR);
    for (const int stream : {0, 1, 2}) dup2(nowhere, stream);
    if (mapped > 0) Limit(RLIMIT_AS, mapped + limits.Memory);
    Limit(RLIMIT_CPU, limits.ProcessorSeconds);
    Limit(RLIMIT_CORE, 0);
    Limit(RLIMIT_FSIZE, 0);
    try {
        PictureSender sender(socket, parts);
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
        throw DecodeFault(std::string(NoMeansToDecode) + ": there is no socket left.");
    }
    for (const int end : ends) fcntl(end, F_SETFD, FD_CLOEXEC);
    const std::uint64_t mapped = MappedBytes();
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child == 0) Child(ends[1], parent, parts, mapped, decode, limits);
    close(ends[1]);
    if (child < 0) {
        close(ends[0]);
        throw DecodeFault(std::string(NoMeansToDecode) + ": there is no process left.");
    }
    ChildProcess process(child, ends[0]);
    PictureReceiver receiver(ends[0], parts, limits.SilenceMilliseconds,
                             [&process] { return process.IsWorking(); });
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
