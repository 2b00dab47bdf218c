// What is said of an outcome: trust, cautions, advice, tables; and what windows tell other
// programs.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <set>

#include "astro/libMath.h"
#include "astro/libStrings.h"
#include "program/mCatalogBuild.h"
#include "program/mPreferences.h"
#include "program/mSolutionTable.h"
#include "program/mSolveReport.h"
#include "program/mTrust.h"
#include "tests/testSupport.h"

namespace vestrel {
namespace {

using Texts = std::vector<std::string>;

PlateSolution SomeSolution() {
    PlateSolution solution;
    solution.CentreRA = 1.5;
    solution.CentreDec = -0.25;
    solution.Scale = 0.5;
    solution.Stretch = 1;
    solution.Rms = 0.4;
    solution.MatchedCount = 20;
    solution.WidthArcmin = 40;
    solution.HeightArcmin = 30;
    solution.Transform = {0.5, 0, 100, 0, 0.5, 100};
    solution.Confidence = {20, 24, 0.5, -9};
    return solution;
}

/// A state whose search radius is that of `SomeSolution`.
void Solve(ProgramState& state) {
    state.Image.Width = state.Image.Height = 200;
    state.Solution = SomeSolution();
    state.Report.SearchRadius = 25.0 / 60 * Pi / 180;
}

TEST(Cautions, BeginWhereThePoorTheSmallAndTheUnsureBegin) {
    ProgramState state;
    EXPECT_TRUE(Cautions(state).empty()) << "no solution, no doubt";
    Solve(state);
    EXPECT_TRUE(Cautions(state).empty());
    struct Case {
        double Rms;
        double Size;  // times that of the solution
        double FalseAlarm;
        std::size_t Count;
        const char* Part;
    };
    for (const auto& [rms, size, falseAlarm, count, part] :
         std::vector<Case>{{2, 1, -9, 0, ""},
                           {2.01, 1, -9, 1, "the fit is poor: RMS 2.0 px from 20 stars"},
                           {0.4, 1.24, -9, 0, ""},
                           {0.4, 1.26, -9, 1, "the field is 1.26 times the size given"},
                           {0.4, 0.81, -9, 0, ""},
                           {0.4, 0.79, -9, 1, "the field is 0.79 times the size given"},
                           {0.4, 1, -6, 0, ""},
                           {0.4, 1, -5.99, 1, "so few stars can match by chance"},
                           {3, 2, 0, 3, "the field is 2.00 times the size given"}}) {
        Solve(state);
        state.Solution->Rms = rms;
        state.Solution->WidthArcmin *= size;
        state.Solution->HeightArcmin *= size;
        state.Solution->Confidence.Log10FalseAlarm = falseAlarm;
        const Texts cautions = Cautions(state);
        ASSERT_EQ(cautions.size(), count) << size << " " << rms << " " << falseAlarm;
        if (count > 0) {
            EXPECT_EQ(std::count(cautions.begin(), cautions.end(), part), 1) << part;
        }
    }
    Solve(state);
    state.Report.SearchRadius = 0;
    EXPECT_TRUE(Cautions(state).empty()) << "no size was given";
    state.Solution->Confidence = {};
    EXPECT_TRUE(Cautions(state).empty()) << "its certainty was not judged";
}

class AskedPort final : public RecordingPort {
 public:
    using RecordingPort::RecordingPort;
    bool Confirm(const std::string& question, const std::string& /*title*/) override {
        Questions.push_back(question);
        return Agrees;
    }
    Texts Questions;
    bool Agrees = false;
};

TEST(Trust, AMountIsSyncedUnaskedOnlyToWhatIsSure) {
    ProgramState state;
    AskedPort port(state);
    EXPECT_EQ(TrustOf(state).Level, TrustLevel::None);
    EXPECT_TRUE(MaySync(state, port));

    Solve(state);
    EXPECT_EQ(TrustOf(state).Level, TrustLevel::Sure);
    EXPECT_TRUE(TrustOf(state).Settle.empty());
    EXPECT_TRUE(MaySync(state, port));
    EXPECT_TRUE(port.Questions.empty());

    state.Solution->Rms = 5;
    EXPECT_EQ(TrustOf(state).Level, TrustLevel::Check);
    EXPECT_NE(SolutionText(state).find("\n  Check             the fit is poor"), std::string::npos)
        << SolutionText(state);
    EXPECT_FALSE(MaySync(state, port));
    state.Solution->Confidence.Log10FalseAlarm = -3;
    EXPECT_EQ(TrustOf(state).Level, TrustLevel::Doubtful) << "doubt outweighs a caution";
    EXPECT_FALSE(MaySync(state, port));
    port.Agrees = true;
    EXPECT_TRUE(MaySync(state, port));
    ASSERT_EQ(port.Questions.size(), 3U);
    EXPECT_NE(port.Questions[0].find("(Check): the fit is poor"), std::string::npos);
    EXPECT_NE(port.Questions[1].find("(Doubtful): 20 of 24"), std::string::npos);

    // A match of quads without a solution is never more than a place to check.
    state.Solution.reset();
    state.QuadMatch.Code = SolveCode::Solved;
    EXPECT_EQ(TrustOf(state).Level, TrustLevel::None) << "without pairs there is no match";
    state.QuadMatch.Pairs.Add({1, 1, 0, true});
    state.QuadMatch.Confidence = {9, 9, 0.1, -8};
    EXPECT_EQ(TrustOf(state).Level, TrustLevel::Check);
    state.QuadMatch.Confidence.Log10FalseAlarm = -2;
    EXPECT_EQ(TrustOf(state).Level, TrustLevel::Doubtful);
    state.QuadMatch.Code = SolveCode::NoMatch;
    EXPECT_EQ(TrustOf(state).Level, TrustLevel::None);
}

Texts WordsOf(const InputWords& words) {
    return {words.Threshold, words.MinStarSize, words.CatalogFolder,    words.FieldSize,
            words.Ra,        words.Regions,     words.SearchFromCentre, words.SearchWholeSky};
}

/// Calls `visit` with every kind of failure.
template <typename Visit>
void ForEachFailure(ProgramState& state, const Visit& visit) {
    for (const SolveCode code : {SolveCode::TooFewStars, SolveCode::NoMatch, SolveCode::Stopped}) {
        for (const CatalogPresence presence :
             {CatalogPresence::Present, CatalogPresence::FolderMissing, CatalogPresence::NoCells,
              CatalogPresence::NothingHere}) {
            for (int bits = 0; bits < 16; ++bits) {
                state.Report.CatalogAtStart = presence;
                state.Report.Blind = (bits & 1) != 0;
                state.Report.RegionsTried = (bits & 2) != 0 ? 9 : 0;
                state.Report.CatalogStarsAtStart = (bits & 4) != 0 ? 500 : 3;
                state.Quads.Fault = (bits & 8) != 0 ? "there are no quad tables" : "";
                visit(code);
            }
        }
    }
}

TEST(FailureTexts, EveryFailureHasAdviceInTheWordsOfItsProgram) {
    ProgramState state;
    state.Catalog.Folder = "/catalog";
    int lines = 0;
    ForEachFailure(state, [&](SolveCode code) {
        for (const bool console : {true, false}) {
            const InputWords& words = console ? ConsoleWords : WindowWords;
            const Texts advice = Advice(state, code, words);
            EXPECT_EQ(advice.empty(), code == SolveCode::Stopped);
            EXPECT_EQ(std::set<std::string>(advice.begin(), advice.end()).size(), advice.size());
            const std::string text = FailureText(state, code, words);
            EXPECT_TRUE(text.ends_with('\n'));
            for (std::size_t at = 0; at < text.size(); at = text.find('\n', at) + 1) {
                EXPECT_EQ(text.substr(at, 2), "  ") << text;
                ++lines;
            }
            for (const std::string& one : advice) {
                EXPECT_NE(text.find("  Try: " + one + "\n"), std::string::npos) << text;
            }
            const Texts mine = WordsOf(words);
            for (const std::string& foreign : WordsOf(console ? WindowWords : ConsoleWords)) {
                const bool shared = std::any_of(mine.begin(), mine.end(), [&](const auto& word) {
                    return word.find(foreign) != std::string::npos;
                });
                if (!shared && foreign.size() > 2) {
                    EXPECT_EQ(text.find(foreign), std::string::npos);
                }
            }
            // A known cause takes the place of everything else that might help.
            const std::string known = FailureText(state, code, words, {"it trails", "guide"});
            EXPECT_NE(known.find("it trails\n  Try: guide\n"), std::string::npos);
            EXPECT_EQ(known.find("Try:"), known.rfind("Try:"));
        }
        // A search that had stars or tables to search with lacked nothing.
        if (state.Report.CatalogAtStart == CatalogPresence::Present) {
            const bool nothingElse = state.Report.Blind && state.Report.RegionsTried == 0;
            EXPECT_EQ(LackOfCatalog(state), nothingElse ? state.Quads.Fault : "");
        } else {
            EXPECT_NE(LackOfCatalog(state).find(TextFromPath(state.Catalog.Folder)),
                      std::string::npos);
        }
    });
    EXPECT_GT(lines, 300);
}

TEST(FailureTexts, FractionsThatBecameWholeCountsAreRecognised) {
    ProgramState state;
    state.Image = EmptyImage(20, 10, 0);
    state.Image.Header.BitPix = -32;
    EXPECT_TRUE(HasNextToNoCounts(state.Image));
    state.Image.Pixels.Wide()(19, 9) = 1;
    EXPECT_TRUE(HasNextToNoCounts(state.Image));
    EXPECT_NE(Advice(state, SolveCode::TooFewStars).at(0).find("65535"), std::string::npos);
    state.Image.Pixels.Wide()(0, 0) = -1;
    EXPECT_FALSE(HasNextToNoCounts(state.Image));
    state.Image.Pixels.Wide()(0, 0) = 0;
    state.Image.Header.BitPix = 16;
    EXPECT_FALSE(HasNextToNoCounts(state.Image));
}

/// Splits comma-separated values as RFC 4180 says.
std::vector<Texts> CsvRows(const std::string& text) {
    std::vector<Texts> rows = {{""}};
    bool quoted = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        std::string& field = rows.back().back();
        if (quoted && text[i] == '"' && i + 1 < text.size() && text[i + 1] == '"') {
            field += text[++i];
        } else if (text[i] == '"') {
            quoted = !quoted;
        } else if (!quoted && text[i] == ',') {
            rows.back().emplace_back();
        } else if (!quoted && (text[i] == '\n' || text[i] == '\r')) {
            rows.emplace_back(1);
        } else {
            field += text[i];
        }
    }
    EXPECT_EQ(rows.back(), Texts{""}) << "the last line is ended";
    rows.pop_back();
    return rows;
}

TEST(SolutionTable, EveryNameComesBackFromTheCsvAndNoneIsAFormula) {
    const Texts names = {"/a/m 1.fit", "/a/m,1.fit",   "/a/\"m\" 1.fit", "=1+2.fit",
                         "-m.fit",     "@m.fit",       "+m.fit",         "/a/new\nline.fit",
                         "\tm.fit",    "/a/cr\rm.fit", "\r=1.fit",       ""};
    std::vector<SolvedPicture> pictures;
    for (const std::string& name : names) {
        SolvedPicture picture;
        picture.Path = name;
        if (pictures.size() % 2 == 0) {
            picture.Solution = SomeSolution();
            picture.Verdict = {TrustLevel::Check, "poor, and \"odd\"", "look"};
            picture.UpPositionAngle = 12.34567;
            picture.Mirrored = true;
        } else {
            picture.Failure = "No Match Found, \"sorry\"";
        }
        pictures.push_back(picture);
    }
    const auto rows = CsvRows(SolutionsCsv(pictures));
    ASSERT_EQ(rows.size(), names.size() + 1);
    for (std::size_t i = 0; i < names.size(); ++i) {
        const Texts& row = rows[i + 1];
        ASSERT_EQ(row.size(), rows[0].size()) << names[i];
        const bool formula = names[i].find_first_of("=+-@\t\r") == 0;
        EXPECT_EQ(row[0], (formula ? "'" : "") + names[i]);
        if (pictures[i].Solution) {
            EXPECT_NEAR(*ParseNumber(row[1]), 1.5 * 180 / Pi, 1e-6);
            EXPECT_NEAR(*ParseNumber(row[2]), -0.25 * 180 / Pi, 1e-6);
            EXPECT_EQ(row[3], "2.00000");
            EXPECT_EQ(row[4], "12.346");
            EXPECT_EQ(row[5], "yes");
            EXPECT_EQ(row[6], "20");
            EXPECT_EQ(row[7], "0.800");  // arcseconds
            EXPECT_EQ(row[8], "Check");
            EXPECT_EQ(row[9], "poor, and \"odd\"");
        } else {
            EXPECT_EQ(row[9], "No Match Found, \"sorry\"");
        }
    }
    const auto cells = SolutionCells(pictures[0]);
    EXPECT_EQ(cells[0], "m 1.fit");
    EXPECT_EQ(cells[3], "2.000\"/px");
    EXPECT_EQ(cells[5], "Check");
    EXPECT_EQ(SolutionCells(pictures[1])[5], "No solution");
}

TEST(SolutionTable, PicturesOfAFolderAreItsReadableFilesByName) {
    const TemporaryFolder folder;
    const std::string fits = FitsHeader(FitsCards(8, 1, 1)) + std::string(2880, '\0');
    for (const char* name : {"b.fit", "a.FITS", "C.jpg", "letters.txt", "c.sbig", "no ending",
                             "b-annotated.png", "C-solved.fits", "d-solved.fits"}) {
        WriteFile(folder / name, name[0] == 'n' ? "text" : fits);
    }
    std::filesystem::create_directory(folder / "a folder.fit");
    Texts names;
    for (const std::string& path : PicturesIn(TextFromPath(folder.Path))) {
        names.push_back(path.substr(path.find_last_of("/\\") + 1));
    }
    std::erase(names, "letters.txt");  // a FITS file by its first bytes, where these are asked
    // Of what ends like a suggested name, only what was made of another one here is left out.
    EXPECT_EQ(names, (Texts{"C.jpg", "a.FITS", "b.fit", "c.sbig", "d-solved.fits"}));
    EXPECT_TRUE(PicturesIn(TextFromPath(folder / "nowhere")).empty());
}

TEST(CatalogRuns, ATickIsOneCommandLineAndNonsenseNone) {
    CatalogWish wish;
    wish.Folder = "/cat";
    wish.Sources = {{"d50", {"--astap", "/opt/d50"}},
                    {"index", {"--index", "/i/1.fits", "/i/2.fits"}},
                    {"more", {"--index", "/i/2.fits", "/i/3.fits"}},
                    SourceOfTable("/t,1.csv"),
                    {"nothing", {}}};
    wish.FaintestMagnitude = " 16.5 ";
    const CatalogRuns runs = RunsFor(wish);
    ASSERT_EQ(runs.Runs.size(), 2U) << runs.Fault;
    EXPECT_EQ(runs.Runs[0],
              (Texts{"build", "--progress-json", "--catalog", "/cat", "--astap", "/opt/d50",
                     "--index", "/i/1.fits", "--index", "/i/2.fits", "--index", "/i/3.fits",
                     "--csv", "/t,1.csv", "--mag-max", "16.5"}));
    EXPECT_EQ(runs.Runs[1], (Texts{"quads", "--progress-json", "--catalog", "/cat", "--from",
                                   "0.90", "--to", "30.00"}));
    for (const char* magnitude : {"x", "-1", "1e3", "1.2.3", ".", "123456", "16,5", "--out=/etc"}) {
        wish.FaintestMagnitude = magnitude;
        EXPECT_TRUE(RunsFor(wish).Runs.empty()) << magnitude;
        EXPECT_FALSE(RunsFor(wish).Fault.empty()) << magnitude;
    }
    wish.FaintestMagnitude.clear();
    wish.LargestField = wish.SmallestField;
    EXPECT_TRUE(RunsFor(wish).Runs.empty()) << "an empty range of fields";
    wish.Tables = false;
    EXPECT_EQ(RunsFor(wish).Runs.size(), 1U);
    wish.Sources.clear();
    EXPECT_FALSE(RunsFor(wish).Fault.empty());
    wish = {};
    EXPECT_FALSE(RunsFor(wish).Fault.empty()) << "no folder";
}

TEST(CatalogRuns, ProgressIsReadAndMessagesAreNot) {
    const auto whole = ReadProgress(R"({"task": "Reading d50", "percent": 250, "count": 1871011})");
    ASSERT_TRUE(whole);
    EXPECT_EQ(whole->Task, "Reading d50");
    EXPECT_EQ(whole->Percent, 100);
    EXPECT_EQ(whole->Count, "1,871,011");
    const auto bare = ReadProgress(R"({"task": "a\u001b[2J", "percent": "x", "count": -1})");
    ASSERT_TRUE(bare);
    EXPECT_EQ(bare->Task, "a?[2J");
    EXPECT_FALSE(bare->Percent);
    EXPECT_EQ(bare->Count, "");
    EXPECT_EQ(ReadProgress(R"({"task": "", "percent": -3, "count": 999})")->Percent, 0);
    EXPECT_EQ(ReadProgress(R"({"task": "", "count": 1000})")->Count, "1,000");
    for (const char* message :
         {"", "Cannot write", "{", "{}", R"({"task": 1})", R"(["task"])", R"( {"task": "a"})"}) {
        EXPECT_FALSE(ReadProgress(message)) << message;
    }
    const std::string good =
        R"({"sources": [{"text": "d50", "buildOptions": ["--astap", "/d50"]}]})";
    ASSERT_EQ(ReadSources(good)->size(), 1U);
    EXPECT_EQ(ReadSources(good)->at(0).BuildOptions, (Texts{"--astap", "/d50"}));
    for (std::uint32_t seed = 0; seed < 500; ++seed) {
        (void)ReadSources(Damaged(good, seed));
        (void)ReadProgress(Damaged(R"({"task": "Reading", "percent": 3, "count": 7})", seed));
    }
    EXPECT_FALSE(ReadSources(R"({"sources": [{"text": "d50", "buildOptions": [1]}]})"));
    EXPECT_FALSE(ReadSources(R"({"sources": [{"text": "d50"}]})"));
    EXPECT_TRUE(ReadSources(R"({"sources": []})")->empty());
    EXPECT_FALSE(ReadSources("[]"));

    // Only a run that was not the last can have replaced the catalog.
    EXPECT_EQ(EndOfRunsText(0, false, true), "Done");
    EXPECT_EQ(EndOfRunsText(0, true, false), "Stopped. The catalog is as it was before");
    EXPECT_EQ(EndOfRunsText(4, false, true),
              "Failed: it cannot be written. The catalog is new, without tables");
}

TEST(Preferences, AreFewLinesWhateverTheFileHolds) {
    const TemporaryFolder folder;
    SetVariable("VESTREL_STATE", folder.Path);
    ProgramState state;
    SetPreference(state, "theme", "night");
    SetPreference(state, "place", "a=b=c");
    SetPreference(state, "umlaut", "\xC3\xBC");
    SetPreference(state, "two lines", "a\nb");
    SetPreference(state, "long", std::string(4097, 'x'));
    SetPreference(state, "theme", "dark");
    SetPreference(state, "gone", "x");
    SetPreference(state, "gone", "");
    const auto expected = state.Preferences;
    EXPECT_EQ(expected.size(), 3U);
    EXPECT_EQ(PreferenceOf(state, "theme"), "dark");
    EXPECT_EQ(PreferenceOf(state, "none"), "");
    ASSERT_TRUE(SavePreferences(state));
    state.Preferences.clear();
    LoadPreferences(state);
    EXPECT_EQ(state.Preferences, expected);

    // Two windows: the later to close keeps what the other changed.
    ProgramState other;
    LoadPreferences(other);
    SetPreference(state, "theme", "night");
    SetPreference(state, "umlaut", "");
    ASSERT_TRUE(SavePreferences(state));
    SetPreference(other, "longitude", "7");
    ASSERT_TRUE(SavePreferences(other));
    LoadPreferences(state);
    EXPECT_EQ(PreferenceOf(state, "theme"), "night");
    EXPECT_EQ(PreferenceOf(state, "umlaut"), "");
    EXPECT_EQ(PreferenceOf(state, "longitude"), "7");

    for (int i = 0; i < 300; ++i) SetPreference(state, "n" + std::to_string(i), "v");
    EXPECT_EQ(state.Preferences.size(), 100U);
    SetPreference(state, "theme", "light");
    EXPECT_EQ(PreferenceOf(state, "theme"), "light") << "a full list still changes";
    ASSERT_TRUE(SavePreferences(state));
    std::filesystem::path file;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder.Path)) {
        if (entry.path().filename() == "preferences") file = entry.path();
    }
    const std::string good = ReadFile(file);
    for (std::uint32_t seed = 0; seed < 300; ++seed) {
        WriteFile(file, Damaged(good, seed));
        LoadPreferences(state);
        ASSERT_LE(state.Preferences.size(), 100U);
        for (const auto& [name, value] : state.Preferences) {
            ASSERT_FALSE(value.empty());
            ASSERT_EQ((name + value).find_first_of(std::string("\n\0\x1B", 3)), std::string::npos);
        }
    }
    WriteFile(file, std::string(300000, 'x') + "=1\n");
    LoadPreferences(state);
    EXPECT_TRUE(state.Preferences.empty()) << "too long a file is none";
    UnsetVariable("VESTREL_STATE");
}

}  // namespace
}  // namespace vestrel
