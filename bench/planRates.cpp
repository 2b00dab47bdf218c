// Measures the whole search plan with star lists: how often it is sure and wrong, and how often it
// solves lists that can be solved.
//
//   vestrel-plan-rates CATALOG-FOLDER [--share S] [--series N] [--only KIND] [--others TABLE.tsv]
//                      [--pictures TABLE.tsv]
//
// Lists without sky, of another place, or of a stretched sky are searched for around a wrong place,
// over the whole sky, or both: none of them may be solved. Lists of the sky are searched around a
// place nearby and over the whole sky. The pictures of --others show no sky; those of --pictures
// are searched for at wrong places. For each kind: lists, those solved rightly and wrongly, the
// likeliest match that was not sure, and the processor time that a list takes. Every series has
// other lists and places, so that what several runs measured adds up.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "astro/libMath.h"
#include "bench/silentPort.h"
#include "bench/starLists.h"
#include "platform/libPlatform.h"
#include "program/mSearchPlan.h"

namespace vestrel {
namespace {

namespace fs = std::filesystem;

/// Where the plan may search.
enum class Scope { Around, WholeSky, Both };

struct Tally {
    int Lists = 0;
    int Right = 0;
    int Wrong = 0;
    double Surest = 0;   ///< log10 of the false-alarm probability of the likeliest match that was
                         ///< not accepted
    double Seconds = 0;  ///< of all processors
    std::map<std::string, int> By;  ///< right solutions by attempt

    void Add(const Tally& other) {
        Lists += other.Lists;
        Right += other.Right;
        Wrong += other.Wrong;
        Surest = std::min(Surest, other.Surest);
        Seconds += other.Seconds;
    }
};

class Bench {
 public:
    explicit Bench(const fs::path& catalog) { state_->Catalog.Folder = catalog; }

    void Solve(const Case& list, Scope scope, int regions, Tally& tally) {
        SilentPort port;
        state_->Image = PlateImage();
        state_->Image.FileName = "list";
        state_->Image.Width = list.Width;
        state_->Image.Height = list.Height;
        state_->ImageLoaded = true;
        SearchRequest request;
        request.Stars = list.Stars;
        request.Everywhere = scope != Scope::Around;
        request.TimeLimit = 1e6;  // what is measured does not depend on how busy the machine is
        if (scope != Scope::WholeSky) {
            request.Around = {{list.Start, list.FieldWidth, list.FieldHeight, regions}};
            request.Diagonals = {std::hypot(list.FieldWidth, list.FieldHeight)};
        }
        PlanReport plan;
        const std::clock_t start = std::clock();
        const SolveCode code = SolveByPlan(*state_, port, request, plan);
        tally.Seconds += static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC;
        ++tally.Lists;
        if (plan.Candidate) {
            tally.Surest = std::min(tally.Surest, plan.Candidate->Confidence.Log10FalseAlarm);
        }
        if (code != SolveCode::Solved) return;
        const PlateSolution& found = *state_->Solution;
        const double diagonal = std::hypot(list.FieldWidth, list.FieldHeight);
        if (list.Truth && Separation(found.Centre(), *list.Truth) < 0.02 * diagonal) {
            ++tally.Right;
            ++tally.By[plan.SolvedBy];
            return;
        }
        ++tally.Wrong;
        std::fprintf(stderr, "WRONG: %s: by %s, %.1f from %d of %d, ratio 1e%.1f, %d stars\n",
                     Name.c_str(), plan.SolvedBy.c_str(), found.Confidence.Log10FalseAlarm,
                     found.Confidence.Matched, found.Confidence.Candidates,
                     found.Confidence.Log10LikelihoodRatio, list.Stars.Count());
    }

    std::string Name;  ///< of the measured kind

 private:
    std::unique_ptr<ProgramState> state_ = std::make_unique<ProgramState>();
};

/// A list of the sky that no camera can record: stretched along one axis, including its clumps.
Case OutOfShape(Case list, Generator& random) {
    const double angle = Uniform(random, 0, Pi);
    const double stretch = Uniform(random, 1.15, 1.4);
    PlateStarList stars;
    for (PlateStar star : list.Stars) {
        const double x = static_cast<double>(star.X) - list.Width / 2.0;
        const double y = static_cast<double>(star.Y) - list.Height / 2.0;
        const double along = (x * std::cos(angle) + y * std::sin(angle)) * stretch;
        const double across = (y * std::cos(angle) - x * std::sin(angle)) / stretch;
        const double u = along * std::cos(angle) - across * std::sin(angle) + list.Width / 2.0;
        const double v = along * std::sin(angle) + across * std::cos(angle) + list.Height / 2.0;
        if (u < 0 || v < 0 || u > list.Width - 1 || v > list.Height - 1) continue;
        star.X = static_cast<float>(u);
        star.Y = static_cast<float>(v);
        stars.Add(star);
    }
    list.Stars = stars;
    list.Truth.reset();
    return list;
}

void Print(const std::string& name, const Tally& tally) {
    std::printf("| %s | %d | %d | %d | %.1f | %.2f s |", name.c_str(), tally.Lists, tally.Right,
                tally.Wrong, tally.Surest, tally.Seconds / std::max(tally.Lists, 1));
    for (const auto& [attempt, count] : tally.By) std::printf(" %s %d", attempt.c_str(), count);
    std::printf("\n");
    std::fflush(stdout);
}

int Run(const fs::path& catalog, double share, std::uint64_t series, const std::string& only,
        const fs::path& others, const fs::path& skies) {
    Bench bench(catalog);
    Tally wrong;
    Tally right;
    std::printf(
        "| stars | lists | right | wrong | likeliest not sure | each |\n"
        "|---|--:|--:|--:|--:|--:|\n");
    std::uint64_t kinds = 1000 * series;
    const auto measure = [&](const std::string& name, Tally& sum, int lists,
                             const std::function<void(Generator&, Tally&)>& search) {
        ++kinds;
        if (name.find(only) == std::string::npos) return;
        bench.Name = name;
        const auto tally = Searched<Tally>(lists, share, kinds, search);
        Print(name, tally);
        sum.Add(tally);
    };
    using Maker = std::function<Case(Generator&)>;
    const auto sky = [&](double from, double to, const Exposure& exposure) {
        return Maker(
            [=](Generator& random) { return SkyCase(catalog, random, from, to, exposure); });
    };
    const auto elsewhere = [](const Maker& make) {
        return Maker([make](Generator& random) { return Elsewhere(make(random), random); });
    };
    const auto outOfShape = [](const Maker& make) {
        return Maker([make](Generator& random) { return OutOfShape(make(random), random); });
    };
    const Exposure few{0.3, 1, 0.1, 0.5, 12};
    struct Kind {
        std::string Name;
        Maker Make;
        int Around, WholeSky, Both;  ///< lists
    };
    std::vector<Kind> none{{"5 to 15 stars", FewCase, 6000, 3000, 1000}};
    for (const auto& [kind, make] : KindsWithoutSky) none.push_back({kind, make, 1000, 300, 100});
    none.push_back({"sky out of shape", outOfShape(sky(0.7, 20, {})), 1000, 300, 100});
    none.push_back({"few stars out of shape", outOfShape(sky(0.7, 10, few)), 1000, 300, 100});
    for (const Kind& kind : none) {
        const auto with = [&](Scope scope, int regions) {
            return [&bench, &kind, scope, regions](Generator& random, Tally& tally) {
                bench.Solve(kind.Make(random), scope, regions, tally);
            };
        };
        measure(kind.Name + ", around a place", wrong, kind.Around, with(Scope::Around, 4));
        measure(kind.Name + ", whole sky", wrong, kind.WholeSky, with(Scope::WholeSky, 0));
        measure(kind.Name + ", both", wrong, kind.Both, with(Scope::Both, 25));
    }
    for (const auto& [kind, make] :
         {std::pair<const char*, Maker>{"sky elsewhere", sky(0.7, 20, {})},
          {"few stars elsewhere", sky(0.7, 10, few)}}) {
        const Maker away = elsewhere(make);
        measure(std::string(kind) + ", around a place", wrong, 1000,
                [&](Generator& random, Tally& tally) {
                    bench.Solve(away(random), Scope::Around, 4, tally);
                });
    }
    const auto elsewhereIn = [&](const std::string& name, const std::vector<Picture>& pictures) {
        measure(name + ", around places", wrong, 1, [&](Generator& random, Tally& tally) {
            constexpr int places = 10;
            for (const Picture& picture : pictures) {
                for (int i = 0; i < places; ++i) {
                    bench.Solve(Elsewhere(picture.List, random), Scope::Around, 4, tally);
                }
            }
        });
    };
    if (!others.empty()) {
        Generator random(6 + 1000 * series);
        const std::vector<Picture> pictures = ReadPictures(others, false, random);
        measure("pictures without sky, both", wrong, 1, [&](Generator&, Tally& tally) {
            for (const Picture& picture : pictures)
                bench.Solve(picture.List, Scope::Both, 9, tally);
        });
        elsewhereIn("pictures without sky", pictures);
    }
    if (!skies.empty()) {
        Generator random(5 + 1000 * series);
        elsewhereIn("pictures of the sky", ReadPictures(skies, true, random));
    }
    const std::pair<const char*, Maker> good[] = {
        {"sky, 0.9° to 3°", sky(0.9, 3, {})},
        {"sky, 3° to 14°", sky(3, 14, {})},
        {"corners off by 12 pixels", sky(1, 14, {0.3, 12, 0.1, 0.2, 100})},
        {"half lost, half false", sky(0.9, 14, {0.3, 1, 0.5, 0.5, 100})},
        {"centroids off by 1 pixel", sky(0.9, 14, {1, 1, 0.2, 0.2, 100})},
        {"12 true stars of 24", sky(0.9, 10, few)},
    };
    for (const auto& [kind, make] : good) {
        const Maker& maker = make;
        measure(std::string(kind) + ", around a place", right, 300,
                [&](Generator& random, Tally& tally) {
                    bench.Solve(maker(random), Scope::Around, 9, tally);
                });
        measure(std::string(kind) + ", whole sky", right, 200,
                [&](Generator& random, Tally& tally) {
                    bench.Solve(maker(random), Scope::WholeSky, 0, tally);
                });
    }
    Print("**nothing is right**", wrong);
    Print("**something is right**", right);
    return 0;
}

}  // namespace
}  // namespace vestrel

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(
            stderr,
            "usage: vestrel-plan-rates CATALOG-FOLDER [--share S] [--series N] [--only KIND] "
            "[--others TABLE.tsv] [--pictures TABLE.tsv]\n");
        return 2;
    }
    double share = 1;
    std::uint64_t series = 0;
    std::string only;
    std::filesystem::path others;
    std::filesystem::path skies;
    for (int i = 2; i + 1 < argc; i += 2) {
        const std::string option = argv[i];
        if (option == "--share") share = std::atof(argv[i + 1]);
        if (option == "--series") series = std::strtoull(argv[i + 1], nullptr, 10);
        if (option == "--only") only = argv[i + 1];
        if (option == "--others") others = vestrel::PathFromText(argv[i + 1]);
        if (option == "--pictures") skies = vestrel::PathFromText(argv[i + 1]);
    }
    return vestrel::Run(vestrel::PathFromText(argv[1]), share, series, only, others, skies);
}
