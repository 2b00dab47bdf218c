#include "batch/nightRun.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <new>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "astro/libMath.h"
#include "batch/libJournal.h"
#include "batch/libPictureFiles.h"
#include "catalog/libCatalogCache.h"
#include "image/libApartDecoder.h"
#include "platform/libFiles.h"
#include "platform/libPlatform.h"

namespace vestrel {

namespace {

using Json = nlohmann::ordered_json;
using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

std::string UniversalTime() {
    const std::time_t now = std::time(nullptr);
    std::tm parts{};
    char text[32] = {};
    if (gmtime_r(&now, &parts) == nullptr) return {};
    return {text, std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts)};
}

/// Identifies a camera: by its number of pixels and its name.
std::string CameraOf(const PictureFacts& facts) {
    return std::to_string(facts.Width) + "x" + std::to_string(facts.Height) + " " +
           facts.Instrument;
}

/// What a picture lacks now but may have later, so that it gets no line.
class Unreached : public std::runtime_error {
 public:
    using std::runtime_error::runtime_error;
};

/// @throws Unreached when not even the first byte of a picture can be read
void RequireReadable(const std::filesystem::path& picture) {
    errno = 0;
    const FileHandle file = OpenFile(picture, "rb");
    if (file && (std::fgetc(file.get()) != EOF || std::ferror(file.get()) == 0)) return;
    throw Unreached("It cannot be read: " + std::generic_category().message(errno) + ".");
}

/// @throws Unreached when there is no catalog at all
void RequireCatalog(const std::string& folder) {
    CatalogCache catalog;
    catalog.Folder = folder.empty() ? DefaultCatalogFolder() : PathFromText(folder);
    const CatalogPresence presence = PresenceOfCatalog(catalog);
    if (presence == CatalogPresence::FolderMissing || presence == CatalogPresence::NoCells) {
        throw Unreached("There is no catalog in " + TextFromPath(catalog.Folder) + ".");
    }
}

/// The turn of the picture as it is displayed, whichever way round its file has the rows. All three
/// mean the same in the JSON of vestrel-solve.
void AddTurn(const SolverCoordinates& displayed, Json& line) {
    const double columns =
        std::atan2(-displayed.Cd[1][0], -displayed.Cd[0][0]) * ExactDegreesPerRadian;
    line["rotation_deg"] = columns < 0 ? columns + 360 : columns;
    line["up_position_angle_deg"] = displayed.Rotation();
    line["mirrored"] = displayed.Mirrored();
}

void AddField(const Solver& solver, const SolverOutcome& outcome, Json& line) {
    const SolvedField& field = *outcome.Field;
    line["ra_deg"] = field.Centre.Ra;
    line["dec_deg"] = field.Centre.Dec;
    line["width_deg"] = field.Width;
    line["height_deg"] = field.Height;
    if (field.Coordinates.Crpix[0] > 0) {
        line["scale_arcsec_px"] = field.Coordinates.Scale();
        CardOptions displayed;
        displayed.RowsAsStored = false;
        if (const auto turned = solver.Coordinates(displayed)) AddTurn(*turned, line);
    }
    line["rms_px"] = field.Rms;
    if (field.CentreError > 0) line["centre_error_arcsec"] = field.CentreError;
    line["stars_matched"] = field.Matches.size();
    line["log10_false_alarm"] = outcome.Certainty.Log10FalseAlarm;
    line["magnitude_zero_point"] = field.MagnitudeZeroPoint;
    if (!field.Cautions.empty()) line["cautions"] = field.Cautions;
    line["solved_by"] = outcome.SolvedBy;
}

/// The same text for all paths of a file: a link may lead to it, or to its folder.
std::string PlaceOf(const std::filesystem::path& file) {
    std::error_code error;
    const std::filesystem::path place = std::filesystem::weakly_canonical(file, error);
    return error ? file.native() : place.native();
}

}  // namespace

void OutputNames::Take(const std::filesystem::path& file, const std::string& picture) {
    const std::lock_guard guard(lock_);
    owners_.try_emplace(PlaceOf(file), picture);
}

std::filesystem::path OutputNames::For(const std::filesystem::path& picture,
                                       const std::filesystem::path& folder,
                                       const std::string& ending) {
    const std::lock_guard guard(lock_);
    const auto mine = [&](const std::filesystem::path& file) {
        std::error_code ignored;
        return file != picture && !std::filesystem::equivalent(file, picture, ignored) &&
               owners_.try_emplace(PlaceOf(file), picture.native()).first->second ==
                   picture.native();
    };
    std::filesystem::path file = folder / (picture.stem().native() + ending);
    if (mine(file)) return file;
    file = folder / (picture.filename().native() + ending);
    for (int number = 2; !mine(file); ++number) {
        file = folder / (picture.filename().native() + "-" + std::to_string(number) + ending);
    }
    return file;
}

NightRun::NightRun(const NightOptions& options, OutputNames& names, TakeLine take,
                   TakeUnreached takeUnreached)
    : options_(options),
      names_(names),
      take_(std::move(take)),
      takeUnreached_(std::move(takeUnreached)) {
    for (int i = 0; i < options_.Workers; ++i) {
        workers_.emplace_back([this] { Work(stop_.get_token()); });
    }
}

NightRun::~NightRun() {
    Stop();
}

void NightRun::Add(const std::filesystem::path& picture) {
    {
        const std::lock_guard guard(lock_);
        waiting_.push_back(picture.native());
    }
    changed_.notify_all();
}

std::size_t NightRun::Left() {
    const std::lock_guard guard(lock_);
    return waiting_.size() + underway_;
}

bool NightRun::Wait(std::chrono::milliseconds longest) {
    std::unique_lock guard(lock_);
    const auto none = [this] { return waiting_.empty() && underway_ == 0; };
    changed_.wait_for(guard, longest, [&] { return none() || failure_; });
    if (failure_) std::rethrow_exception(failure_);
    return none();
}

void NightRun::Stop() {
    {
        const std::lock_guard guard(lock_);
        stop_.request_stop();
        waiting_.clear();
    }
    changed_.notify_all();
    for (std::jthread& worker : workers_) {
        if (worker.joinable()) worker.join();
    }
}

void NightRun::Work(const std::stop_token& stop) {
    std::optional<Solver> solver;
    for (;;) {
        std::string picture;
        {
            std::unique_lock guard(lock_);
            changed_.wait(guard, [&] { return stop.stop_requested() || !waiting_.empty(); });
            if (stop.stop_requested()) return;
            picture = std::move(waiting_.front());
            waiting_.pop_front();
            ++underway_;
        }
        try {
            if (!solver) solver.emplace(options_.Settings);
            if (const auto line = LineOf(*solver, picture, stop)) {
                const std::lock_guard guard(lineLock_);
                take_(picture, *line);
            }
        } catch (const Unreached& why) {
            const std::lock_guard guard(lineLock_);
            takeUnreached_(picture, why.what());
        } catch (...) {
            const std::lock_guard guard(lock_);
            if (!failure_) failure_ = std::current_exception();
            stop_.request_stop();
        }
        {
            const std::lock_guard guard(lock_);
            --underway_;
        }
        changed_.notify_all();
    }
}

SolverOutcome NightRun::SolveOpened(Solver& solver, const PictureFacts& facts,
                                    const std::stop_token& stop) {
    const SolverWatch watch{stop, {}};
    SolverHints hints;
    hints.TimeLimit = hints.EndAfter = options_.TimeLimit;
    hints.Scale = options_.Scale;
    std::optional<LastLook> last;
    {
        const std::lock_guard guard(lock_);
        const auto found = looks_.find(CameraOf(facts));
        if (found != looks_.end()) last = found->second;
    }
    double before = 0;
    if (last) {
        // Tries the last field of the same camera and one step around it, which costs next to
        // nothing when it is wrong.
        SolverHints near = hints;
        near.Centres = {{last->Centre.Ra, last->Centre.Dec, last->Side / 2.5, true}};
        near.Scale = SolverRange{last->Scale, last->Scale};
        near.FromPicture = false;
        near.WholeSky = false;
        near.FindCause = false;
        SolverOutcome outcome = solver.Solve(near, watch);
        if (outcome.Solved()) {
            outcome.SolvedBy = "last picture";
            return outcome;
        }
        if (outcome.End == SolverEnd::Stopped) return outcome;
        before = outcome.Seconds;
        constexpr double least = 0.001;
        hints.EndAfter = std::max(least, options_.TimeLimit - before);
    }
    SolverOutcome outcome = solver.Solve(hints, watch);
    outcome.Seconds += before;
    return outcome;
}

void NightRun::WriteFiles(const Solver& solver, const std::string& picture, bool solved,
                          Json& line) {
    const std::filesystem::path path(picture);
    const std::filesystem::path folder = options_.To.empty() ? path.parent_path() : options_.To;
    const auto write = [&](const char* key, const std::string& ending, const auto& writer) {
        const std::string file = TextFromPath(names_.For(path, folder, ending));
        std::string fault;
        if (writer(file, fault)) {
            AddPath(line["files"], key, file);
        } else {
            line["faults"].push_back(fault);
        }
    };
    const auto coordinates = [&](const std::string& file, std::string& fault) {
        return solver.WriteCoordinates(file, fault);
    };
    const auto copy = [&](const std::string& file, std::string& fault) {
        return solver.Export(file, fault);
    };
    const auto result = [&](const std::string& file, std::string& fault) {
        return solver.WriteResult(file, fault);
    };
    if (options_.Coordinates && solved) write("wcs", ".wcs", coordinates);
    if (options_.Copy && solved) write("export", SolvedSuffix, copy);
    if (options_.Result) write("kel", ".kel", result);
}

/// Solves a picture and makes its line. Nothing when it was stopped: the picture is then not done.
/// @throws Unreached
std::optional<Json> NightRun::LineOf(Solver& solver, const std::string& picture,
                                     const std::stop_token& stop) {
    const Clock::time_point start = Clock::now();
    Json line;
    AddPath(line, PictureKey, picture);
    SolverOutcome outcome;
    RequireReadable(picture);
    RequireCatalog(options_.Settings.CatalogFolder);
    try {
        const PictureFacts facts = solver.Open(TextFromPath(picture), SolverWatch{stop, {}});
        outcome.Picture = facts;
        outcome.Reason = facts.Fault;
        if (facts.Opened) outcome = SolveOpened(solver, facts, stop);
    } catch (const std::bad_alloc&) {
        outcome.End = SolverEnd::OutOfMemory;
        outcome.Reason = "There is not enough memory for this picture.";
    }
    if (outcome.End == SolverEnd::Stopped || stop.stop_requested()) return std::nullopt;
    const PictureFacts& facts = outcome.Picture;
    // Picture and catalog may have gone away meanwhile.
    if (!facts.Opened) RequireReadable(picture);
    if (!outcome.Solved()) RequireCatalog(options_.Settings.CatalogFolder);
    if (facts.Fault.find(NoMeansToDecode) != std::string::npos) throw Unreached(facts.Fault);
    line["end"] = NameOf(outcome.End);
    if (!outcome.Solved()) line["reason"] = outcome.Reason;
    if (!outcome.Cause.empty()) {
        line["cause"] = {{"kind", outcome.CauseKind}, {"text", outcome.Cause}};
        if (!outcome.Advice.empty()) line["cause"]["try"] = outcome.Advice.front();
    }
    if (outcome.Solved()) AddField(solver, outcome, line);
    if (outcome.Candidate) {
        line["candidate"] = {{"ra_deg", outcome.Candidate->Ra},
                             {"dec_deg", outcome.Candidate->Dec}};
    }
    if (facts.Opened) {
        line["stars"] = outcome.Stars.size();
        line["width_px"] = facts.Width;
        line["height_px"] = facts.Height;
        line["format"] = facts.Format;
        if (!facts.Instrument.empty()) line["camera"] = facts.Instrument;
        if (!facts.ObservedAt.empty()) line["observed_at"] = facts.ObservedAt;
        const Clock::time_point writing = Clock::now();
        WriteFiles(solver, picture, outcome.Solved(), line);
        line["seconds"]["writing"] = SecondsSince(writing);
    }
    line["seconds"]["opening"] = facts.Seconds;
    line["seconds"]["solving"] = outcome.Seconds;
    line["seconds"]["total"] = SecondsSince(start);
    line["finished_at"] = UniversalTime();
    if (outcome.Solved() && outcome.Field->Coordinates.Crpix[0] > 0) {
        const SolvedField& field = *outcome.Field;
        const std::lock_guard guard(lock_);
        looks_[CameraOf(facts)] = {field.Centre, field.Coordinates.Scale(),
                                   std::min(field.Width, field.Height)};
    }
    return line;
}

}  // namespace vestrel
