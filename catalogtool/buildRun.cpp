#include "catalogtool/buildRun.h"

#include <algorithm>
#include <cstdio>
#include <system_error>
#include <utility>

#include "astro/libParallel.h"
#include "astro/libStrings.h"
#include "catalogtool/commands.h"
#include "catalogtool/libAstap.h"
#include "catalogtool/libBrightStars.h"
#include "catalogtool/libCatalogBuilder.h"
#include "catalogtool/libCatalogFolder.h"
#include "catalogtool/libFastStars.h"
#include "catalogtool/libFitsTable.h"
#include "catalogtool/libIndexFile.h"
#include "catalogtool/libKStars.h"
#include "catalogtool/libStarTable.h"
#include "platform/libConsole.h"
#include "platform/libFiles.h"
#include "platform/libPlatform.h"

namespace vestrel {
namespace fs = std::filesystem;

namespace {

/// A source while its stars are read.
struct OpenSource {
    OpenSource(const char* kind, const std::string& file) {
        Record.Kind = kind;
        Record.File = file == "-" ? "standard input" : TextFromPath(PathFromText(file).filename());
        std::error_code error;
        const auto time = fs::last_write_time(PathFromText(file), error);
        if (!error) Record.Modified = TimeText(time);
    }

    void LeaveOut(const char* reason, std::uint64_t rows) {
        if (rows > 0) Record.LeftOut.emplace_back(reason, rows);
    }

    CatalogSource Record;
    std::size_t Unusable = 0;  // mostly stars without a magnitude
    std::uint64_t Filtered = 0;
};

/// One run of `build`, from the sources to the finished folder.
class Build {
 public:
    explicit Build(const BuildOptions& buildOptions)
        : options_(buildOptions),
          folder_(ChosenCatalog(buildOptions.Catalog)),
          builder_(folder_.Path()),
          progress_(stderr, buildOptions.Progress) {}

    void Run() {
        // KStars comes before the list of bright stars, as it has proper motions.
        for (const std::string& folder : options_.KStars) ReadBrightKStars(folder);
        if (!options_.Bright.empty()) ReadBrightList();

        // Sources that measure bright stars well come first: when several have a star, that of the
        // first is kept.
        if (!options_.Tycho2.empty()) ReadIndex("tycho2", options_.Tycho2, "MAG_VT");
        for (const std::string& table : options_.Tables) ReadTable(table);
        for (const std::string& index : options_.Indexes) {
            ReadIndex("index", index, options_.Table.MagColumn);
        }
        for (const fs::path& file : deepKStars_) ReadDeepKStars(file);
        for (const std::string& database : options_.Astap) ReadAstap(database);

        if (bright_.empty()) {
            Note(
                "the survey's brightest stars are lacking; build with --kstars FOLDER or --bright "
                "FILE to add them");
        }
        for (std::size_t list = 0; list < bright_.size(); ++list) AddMissing(list);
        if (options_.MagMin) Filter("magnitude at least " + NumberText(*options_.MagMin));
        if (options_.MagMax) Filter("magnitude at most " + NumberText(*options_.MagMax));
        for (const std::string& where : options_.Where) Filter(where);
        Finish();
    }

 private:
    void Note(const std::string& text) {
        progress_.Clear();
        std::fprintf(stderr, "vestrel-catalog: %s\n", WithoutControls(text).c_str());
    }

    /// Reports something now, and records it for later users of the catalog.
    void Remark(const std::string& text) {
        Note(text);
        manifest_.Remarks.push_back(text);
    }

    void Filter(const std::string& text) { manifest_.Filters.push_back(text); }

    /// What some stars of a source give.
    struct PlacedStars {
        std::vector<PlacedStar> Stars;
        std::vector<SkyStar> NearBright;  ///< that may be stars of the bright lists
        std::size_t Unusable = 0;
        std::uint64_t Filtered = 0;
    };

    /// Finds the place of a star, unless it is not wanted.
    void Place(const SkyStar& star, PlacedStars& placed) const {
        const std::optional<CatalogStar> stored = StoredStar(star);
        if (!stored) {
            ++placed.Unusable;
        } else if ((options_.MagMin && star.Mag < *options_.MagMin) ||
                   (options_.MagMax && star.Mag > *options_.MagMax)) {
            ++placed.Filtered;
        } else {
            placed.Stars.push_back(PlaceOf(*stored, number_));
        }
    }

    void Add(const PlacedStars& placed, OpenSource& source) {
        source.Unusable += placed.Unusable;
        source.Filtered += placed.Filtered;
        source.Record.Used += placed.Stars.size();
        for (const PlacedStar& star : placed.Stars) builder_.Add(star);
    }

    /// Adds the stars that wait, in their order; the processors share the search for their places.
    void AddWaiting(OpenSource& source) {
        constexpr std::size_t pieceStars = 8192;
        std::vector<PlacedStars> pieces((waiting_.size() + pieceStars - 1) / pieceStars);
        ParallelFor(static_cast<int>(pieces.size()), [&](int number) {
            const auto piece = static_cast<std::size_t>(number);
            const std::size_t end = std::min((piece + 1) * pieceStars, waiting_.size());
            pieces[piece].Stars.reserve(pieceStars);
            for (std::size_t i = piece * pieceStars; i < end; ++i) {
                const SkyStar& star = waiting_[i];
                if (std::any_of(bright_.begin(), bright_.end(),
                                [&star](const auto& list) { return list.Finder.IsNear(star); })) {
                    pieces[piece].NearBright.push_back(star);
                }
                Place(star, pieces[piece]);
            }
        });
        for (const PlacedStars& piece : pieces) {
            for (BrightList& list : bright_) {
                for (const SkyStar& star : piece.NearBright) list.Finder.Visit(star);
            }
            Add(piece, source);
        }
        waiting_.clear();
    }

    void Close(OpenSource& source) {
        AddWaiting(source);
        source.LeaveOut("no usable position or magnitude", source.Unusable);
        source.LeaveOut("left out by magnitude", source.Filtered);
        manifest_.Sources.push_back(source.Record);
        // Sources beyond the 255th share its rank.
        if (number_ < 255) ++number_;
    }

    /// Moves a star to the epoch when it is one of the fastest stars, for sources without proper
    /// motions.
    void MoveIfFast(SkyStar& star, OpenSource& source) {
        const std::optional<SkyStar> moved = FastStarAt(star, options_.Table.Epoch);
        if (!moved) return;
        star = *moved;
        ++source.Record.Moved;
    }

    /// Adds the stars that no earlier source has.
    struct BrightList {
        OpenSource Source;
        std::size_t Count = 0;
        BrightStarFinder Finder;
    };

    void ReadBrightList() {
        OpenSource source("bright", options_.Bright);
        std::vector<SkyStar> stars =
            ReadBrightStars(PathFromText(options_.Bright), source.Unusable);
        for (SkyStar& star : stars) MoveIfFast(star, source);
        source.Record.Rows = stars.size() + source.Unusable;
        bright_.push_back({source, stars.size(), BrightStarFinder(stars)});
    }

    /// The files of bright stars in a folder; the deep ones are read later, in their order.
    void ReadBrightKStars(const std::string& folder) {
        const std::vector<fs::path> files = KStarsFilesIn(PathFromText(folder));
        if (files.empty()) {
            throw ToolFailure(ToolExit::BadInput, folder + ": holds no star file of KStars");
        }
        for (const fs::path& file : files) {
            if (!HasBrightStarsOnly(file)) {
                deepKStars_.push_back(file);
                continue;
            }
            OpenSource source("kstars", TextFromPath(file));
            std::vector<SkyStar> stars;
            const StarSink sink = [&stars](const SkyStar& star) { stars.push_back(star); };
            TakeCounts(ReadKStarsFile(file, options_.Table.Epoch, sink, progress_), source);
            bright_.push_back({source, stars.size(), BrightStarFinder(stars)});
        }
    }

    void ReadDeepKStars(const fs::path& file) {
        OpenSource source("kstars", TextFromPath(file));
        TakeCounts(ReadKStarsFile(file, options_.Table.Epoch, Into(source), progress_), source);
        Close(source);
    }

    static void TakeCounts(const KStarsStars& stars, OpenSource& source) {
        source.Record.Rows = stars.Rows;
        source.Record.Moved = stars.Moved;
    }

    void AddMissing(std::size_t number) {
        BrightList& list = bright_[number];
        const std::vector<SkyStar> missing = list.Finder.Missing();
        list.Source.LeaveOut("in the survey already", list.Count - missing.size());
        PlacedStars placed;
        for (const SkyStar& star : missing) {
            for (std::size_t i = number + 1; i < bright_.size(); ++i) bright_[i].Finder.Visit(star);
            Place(star, placed);
        }
        Add(placed, list.Source);
        Close(list.Source);
        manifest_.BrightGapFilled = true;
    }

    /// A sink that adds the stars of a source.
    StarSink Into(OpenSource& source) {
        return [this, &source](const SkyStar& star) {
            constexpr std::size_t mostWaiting = 1 << 17;
            waiting_.push_back(star);
            if (waiting_.size() >= mostWaiting) AddWaiting(source);
        };
    }

    void ReadIndex(const char* kind, const std::string& file, const std::string& magColumn) {
        OpenSource source(kind, file);
        const IndexStars stars = ReadIndexFile(
            PathFromText(file), {magColumn, options_.Table.Epoch, options_.Table.TableEpoch},
            Into(source), progress_);
        source.Record.Rows = stars.Count;
        source.Record.Moved = stars.Moved;
        if (!stars.Motions.empty()) Remark(source.Record.File + ": " + stars.Motions);
        if (stars.MagColumn.empty()) {
            Remark(source.Record.File +
                   ": has no magnitudes; those given to its stars go by their rank");
        } else if (stars.MagColumn != "MAG_VT") {
            Remark(source.Record.File + ": magnitudes " + stars.MagColumn);
        }
        Close(source);
    }

    void ReadAstap(const std::string& folder) {
        const AstapDatabase database = ChosenAstapDatabase(PathFromText(folder));
        OpenSource source("astap", TextFromPath(database.Files.front()));
        source.Record.File = database.Name + " (" + GroupedText(database.Files.size()) + " files)";
        const StarSink sink = Into(source);
        for (std::size_t i = 0; i < database.Files.size(); ++i) {
            progress_.Show("Reading " + database.Name, i, database.Files.size(),
                           source.Record.Rows);
            source.Record.Rows += ReadAstapFile(database.Files[i], sink);
        }
        if (source.Record.Rows == 0) {
            throw ToolFailure(ToolExit::BadInput, folder + ": holds not one star");
        }
        Remark(source.Record.File + ": positions of 2025, magnitudes in tenths");
        Close(source);
    }

    void ReadTable(const std::string& file) {
        OpenSource source("csv", file);
        const bool standardInput = file == "-";
        const FileHandle opened = standardInput ? nullptr : OpenInput(PathFromText(file));
        if (!standardInput && !opened) {
            std::error_code ignored;
            const bool folder = fs::is_directory(PathFromText(file), ignored);
            throw ToolFailure(
                ToolExit::BadInput,
                file + (folder ? ": is a folder" : ": cannot be opened: " + SystemErrorText()));
        }
        std::FILE* stream = standardInput ? stdin : opened.get();
        const std::int64_t length = standardInput ? -1 : FileLength(stream);
        UnpackedInput input(stream);
        StarTableResult result;
        if (input.StartsWith("SIMPLE  =")) {
            const bool asItLies = !standardInput && !input.IsPacked();
            const fs::path fits =
                asItLies ? PathFromText(file) : Unpacked(input, source.Record.File);
            result = ReadFitsStarTable(fits, source.Record.File, options_.Table, Into(source),
                                       progress_);
            std::error_code ignored;
            if (!asItLies) fs::remove(fits, ignored);
            source.Record.Kind = "fits";
        } else {
            result = ReadStarTable(input, source.Record.File, length > 0 ? length : 0,
                                   options_.Table, Into(source), progress_);
        }
        source.Record.Rows = result.Rows;
        for (std::size_t i = 0; i < result.Faults.size(); ++i) {
            source.LeaveOut(RowFaultText(static_cast<RowFault>(i)), result.Faults[i]);
        }
        Remark(source.Record.File + ": columns " + result.Columns + "; " + result.Motions);
        source.Record.Moved = result.Moved;
        if (result.LooksLikeHours) {
            Remark(source.Record.File +
                   ": its right ascensions, read as degrees, end at 24; if "
                   "they are hours, build again with --ra-unit hours");
        }
        Close(source);
    }

    /// Writes a FITS table that is compressed or comes through a pipe to a file in the building
    /// folder.
    fs::path Unpacked(UnpackedInput& input, const std::string& name) {
        fs::path path = folder_.Path() / (std::string(ManifestName) + ".unpacked.tmp");
        const FileHandle file = OpenFile(path, "wb");
        std::vector<char> bytes(std::size_t{1} << 20);
        bool good = file != nullptr;
        for (std::size_t count = 0; good && (count = input.Read(bytes.data(), bytes.size())) > 0;) {
            progress_.Show("Unpacking " + name, 0, 0, 0);
            good = std::fwrite(bytes.data(), 1, count, file.get()) == count;
        }
        if (!good || std::fflush(file.get()) != 0) {
            throw ToolFailure(ToolExit::CannotWrite, TextFromPath(path) + ": " + SystemErrorText());
        }
        if (!input.Fault().empty())
            throw ToolFailure(ToolExit::BadInput, name + ": " + input.Fault());
        return path;
    }

    void Finish() {
        builder_.Finish(progress_);
        manifest_.Tool = "vestrel-catalog " VESTREL_VERSION;
        manifest_.Created = CurrentTimeText();
        manifest_.Epoch = options_.Table.Epoch;
        manifest_.Cells = builder_.Cells();
        manifest_.Magnitudes = builder_.Magnitudes().Steps();
        manifest_.Duplicates = builder_.Duplicates();
        if (builder_.Merged() > 0) {
            manifest_.Remarks.push_back(GroupedText(builder_.Merged()) +
                                        " stars that several sources have were taken once");
        }
        const std::uint64_t stars = manifest_.StarCount();
        if (stars == 0) throw ToolFailure(ToolExit::BadInput, "no star passes the filters");
        if (!WriteManifest(folder_.Path(), manifest_)) {
            throw ToolFailure(ToolExit::CannotWrite, TextFromPath(folder_.Path() / ManifestName) +
                                                         ": " + SystemErrorText());
        }
        ThrowIfStopped();
        folder_.Publish();
        progress_.Clear();
        for (const CatalogSource& source : manifest_.Sources) {
            std::printf("%s: %s of %s rows used\n", WithoutControls(source.File).c_str(),
                        GroupedText(source.Used).c_str(), GroupedText(source.Rows).c_str());
            if (source.Moved > 0) {
                std::printf("    moved to the epoch %s: %s\n",
                            NumberText(manifest_.Epoch.value_or(0)).c_str(),
                            GroupedText(source.Moved).c_str());
            }
            for (const auto& [reason, rows] : source.LeftOut) {
                std::printf("    %s: %s\n", WithoutControls(reason).c_str(),
                            GroupedText(rows).c_str());
            }
        }
        if (manifest_.Duplicates > 0) {
            std::printf("exact duplicates dropped: %s\n",
                        GroupedText(manifest_.Duplicates).c_str());
        }
        if (builder_.Merged() > 0) {
            std::printf("stars of several sources, taken once: %s\n",
                        GroupedText(builder_.Merged()).c_str());
        }
        std::printf("%s stars in %s\n", GroupedText(stars).c_str(),
                    TextFromPath(ChosenCatalog(options_.Catalog)).c_str());
    }

    const BuildOptions& options_;
    BuildingFolder folder_;
    CatalogBuilder builder_;
    ProgressLine progress_;
    CatalogManifest manifest_;
    std::vector<BrightList> bright_;
    std::vector<SkyStar> waiting_;  ///< stars of the source that is being read
    std::vector<fs::path> deepKStars_;
    unsigned char number_ = 0;  ///< rank of the source that is being read
};

}  // namespace

void RunBuild(const BuildOptions& options) {
    Build(options).Run();
}

}  // namespace vestrel
