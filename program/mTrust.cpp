#include "program/mTrust.h"

#include "astro/libMath.h"
#include "display/libReadout.h"
#include "program/mImageView.h"
#include "program/mMORA.h"
#include "program/mSolveReport.h"

namespace vestrel {

namespace {

std::string Joined(const std::vector<std::string>& texts) {
    std::string joined;
    for (const std::string& text : texts) joined += (joined.empty() ? "" : "; ") + text;
    return joined;
}

}  // namespace

const char* WordOf(TrustLevel level) {
    switch (level) {
        case TrustLevel::Sure:
            return "Sure";
        case TrustLevel::Check:
            return "Check";
        case TrustLevel::Doubtful:
            return "Doubtful";
        case TrustLevel::None:
            break;
    }
    return "";
}

Trust TrustOf(const MatchConfidence& confidence, const std::vector<std::string>& cautions) {
    const std::string odds = ConfidenceText(confidence);
    if (!IsSure(confidence)) {
        return {TrustLevel::Doubtful, odds,
                "Just Solve goes on until a match is sure; a longer exposure or a larger field "
                "shows more stars"};
    }
    if (!cautions.empty()) {
        return {TrustLevel::Check, Joined(cautions) + "; but " + odds,
                "Enter the size that was found and match again, and look at the residuals"};
    }
    return {TrustLevel::Sure, odds, {}};
}

Trust TrustOf(const ProgramState& state) {
    if (state.Solution) return TrustOf(state.Solution->Confidence, Cautions(state));
    if (state.QuadMatch.Code != SolveCode::Solved || state.QuadMatch.Pairs.Count() == 0) return {};
    const std::string odds = ConfidenceText(state.QuadMatch.Confidence);
    if (IsSure(state.QuadMatch)) {
        return {TrustLevel::Check, "The place is sure, but the image is not measured: " + odds,
                "Plate Match measures it from here"};
    }
    return {TrustLevel::Doubtful, "Such a match can be chance: " + odds,
            "Plate Match from this centre, or Just Solve"};
}

bool MaySync(const ProgramState& state, Port& port) {
    const Trust trust = TrustOf(state);
    if (trust.Level == TrustLevel::Sure || trust.Level == TrustLevel::None) return true;
    return port.Confirm(std::string("The solution is not sure (") + WordOf(trust.Level) +
                            "): " + trust.Why + ".\n\nSync the telescope to it all the same?",
                        ProgramTitle);
}

std::vector<Residual> ResidualsOf(const ProgramState& state) {
    std::vector<Residual> residuals;
    const auto map = SkyMap::Of(state.Image.Header);
    if (!state.Solution || !map) return residuals;
    for (const auto& [catalog, plate] : MatchedStars(*state.Solution)) {
        const auto place = map->PixelOf({catalog->Ra, catalog->Dec});
        if (place) residuals.push_back({*place, plate->X - place->X, plate->Y - place->Y});
    }
    return residuals;
}

std::string ResidualSummary(const ProgramState& state) {
    const std::vector<Residual> residuals = ResidualsOf(state);
    if (residuals.empty()) return "No stars are matched.";
    const ResidualHistogram histogram = HistogramOf(residuals);
    const auto both = [&](double pixels) {
        return FixedText(pixels, 2) + " px (" + FixedText(pixels / state.Solution->Scale, 2) +
               "\")";
    };
    return std::to_string(residuals.size()) + " matched stars, median residual " +
           both(histogram.Median) + ", largest " + both(histogram.Largest);
}

}  // namespace vestrel
