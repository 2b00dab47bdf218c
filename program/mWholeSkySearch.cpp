#include "program/mWholeSkySearch.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "astro/libMath.h"
#include "matching/libCameraPlane.h"
#include "matching/libMatchedPlate.h"
#include "platform/libPlatform.h"
#include "program/mStopwatch.h"

namespace vestrel {

bool WholeSkySearch::Run() {
    state_.QuadMatch = {};
    const RankedBands bands = LikelyBands(state_, request_.Diagonals);
    const bool sure = LookUpIn(bands.OfSize, "") || LookUpIn(bands.Others, " of other sizes");
    if (!sure && !fault_.empty()) state_.Quads.Fault = fault_;
    return sure;
}

/// Makes all attempts in these bands before others are searched: most given sizes are right.
bool WholeSkySearch::LookUpIn(const std::vector<QuadBand>& bands, const char* nameEnd) {
    return std::any_of(QuadAttempts.begin(), QuadAttempts.end(), [&](const QuadAttempt& attempt) {
        return !bands.empty() && !calls_.MustEnd() &&
               calls_.Try(attempt.Name + std::string(nameEnd),
                          [&] { return LookUpQuads(attempt, bands); });
    });
}

bool WholeSkySearch::LookUpQuads(const QuadAttempt& attempt, const std::vector<QuadBand>& bands) {
    constexpr std::int32_t fewest = 5;
    const bool twice = request_.Stars && attempt.From == StarSource::Extracted;
    if (lists_.Of(attempt.From).Count() < fewest || twice) return false;
    ListQuads& quads = QuadsOf(attempt);
    if (!attempt.BandsAtOnce) {
        return std::any_of(bands.begin(), bands.end(), [&](const QuadBand& band) {
            if (calls_.MustEnd()) return false;
            std::optional<BandLookup> lookup = Prepare(attempt, band, quads);
            return lookup && SearchInTurn(*lookup, quads.Judge);
        });
    }
    std::vector<BandLookup> lookups;
    for (const QuadBand& band : bands) {
        if (auto lookup = Prepare(attempt, band, quads)) lookups.push_back(*std::move(lookup));
    }
    const StageTimer timer(state_.QuadMatch.Seconds);
    LookUpTogether(lookups, quads.Places, calls_.MustEnd);
    return std::any_of(lookups.begin(), lookups.end(), [&](const BandLookup& band) {
        return !state_.StopRequested && JudgePlates(band, quads.Judge);
    });
}

WholeSkySearch::ListQuads::ListQuads(const PlateStarList& stars, const ProgramState& state,
                                     const LeadingStars& leading)
    : Places(stars, state.Image.Width, state.Image.Height),
      Judge(Places),
      Quads(stars, std::hypot(Places.Width(), Places.Height()), leading) {}

const std::vector<ImageQuad>& WholeSkySearch::ListQuads::For(const QuadBand& band) {
    const auto [found, isNew] = OfBands.try_emplace(band.SmallestDiagonal);
    if (isNew) found->second = Quads.For(band);
    return found->second;
}

WholeSkySearch::ListQuads& WholeSkySearch::QuadsOf(const QuadAttempt& attempt) {
    const LeadingStars leading{attempt.FirstStars, attempt.LookedUp};
    return quads_
        .try_emplace({attempt.From, leading.First, leading.LookedUp}, lists_.Of(attempt.From),
                     state_, leading)
        .first->second;
}

/// The narrow band that ends where a narrow band begins, if there is one.
std::optional<QuadBand> WholeSkySearch::NextSmaller(const QuadBand& band) {
    if (!IsNarrowBand(band)) return std::nullopt;
    for (const QuadBand& other : QuadBandsOf(state_)) {
        if (other.LargestDiagonal == band.SmallestDiagonal) return other;
    }
    return std::nullopt;
}

/// The search of a band; nothing when there is no table for it.
std::optional<BandLookup> WholeSkySearch::Prepare(const QuadAttempt& attempt, const QuadBand& band,
                                                  ListQuads& quads) {
    const std::optional<QuadBand> table = attempt.InSmallerFields ? NextSmaller(band) : band;
    if (!table) return std::nullopt;
    QuadTablesOfBands::Opened* const opened = tables_.Open(state_, *table);
    if (opened == nullptr) {
        fault_ = state_.Quads.Fault;
        return std::nullopt;
    }
    const std::vector<ImageQuad>& all = quads.For(band);
    const auto place = [&](std::int32_t number) {
        return all.begin() + std::min<std::ptrdiff_t>(number, std::ssize(all));
    };
    return BandLookup{&opened->Tables,
                      opened->Pool,
                      band,
                      {place(attempt.FirstQuad), place(attempt.LastQuad)},
                      {},
                      {},
                      false};
}

/// Searches a band and judges each plate as it comes, so that the search ends with the right one.
bool WholeSkySearch::SearchInTurn(BandLookup& band, const SeededJudge& judge) {
    const StageTimer timer(state_.QuadMatch.Seconds);
    QuadLookup lookup(*band.Tables, judge.Image(), band.Band);
    const auto accept = [&](const CentredPlate& plate) {
        Count(lookup.Counts());
        return TakePlate(plate, judge);
    };
    bool found = false;
    try {
        found = lookup.Search(band.Quads, accept, calls_.MustEnd);
    } catch (const DamagedFile&) {
        NoteDamage();
    }
    Count(lookup.Counts());
    if (!found) before_ = before_ + lookup.Counts();
    return found;
}

/// Judges the plates of a band that was searched to its end.
bool WholeSkySearch::JudgePlates(const BandLookup& band, const SeededJudge& judge) {
    for (const BandLookup::Confirmed& found : band.Plates) {
        Count(found.Counts);
        if (TakePlate(found.Plate, judge)) return true;
    }
    if (band.Damaged) NoteDamage();
    Count(band.Counts);
    before_ = before_ + band.Counts;
    return false;
}

void WholeSkySearch::Count(const LookupCounts& more) {
    const LookupCounts all = before_ + more;
    QuadSearch& search = state_.QuadMatch;
    search.Searched = all.Searched;
    search.Candidates = all.Candidates;
    search.FourStarFits = all.Fitted;
}

void WholeSkySearch::NoteDamage() {
    fault_ = TextFromPath(state_.Quads.File) + " " + DamagedFile().what();
}

/// Refines a plate of four stars with all others, and accepts it when it is sure.
bool WholeSkySearch::TakePlate(const CentredPlate& plate, const SeededJudge& judge) {
    const ImageStars& places = judge.Image();
    const double radius = std::hypot(places.Width(), places.Height()) / 2 /
                          PlateGeometry(plate.Plate).Scale / SolveArcsecondsPerRadian;
    const PlateStarList catalog =
        OnCameraPlane(CatalogAbout(state_, plate.Centre, radius), plate.Centre);
    MatchedPlate match;
    match.Plate = plate.Plate;
    QuadSearch& search = state_.QuadMatch;
    if (!RefinePlate(catalog, places, RoughTolerance(state_.Image), match)) return false;
    const MatchConfidence confidence =
        judge.Judge(match, catalog, calls_.Shares * search.FourStarFits, 0);
    if (!IsSure(confidence) || !calls_.TakePlate(match, confidence, plate.Centre, places)) {
        return false;
    }
    search.Code = SolveCode::Solved;
    search.Reference = catalog;
    search.Pairs = match.Pairs;
    search.Transform = match.Plate;
    search.Geometry = PlateGeometry(match.Plate);
    search.FitError = match.Rms;
    search.Tangent = plate.Centre;
    search.Centre = state_.Solution->Centre();
    search.Confidence = state_.Solution->Confidence;
    return true;
}

}  // namespace vestrel
