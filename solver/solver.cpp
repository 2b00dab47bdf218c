#include "solver/solver.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <stdexcept>

#include "astro/libMath.h"
#include "astro/libStrings.h"
#include "image/libDecoder.h"
#include "image/libWorldCoordinates.h"
#include "platform/libConsole.h"
#include "platform/libFiles.h"
#include "platform/libPlatform.h"
#include "program/mCommandLine.h"
#include "program/mFailureCause.h"
#include "program/mImageData.h"
#include "program/mSettings.h"
#include "program/mSolvedImage.h"
#include "program/mStarExtraction.h"
#include "program/mStopwatch.h"
#include "solver/solverPicture.h"
#include "solver/solverRequest.h"
#include "solver/solverResults.h"

namespace vestrel {

namespace {

using Clock = std::chrono::steady_clock;

/// A port that shows nothing and keeps the last message.
class QuietPort : public Port {
 public:
    void ShowMessage(const std::string& text, const std::string& /*title*/) override {
        Message = WithoutControls(text);
    }
    std::optional<std::string> AskForFile(const FileDialog& /*dialog*/) override { return {}; }
    void DisplayChanged() override {}
    void ImageChanged() override {}
    void ShowProgress(int /*percent*/) override {}
    void Yield() override {}
    void ShowBusyPointer(bool /*busy*/) override {}

    std::string Message;
};

/// The port between the program's logic and the embedding program.
class WatchPort final : public QuietPort {
 public:
    /// @param endAfter seconds; 0: never
    WatchPort(ProgramState& state, const SolverWatch& watch, double endAfter)
        : state_(state), watch_(watch) {
        constexpr double longest = 1e9;
        if (endAfter > 0 && endAfter < longest) {
            end_ = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                      std::chrono::duration<double>(endAfter));
        }
    }

    void DisplayChanged() override { Tell(); }
    void ShowProgress(int percent) override {
        percent_ = percent;
        Tell();
    }
    void Yield() override {
        if (watch_.Stop.stop_requested() || (end_ && Clock::now() >= *end_)) {
            state_.StopRequested = true;
        }
    }

 private:
    void Tell() {
        if (!watch_.Progress) return;
        const std::string& stage = state_.Display.Status.Text;
        if (stage == told_.Stage && percent_ == told_.Percent) return;
        told_ = {stage, percent_};
        watch_.Progress(told_);
    }

    ProgramState& state_;
    const SolverWatch& watch_;
    std::optional<Clock::time_point> end_;
    SolverProgress told_;
    int percent_ = 0;
};

/// Why a picture could not be read, in one line.
std::string FaultOf(const ProgramState& state, const QuietPort& port) {
    std::string cause(Trim(state.Display.Details));
    while (cause.ends_with('\n')) cause.pop_back();
    constexpr std::string_view label = "Cause";
    if (cause.starts_with(label)) cause = Trim(cause.substr(label.size()));
    if (!cause.empty()) return WithoutControls(cause);
    return port.Message.empty() ? "It cannot be read." : port.Message;
}

}  // namespace

/// The data of a Solver: the program state with one picture.
class Solver::Session {
 public:
    explicit Session(const SolverSettings& settings) : threads_(settings.Threads) {
        state_.DecodesApart = settings.DecodeApart;
        TakeSettings(settings, state_.Parameters);
        state_.Catalog.Folder = settings.CatalogFolder.empty()
                                    ? DefaultCatalogFolder()
                                    : PathFromText(settings.CatalogFolder);
    }

    PictureFacts OpenFile(const std::string& path, const SolverWatch& watch) {
        return Opened(path, [&] {
            WatchPort port(state_, watch, 0);
            if (OpenImage(state_, port, path)) return std::string();
            return FaultOf(state_, port);
        });
    }

    template <typename Make>
    PictureFacts OpenFromMemory(const std::string& name, const Make& make) {
        return Opened(name, [&] {
            state_.Image = PlateImage();
            try {
                make(state_.Image);
            } catch (const DecodeFault& fault) {
                return std::string(fault.what());
            }
            state_.ImageLoaded = true;
            return std::string();
        });
    }

    PictureFacts OpenPixels(const PixelPicture& picture, const SolverWatch& watch) {
        WatchPort port(state_, watch, 0);
        return OpenFromMemory(picture.Name, [&](PlateImage& image) {
            ImageFromPixels(picture, ShownProgress(port), image);
        });
    }

    PictureFacts OpenStars(const StarField& field) {
        PlateStarList stars = StarsOf(field);
        PictureFacts facts =
            OpenFromMemory(field.Name, [&](PlateImage& image) { ImageOfStars(field, image); });
        if (facts.Opened) stars_ = std::move(stars);
        state_.BackgroundRemoved = true;
        return facts;
    }

    SolverOutcome Solve(const SolverHints& hints, const SolverWatch& watch) {
        RequireValid(hints);
        const ThreadLimit limit(threads_);
        SolverOutcome outcome;
        outcome.Picture = facts_;
        code_ = SolveCode::NoImage;
        model_.reset();
        ForgetSolution(state_);
        if (!facts_.Opened) {
            outcome.Reason = facts_.Fault;
            return outcome;
        }
        {
            const StageTimer timer(outcome.Seconds);
            try {
                SolveOpened(hints, watch, outcome);
            } catch (...) {
                Forget();
                throw;
            }
        }
        return outcome;
    }

    const ProgramState& State() const { return state_; }
    const std::optional<ImageSkyModel>& Model() const { return model_; }
    bool FromFile() const { return !state_.Image.FileName.empty(); }
    SolveCode Code() const { return code_; }

 private:
    template <typename Read>
    PictureFacts Opened(const std::string& name, const Read& read) {
        const ThreadLimit limit(threads_);
        Forget();
        facts_.Name = name;
        {
            const StageTimer timer(facts_.Seconds);
            try {
                facts_.Fault = read();
            } catch (...) {
                Forget();
                throw;
            }
        }
        facts_.Opened = facts_.Fault.empty();
        if (facts_.Opened) DescribePicture(state_.Image, facts_);
        return facts_;
    }

    void Forget() {
        ForgetImage(state_);
        stars_.reset();
        model_.reset();
        facts_ = {};
        facts_.Fault = "No picture is open.";
        code_ = SolveCode::NoImage;
    }

    void SolveOpened(const SolverHints& hints, const SolverWatch& watch, SolverOutcome& outcome) {
        WatchPort port(state_, watch, hints.EndAfter);
        PlannedSearch request = PlanFor(KnownFrom(hints, state_.Image), state_.Image);
        request.Search.Stars = stars_;
        PlanReport plan;
        state_.Quads.Fault.clear();
        SearchRequest search = request.Search;
        const bool inquire = hints.FindCause && !stars_;
        if (inquire) search.TimeLimit -= InquirySeconds(request.Search);
        if (inquire && hints.EndAfter > 0) {
            // Else a search that takes all the time would never learn why it failed.
            constexpr double part = 0.15;
            constexpr double most = 3;
            search.TimeLimit =
                std::min(search.TimeLimit, hints.EndAfter - std::min(part * hints.EndAfter, most));
        }
        code_ = SolveByPlan(state_, port, search, plan);
        ExplainEnd(state_, code_, plan, watch.Stop.stop_requested(), outcome);
        outcome.Stars = StarsOfPicture(state_);
        if (inquire) ExplainCause(state_, port, code_, request.Search, plan, outcome);
        outcome.SolvedBy = plan.SolvedBy;
        if (code_ != SolveCode::Solved) return;
        if (plan.Start) outcome.StartedFrom = request.Sources[*plan.Start];
        model_ = KeptSkyModel(state_);
        outcome.Field = FieldOf(state_, model_);
    }

    ProgramState state_;
    int threads_;
    PictureFacts facts_;
    std::optional<PlateStarList> stars_;  ///< stars that were given instead of pixels
    std::optional<ImageSkyModel> model_;
    SolveCode code_ = SolveCode::NoImage;
};

Solver::Solver(const SolverSettings& settings) {
    RequireValid(settings);
    session_ = std::make_unique<Session>(settings);
}
Solver::~Solver() = default;
Solver::Solver(Solver&& other) noexcept = default;
Solver& Solver::operator=(Solver&& other) noexcept = default;

PictureFacts Solver::Open(const std::string& path, const SolverWatch& watch) {
    return session_->OpenFile(path, watch);
}
PictureFacts Solver::Open(const PixelPicture& picture, const SolverWatch& watch) {
    return session_->OpenPixels(picture, watch);
}
PictureFacts Solver::Open(const StarField& stars, const SolverWatch& /*watch*/) {
    return session_->OpenStars(stars);
}
SolverOutcome Solver::Solve(const SolverHints& hints, const SolverWatch& watch) {
    return session_->Solve(hints, watch);
}

namespace {

RowOrder RowsOf(const CardOptions& options) {
    return options.RowsAsStored ? RowOrder::AsStored : RowOrder::BottomUp;
}

}  // namespace

std::vector<std::string> Solver::CoordinateCards(const CardOptions& options) const {
    const ProgramState& state = session_->State();
    if (!state.Solution) return {};
    if (const auto& model = session_->Model()) {
        return WorldCoordinateCards(state.Image, WithSipOrder(model->Model, options.MostSipOrder),
                                    RowsOf(options));
    }
    if (IsTooWide(state)) return {};
    const auto plate = WorldCoordinatesOf(state.Image, RowsOf(options));
    return plate ? WorldCoordinateCards(*plate, RowsOf(options)) : std::vector<std::string>();
}

std::optional<SolverCoordinates> Solver::Coordinates(const CardOptions& options) const {
    const auto& model = session_->Model();
    if (!session_->State().Solution || !model) return std::nullopt;
    return CoordinatesOf(WithSipOrder(model->Model, options.MostSipOrder), session_->State().Image,
                         RowsOf(options));
}

std::vector<std::string> Solver::PictureCards() const {
    const PlateImage& image = session_->State().Image;
    std::vector<std::string> cards;
    if (!session_->State().ImageLoaded) return cards;
    for (int i = 1; i <= image.Header.CardCount; ++i) {
        const std::string& card = image.Header.Cards[static_cast<std::size_t>(i)];
        if (!card.starts_with("END     ")) cards.push_back(card);
    }
    return cards;
}

bool Solver::WriteCoordinates(const std::string& path, std::string& fault) const {
    QuietPort port;
    if (WriteWorldCoordinates(session_->State(), port, path)) return true;
    fault = port.Message;
    return false;
}

bool Solver::Export(const std::string& path, std::string& fault) const {
    if (session_->State().ImageLoaded && !session_->FromFile()) {
        fault = "The picture came from memory: there is no file to copy.";
        return false;
    }
    QuietPort port;
    if (ExportImage(session_->State(), port, path)) return true;
    fault = port.Message;
    return false;
}

bool Solver::WriteResult(const std::string& path, std::string& fault) const {
    if (session_->Code() == SolveCode::NoImage) {
        fault = "No picture was solved.";
        return false;
    }
    if (ReplaceFile(PathFromText(path), ResultFileText(session_->State(), session_->Code()))) {
        return true;
    }
    fault = "The file " + path + " cannot be written.";
    return false;
}

SolverSettings SettingsOfUser() {
    SolveParameters parameters;
    std::vector<unsigned char> bytes;
    constexpr std::size_t longest = 1 << 16;
    if (ReadWholeFile(SettingsFilePath(), longest, bytes)) (void)DecodeSettings(bytes, parameters);
    return SettingsOf(parameters);
}

const char* NameOf(SolverEnd end) {
    switch (end) {
        case SolverEnd::Solved:
            return "solved";
        case SolverEnd::NoPicture:
            return "no picture";
        case SolverEnd::TooFewStars:
            return "too few stars";
        case SolverEnd::NoMatch:
            return "no match";
        case SolverEnd::NotSure:
            return "not sure";
        case SolverEnd::NoCatalog:
            return "no catalog";
        case SolverEnd::DamagedCatalog:
            return "damaged catalog";
        case SolverEnd::TimeLimit:
            return "time limit";
        case SolverEnd::Stopped:
            return "stopped";
        case SolverEnd::OutOfMemory:
            return "out of memory";
    }
    return "";
}

double SolverCoordinates::Scale() const {
    constexpr double arcseconds = 3600;
    return std::sqrt(std::fabs(Cd[0][0] * Cd[1][1] - Cd[0][1] * Cd[1][0])) * arcseconds;
}

double SolverCoordinates::Rotation() const {
    const double angle = std::atan2(Cd[0][1], Cd[1][1]) * 180 / Pi;
    return angle < 0 ? angle + 360 : angle;
}

}  // namespace vestrel
