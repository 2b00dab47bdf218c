// vestrel-server: solves pictures that other programs or browsers send.

#include <fcntl.h>
#include <malloc.h>
#include <sys/file.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <string>
#include <string_view>
#include <system_error>

#include "platform/libConsole.h"
#include "platform/libPlatform.h"
#include "server/jobQueue.h"
#include "server/novaServer.h"

namespace vestrel {
namespace {

constexpr std::string_view folderPrefix = "vestrel-server-";

/// A folder of this process for uploads, removed at the end. Folders of servers that were killed
/// are removed too.
class SpoolFolder {
 public:
    SpoolFolder() {
        const std::filesystem::path parent = std::filesystem::temp_directory_path();
        RemoveLeftOvers(parent);
        std::string name =
            (parent / (std::string(folderPrefix) + std::to_string(ProcessNumber()) + "-XXXXXX"))
                .string();
        if (mkdtemp(name.data()) == nullptr) {
            throw std::system_error(errno, std::generic_category(),
                                    "no folder in " + parent.string());
        }
        Path = name;
        held_ = Hold(Path);
    }
    ~SpoolFolder() {
        Remove();
        if (held_ >= 0) close(held_);
    }
    SpoolFolder(const SpoolFolder&) = delete;
    SpoolFolder& operator=(const SpoolFolder&) = delete;

    void Remove() const {
        std::error_code ignored;
        std::filesystem::remove_all(Path, ignored);
    }

    std::filesystem::path Path;

 private:
    static void RemoveLeftOvers(const std::filesystem::path& parent) {
        std::error_code ignored;
        for (const auto& entry : std::filesystem::directory_iterator(parent, ignored)) {
            const std::string name = entry.path().filename().string();
            if (!name.starts_with(folderPrefix) || !entry.is_directory(ignored)) continue;
            long process = 0;
            std::from_chars(name.data() + folderPrefix.size(), name.data() + name.size(), process);
            // In a container every process has the same few numbers: a dead one may have had our
            // own.
            if (process != ProcessNumber() && (process <= 0 || IsRunning(process))) continue;
            const int held = Hold(entry.path());
            if (held < 0) continue;
            std::filesystem::remove_all(entry, ignored);
            close(held);
        }
    }

    /// Marks a folder as in use, for servers in containers that share it: there the number of its
    /// process says nothing. @return a descriptor to close; −1 when another process holds it
    static int Hold(const std::filesystem::path& folder) {
        const int held = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (held < 0 || flock(held, LOCK_EX | LOCK_NB) == 0) return held;
        close(held);
        return -1;
    }

    int held_ = -1;
};

/// An address as URLs have it.
std::string HostOf(const std::string& address) {
    return address.find(':') == std::string::npos ? address : "[" + address + "]";
}

int Run(int argc, const char* const* argv) {
    CLI::App app("Solves pictures that are sent over HTTP, as astrometry.net's web service does.");
    ServerSettings server;
    QueueSettings queue;
    std::uint64_t megabytes = server.MostBody >> 20;
    app.add_option("--address", server.Address, "Address to listen at")->capture_default_str();
    app.add_option("--port", server.Port, "Port; 0: any that is free")
        ->capture_default_str()
        ->check(CLI::Range(0, 65535));
    app.add_option("--key", server.Key, "API key that clients have to give (default: any)");
    app.add_option("--catalog", queue.CatalogFolder, "Catalog folder");
    app.add_option("--max-upload", megabytes, "Largest picture, megabytes")
        ->capture_default_str()
        ->check(CLI::Range(1, 4096));
    app.add_option("--max-queue", queue.MostWaiting, "Most pictures that wait")
        ->capture_default_str()
        ->check(CLI::Range(1, 100000));
    app.set_version_flag("--version", "vestrel-server " VESTREL_VERSION);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : 2;
    }
    server.MostBody = megabytes << 20;
    server.MostInFlight = std::max(server.MostInFlight, 2 * server.MostBody);

    // These signals are waited for below; threads inherit the mask.
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGTERM);
    sigaddset(&ends, SIGINT);
    sigaddset(&ends, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &ends, nullptr);
    std::signal(SIGPIPE, SIG_IGN);

    const SpoolFolder spool;
    queue.Folder = spool.Path;
    JobQueue jobs(queue);
    NovaServer nova(server, jobs);
    const int port = nova.Start();
    if (port == 0) {
        std::fprintf(stderr, "vestrel-server: %s:%d cannot be listened at; is it in use?\n",
                     HostOf(server.Address).c_str(), server.Port);
        return 1;
    }
    std::printf("Listening at http://%s:%d\n", HostOf(server.Address).c_str(), port);
    std::fflush(stdout);
    int signal = 0;
    sigwait(&ends, &signal);
    std::fputs("vestrel-server: ending\n", stderr);
    // A client may keep its connection open for longer than this.
    EndWithin(2, 0);
    jobs.Stop();
    spool.Remove();
    // Some send a signal to the process and then to its group: that is one.
    constexpr timespec same{0, 200'000'000};
    sigtimedwait(&ends, nullptr, &same);
    // A second signal gets the default action and ends the program at once.
    sigdelset(&ends, SIGHUP);
    pthread_sigmask(SIG_UNBLOCK, &ends, nullptr);
    nova.Stop();
    return 0;
}

}  // namespace
}  // namespace vestrel

int main(int argc, char** argv) {
#ifdef __GLIBC__
    // By default each of the many threads of a server keeps to itself what it has freed.
    mallopt(M_ARENA_MAX, 2);
#endif
    return vestrel::RunProgram("vestrel-server", argc, argv, vestrel::Run,
                               [](const std::exception&) { return 1; });
}
