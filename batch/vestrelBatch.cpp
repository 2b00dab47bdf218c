// vestrel-batch: solves the pictures of a night, existing ones or as they arrive.

#include <unistd.h>
#include <CLI/CLI.hpp>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <exception>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "astro/libParallel.h"
#include "astro/libStrings.h"
#include "batch/libJournal.h"
#include "batch/libNightReport.h"
#include "batch/libPictureFiles.h"
#include "batch/nightRun.h"
#include "platform/libConsole.h"
#include "platform/libPlatform.h"

namespace vestrel {
namespace {

constexpr int exitDone = 0;
constexpr int exitUsage = 2;
constexpr int exitStopped = 4;
constexpr int exitNoPictures = 5;
constexpr int exitUnreached = 6;
constexpr int exitNotWritten = 8;

constexpr const char* description =
    "Solves the pictures of a night: files, folders and patterns, or whatever arrives in a "
    "folder.\n"
    "\n"
    "  vestrel-batch lights/ --out night.jsonl --wcs --report night.html\n"
    "  vestrel-batch --watch /captures --out night.jsonl --report night.html\n"
    "\n"
    "The journal has one line of JSON for each picture. A run that was ended in any way goes on\n"
    "where it was when it is started again with the same journal.";

constexpr const char* closing =
    "Exit codes:\n"
    "  0  every picture was gone through, solved or not\n"
    "  2  wrong use of the command line\n"
    "  4  stopped by the user; the next run goes on from there\n"
    "  5  there are no pictures\n"
    "  6  there is no catalog, or pictures or folders could not be read: the next run tries them\n"
    "     again\n"
    "  8  the journal or the report could not be written";

struct Options {
    std::vector<std::string> Words;
    std::string Watch;
    std::string Journal;
    std::string Report;
    std::string Catalog;
    std::string To;
    std::string Scale;
    int Workers = 0;
    double IdleEnd = 0;
    bool Quiet = false;
    NightOptions Night;
};

volatile std::sig_atomic_t stopSignals = 0;

extern "C" void OnStopSignal(int /*signal*/) {
    for (const int other : {SIGINT, SIGTERM}) std::signal(other, SIG_DFL);
    stopSignals = 1;
    EndWithin(2, exitStopped);
}

/// "1.55" or "1-3": arcseconds per pixel.
std::optional<SolverRange> ScaleOf(const std::string& text) {
    const std::size_t dash = text.find('-', 1);
    const auto low = ParseNumber(text.substr(0, dash));
    const auto high = dash == std::string::npos ? low : ParseNumber(text.substr(dash + 1));
    if (!low || !high || !(*low > 0) || !(*high >= *low) || !(*high < 1e6)) return std::nullopt;
    return SolverRange{*low, *high};
}

std::optional<int> ReadOptions(int argc, const char* const* argv, Options& options) {
    CLI::App app(description, "vestrel-batch");
    app.footer(closing);
    app.set_version_flag("--version", std::string("vestrel-batch ") + VESTREL_VERSION);
    NightOptions& night = options.Night;
    const CLI::Validator seconds(
        [](const std::string& text) -> std::string {
            const auto number = ParseNumber(text);
            const bool good = number && *number > 0 && *number <= 1e6;
            return good ? "" : "needs a number above 0 and up to 1000000";
        },
        "");
    app.add_option("pictures", options.Words, "Pictures, folders, or patterns in quotes");
    app.add_option("--watch", options.Watch, "Solve what arrives in this folder, until stopped")
        ->type_name("FOLDER");
    app.add_option("--idle-end", options.IdleEnd,
                   "With --watch: end when nothing has arrived for so many seconds")
        ->check(seconds);
    app.add_option("--out", options.Journal,
                   "The journal; without it the lines go to standard output and are not remembered")
        ->type_name("FILE");
    app.add_option(
           "--report", options.Report,
           "At the end, the whole journal as one HTML page with plots; also without pictures")
        ->type_name("FILE");
    app.add_option("--workers", options.Workers,
                   "Pictures solved at once; as many as there are processors, 4 at most")
        ->check(CLI::Range(1, 64));
    app.add_option("--catalog", options.Catalog, "Folder of the catalog")->type_name("FOLDER");
    app.add_option("--scale", options.Scale,
                   "Arcseconds per pixel, as 1.55 or 1-3; when left out, as the pictures say");
    app.add_option("--time-limit", night.TimeLimit, "Seconds for one picture")
        ->capture_default_str()
        ->check(seconds);
    const char* outputs = "Files written for each picture";
    app.add_flag("--wcs", night.Coordinates, "World coordinates as a FITS header (.wcs)")
        ->group(outputs);
    app.add_flag("--export", night.Copy, "A copy as standard FITS with the solution (.solved.fits)")
        ->group(outputs);
    app.add_flag("--kel", night.Result, "The result file of unattended runs (.kel)")
        ->group(outputs);
    app.add_option("--to", options.To, "Folder for them; when left out, beside each picture")
        ->type_name("FOLDER")
        ->group(outputs);
    app.add_flag("--quiet", options.Quiet, "No line on standard error for each picture");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& end) {
        std::ostringstream out;
        std::ostringstream errors;
        const int code = app.exit(end, out, errors);
        std::fputs(WithoutControls(code == 0 ? out.str() : errors.str(), "\n").c_str(),
                   code == 0 ? stdout : stderr);
        return code == 0 ? exitDone : exitUsage;
    }
    const auto wrong = [](const char* text) {
        std::fprintf(stderr, "%s\nRun with --help for more information.\n", text);
        return exitUsage;
    };
    if (!options.Scale.empty() && !(night.Scale = ScaleOf(options.Scale))) {
        return wrong("--scale: arcseconds per pixel, as 1.55 or 1-3");
    }
    const bool work = !options.Words.empty() || !options.Watch.empty();
    if (!work && (options.Report.empty() || options.Journal.empty())) {
        return wrong("Name pictures, or a folder to watch.");
    }
    if (!options.Report.empty() && options.Journal.empty()) {
        return wrong("A report is made of a journal: name one (--out).");
    }
    if (!options.Report.empty() &&
        !MayHoldReport(PathFromText(options.Report), PathFromText(options.Journal))) {
        return wrong("--report: this is the journal, or a file of another kind; it stays.");
    }
    return std::nullopt;
}

/// The line on standard error about a picture.
void PrintLine(std::size_t done, std::size_t left, const nlohmann::ordered_json& line) {
    std::string text = line.value("end", "");
    if (text == "solved") {
        char place[64];
        std::snprintf(place, sizeof place, "  %.4f %+.4f", line.value("ra_deg", 0.0),
                      line.value("dec_deg", 0.0));
        text += place;
    } else {
        text += ": " + line.value("reason", "");
        if (const auto cause = line.find("cause"); cause != line.end()) {
            text += " " + cause->value("text", "");
        }
    }
    std::fprintf(stderr, "%zu done, %zu left  %s  %s\n", done, left,
                 WithoutControls(line.value("picture", "")).c_str(), WithoutControls(text).c_str());
}

class Night {
 public:
    explicit Night(const Options& options) : options_(options) {
        if (!options.Journal.empty()) {
            const std::filesystem::path file = PathFromText(options.Journal);
            journal_.emplace(file);
            names_.Take(AbsolutePath(file).lexically_normal(), {});
            if (journal_->Strange() > 0) {
                std::fprintf(stderr, "%zu lines of the journal cannot be read; they stay.\n",
                             journal_->Strange());
            }
            ReadJournal(file, [this](const auto& line) {
                const std::string picture = PicturePathOf(line);
                names_.Take(picture, picture);
                for (const std::string& written : WrittenPathsOf(line)) {
                    names_.Take(PathFromText(written), picture);
                }
            });
        }
    }

    int Run() {
        NightRun run(
            options_.Night, names_,
            [this](const auto& picture, const auto& line) { Take(picture, line); },
            [this](const auto& picture, const auto& why) { TakeUnreached(picture, why); });
        run_ = &run;
        std::vector<std::filesystem::path> pictures;
        bool unread = false;
        std::size_t copies = 0;
        for (const std::string& word : options_.Words) {
            const FoundPictures found = PicturesOf(word);
            if (found.ExportedCopy) {
                ++copies;
            } else if (found.Pictures.empty() && found.Unread.empty()) {
                std::fprintf(stderr, "%s: there are no pictures.\n", WithoutControls(word).c_str());
            }
            pictures.insert(pictures.end(), found.Pictures.begin(), found.Pictures.end());
            PrintUnread(found.Unread);
            unread = unread || !found.Unread.empty();
        }
        if (copies > 0) {
            std::fprintf(stderr, "Exported copies (%s) are no pictures; left out: %zu.\n",
                         SolvedSuffix, copies);
        }
        // All of them are known before the first file is written beside one.
        for (const auto& picture : pictures) names_.Take(picture, picture.native());
        for (const auto& picture : pictures) Add(run, picture);
        bool any = !pictures.empty();
        if (!options_.Watch.empty()) {
            unread = Watch(run) || unread;
            any = true;
        }
        while (stopSignals == 0 && !run.Wait(tick)) {
        }
        run.Stop();
        if (stopSignals != 0) return exitStopped;
        if (unread || !unreached_.empty()) return exitUnreached;
        return any || options_.Words.empty() ? exitDone : exitNoPictures;
    }

 private:
    static constexpr std::chrono::milliseconds tick{100};

    void Add(NightRun& run, const std::filesystem::path& picture) {
        if (!added_.insert(picture.native()).second) return;
        if (journal_ && journal_->Has(picture.native())) return;
        names_.Take(picture, picture.native());
        run.Add(picture);
    }

    static void PrintUnread(const std::vector<std::filesystem::path>& folders) {
        for (const auto& folder : folders) {
            std::fprintf(stderr, "The folder %s cannot be read.\n",
                         WithoutControls(TextFromPath(folder)).c_str());
        }
    }

    /// The pictures that could not be reached since the last call.
    std::vector<std::string> Missed() {
        const std::lock_guard guard(missedLock_);
        return std::exchange(missed_, {});
    }

    /// @return whether folders could not be read in the end
    bool Watch(NightRun& run) {
        FolderWatch watch(PathFromText(options_.Watch));
        auto last = std::chrono::steady_clock::now();
        std::size_t linesBefore = 0;
        std::vector<std::filesystem::path> unread;
        bool gone = false;
        while (stopSignals == 0) {
            bool arrived = false;
            for (const auto& picture : watch.Wait(tick)) {
                // One that is only tried again may never be reached.
                arrived = arrived || !WasMissed(picture.native());
                Add(run, picture);
            }
            // They wait until they are found again.
            for (const std::string& picture : Missed()) {
                added_.erase(picture);
                watch.Forget(picture);
            }
            if (unread != watch.Unread()) PrintUnread(unread = watch.Unread());
            if (std::exchange(gone, watch.Gone()) != gone) {
                std::fprintf(stderr, "The folder %s is %s.\n",
                             WithoutControls(options_.Watch).c_str(),
                             gone ? "gone: it is waited for" : "there again");
            }
            const bool idle = run.Wait(std::chrono::milliseconds(0)) && !watch.Waiting();
            const auto now = std::chrono::steady_clock::now();
            if (arrived || std::exchange(linesBefore, done_) != done_) last = now;
            if (options_.IdleEnd > 0 && idle &&
                now - last > std::chrono::duration<double>(options_.IdleEnd)) {
                break;
            }
        }
        return !unread.empty();
    }

    bool WasMissed(const std::string& picture) {
        const std::lock_guard guard(missedLock_);
        return unreached_.contains(picture);
    }

    void TakeUnreached(const std::string& picture, const std::string& why) {
        const std::lock_guard guard(missedLock_);
        missed_.push_back(picture);
        if (!unreached_.insert(picture).second) return;  // told before
        std::fprintf(stderr, "not done  %s  %s\n", WithoutControls(picture).c_str(),
                     WithoutControls(why).c_str());
    }

    void Take(const std::string& picture, const nlohmann::ordered_json& line) {
        if (journal_) {
            journal_->Add(picture, line);
        } else {
            const std::string text =
                line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
            if (std::fputs(text.c_str(), stdout) < 0 || std::fflush(stdout) != 0) {
                throw std::runtime_error("The lines cannot be written to standard output.");
            }
        }
        ++done_;
        {
            const std::lock_guard guard(missedLock_);
            unreached_.erase(picture);
        }
        if (!options_.Quiet) PrintLine(done_, run_->Left() - 1, line);
    }

    const Options& options_;
    std::optional<Journal> journal_;
    OutputNames names_;
    std::unordered_set<std::string> added_;
    NightRun* run_ = nullptr;
    std::atomic<std::size_t> done_ = 0;
    std::mutex missedLock_;
    std::vector<std::string> missed_;            ///< since they were last asked for
    std::unordered_set<std::string> unreached_;  ///< pictures without a line
};

int Run(int argc, const char* const* argv) {
    Options options;
    if (const auto end = ReadOptions(argc, argv, options)) return *end;
    const int processors = ParallelThreads();
    constexpr int mostByItself = 4;
    options.Night.Workers =
        options.Workers > 0 ? options.Workers : std::min(processors, mostByItself);
    options.Night.Settings = SettingsOfUser();
    options.Night.Settings.CatalogFolder = options.Catalog;
    options.Night.Settings.DecodeApart = true;
    options.Night.Settings.Threads = std::clamp(processors / options.Night.Workers, 1, 256);
    if (!options.To.empty()) {
        options.Night.To = AbsolutePath(PathFromText(options.To)).lexically_normal();
        std::error_code error;
        std::filesystem::create_directories(options.Night.To, error);
        if (error) {
            std::fprintf(stderr, "The folder %s cannot be made.\n",
                         WithoutControls(options.To).c_str());
            return exitNotWritten;
        }
    }
    for (const int number : {SIGINT, SIGTERM}) std::signal(number, OnStopSignal);
    // With a journal the night does not depend on who reads its messages.
    if (!options.Journal.empty()) std::signal(SIGPIPE, SIG_IGN);
    int code = exitDone;
    try {
        if (!options.Words.empty() || !options.Watch.empty()) code = Night(options).Run();
        if (!options.Report.empty()) {
            alarm(0);  // the patience with a stopped night is over; a second signal still ends this
            WriteNightReport(PathFromText(options.Journal), PathFromText(options.Report));
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "vestrel-batch: %s\n", WithoutControls(error.what()).c_str());
        return exitNotWritten;
    }
    return code;
}

}  // namespace
}  // namespace vestrel

int main(int argc, char** argv) {
    return vestrel::RunProgram("vestrel-batch", argc, argv, vestrel::Run,
                               [](const std::exception&) { return vestrel::exitUsage; });
}
