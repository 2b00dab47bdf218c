#include "solver/solverResults.h"

#include <algorithm>
#include <cmath>

#include "astro/libConversions.h"
#include "astro/libMath.h"
#include "astro/libStrings.h"
#include "platform/libConsole.h"
#include "program/mFailureCause.h"
#include "program/mSolveReport.h"

namespace vestrel {

namespace {

/// The names of the inputs in advice.
constexpr InputWords libraryWords{"DetectionThreshold",
                                  "MinStarSize",
                                  "CatalogFolder",
                                  "the scale",
                                  "the centre",
                                  "MostRegions",
                                  "give the approximate centre",
                                  "search the whole sky (WholeSky)",
                                  "none"};

/// A text of the header without its quotes, which readers keep; "0" stands for no text.
std::string PlainText(const std::string& text) {
    std::string_view plain = Trim(text);
    if (plain.size() >= 2 && plain.front() == '\'' && plain.back() == '\'') {
        plain = Trim(plain.substr(1, plain.size() - 2));
    }
    return plain == "0" ? std::string() : WithoutControls(std::string(plain));
}

double StoredRow(const PlateImage& image, double y) {
    return TurnedOver(image) ? image.Height - 1 - y : y;
}

/// @param sign −1 when the corrected axis of the result counts the other way, else +1
/// @param upward −1 when the rows of the result count the other way, else +1
SipPolynomial SipOf(const Polynomial& polynomial, double sign, double upward) {
    SipPolynomial sip;
    sip.Order = polynomial.Order;
    for (int p = 0; p <= sip.Order; ++p) {
        for (int q = 0; p + q <= sip.Order; ++q) {
            sip.Terms[p][q] = sign * polynomial.At(p, q) * (q % 2 == 1 ? upward : 1);
        }
    }
    return sip;
}

SolverPosition InDegrees(const SkyPosition& sky) {
    double ra = std::fmod(sky.Ra * ExactDegreesPerRadian, 360);
    if (ra < 0) ra += 360;
    return {ra, sky.Dec * ExactDegreesPerRadian};
}

SolverCertainty CertaintyOf(const MatchConfidence& confidence) {
    return {confidence.Log10FalseAlarm, confidence.Matched, confidence.Candidates,
            confidence.ExpectedByChance};
}

SolverMatch MatchOf(const PlateImage& image, const PlateStar& star, const PlateStar& catalog,
                    double residual) {
    return {double{star.X},
            StoredRow(image, double{star.Y}),
            double{star.Flux},
            InDegrees({catalog.Ra, catalog.Dec}),
            RoundToDecimals(double{catalog.Flux}, 2),
            residual};
}

void AddMatches(const ProgramState& state, const std::optional<ImageSkyModel>& model,
                SolvedField& field) {
    const PlateSolution& solution = *state.Solution;
    if (model && model->Solution) {
        for (const SkyPair& pair : model->Solution->Pairs) {
            field.Matches.push_back(MatchOf(state.Image, solution.PlateStars[pair.PlateStar + 1],
                                            model->CatalogStars[pair.CatalogStar + 1],
                                            pair.Residual));
        }
        return;
    }
    for (const auto& [catalog, plate] : MatchedStars(solution)) {
        double x = 0;
        double y = 0;
        ApplyPlateFit(solution.Transform, double{catalog->X}, double{catalog->Y}, x, y);
        field.Matches.push_back(MatchOf(state.Image, *plate, *catalog,
                                        std::hypot(x - double{plate->X}, y - double{plate->Y})));
    }
}

}  // namespace

void DescribePicture(const PlateImage& image, PictureFacts& facts) {
    facts.Opened = true;
    facts.Format = image.Format;
    facts.Width = image.Width;
    facts.Height = image.Height;
    facts.Instrument = PlainText(image.Header.Instrument);
    facts.ObservedAt = PlainText(image.Header.DateObs);
}

SolverCoordinates CoordinatesOf(const SkyModel& model, const PlateImage& image, RowOrder rows) {
    const bool turns = rows == RowOrder::BottomUp ? FirstRowAtTop(image) : TurnedOver(image);
    const double upward = turns ? -1 : 1;
    SolverCoordinates result;
    result.Crpix[0] = (model.Width + 1) / 2.0;
    result.Crpix[1] = (model.Height + 1) / 2.0;
    const SolverPosition centre = InDegrees(model.Tangent);
    result.Crval[0] = centre.Ra;
    result.Crval[1] = centre.Dec;
    for (int row = 0; row < 2; ++row) {
        result.Cd[row][0] = model.Cd[row][0] * ExactDegreesPerRadian;
        result.Cd[row][1] = model.Cd[row][1] * ExactDegreesPerRadian * upward;
    }
    if (model.Distorted()) {
        result.A = SipOf(model.Distortion[0], 1, upward);
        result.B = SipOf(model.Distortion[1], upward, upward);
        result.Ap = SipOf(model.InverseDistortion[0], 1, upward);
        result.Bp = SipOf(model.InverseDistortion[1], upward, upward);
    }
    return result;
}

SkyModel WithSipOrder(const SkyModel& model, int mostOrder) {
    const int order = std::max(mostOrder, 1);
    if (!model.Distorted() || model.Distortion[0].Order <= order) return model;
    constexpr int steps = 20;
    std::vector<SkyPoint> points;
    for (int row = 0; row <= steps; ++row) {
        for (int column = 0; column <= steps; ++column) {
            const PixelPoint pixel{(model.Width - 1.0) * column / steps,
                                   (model.Height - 1.0) * row / steps};
            points.push_back({pixel, model.SkyOf(pixel)});
        }
    }
    const auto fit =
        FitSkyModel(points, SkyModelShape{order, 0}, model.Width, model.Height, model.Tangent);
    return fit ? fit->Model : model;
}

std::vector<SolverStar> StarsOfPicture(const ProgramState& state) {
    std::vector<SolverStar> stars;
    const PlateStarList& list = state.Solution ? state.Solution->PlateStars : state.PlateStars;
    for (const PlateStar& star : list) {
        stars.push_back(
            {double{star.X}, StoredRow(state.Image, double{star.Y}), double{star.Flux}});
    }
    return stars;
}

SolvedField FieldOf(const ProgramState& state, const std::optional<ImageSkyModel>& model) {
    constexpr double arcminutes = 60;
    const PlateSolution& solution = *state.Solution;
    SolvedField field;
    field.Centre = InDegrees(solution.Centre());
    field.Width = solution.WidthArcmin / arcminutes;
    field.Height = solution.HeightArcmin / arcminutes;
    field.Rms = solution.Rms;
    field.MagnitudeZeroPoint = solution.MagnitudeZeroPoint;
    field.Cautions = Cautions(state);
    AddMatches(state, model, field);
    if (!model) return field;
    const SkyModel& map = model->Model;
    const PixelPoint middle = map.Centre();
    field.Centre = InDegrees(map.Tangent);
    field.Width = SkyDistance(map.SkyOf({-0.5, middle.Y}), map.SkyOf({map.Width - 0.5, middle.Y})) *
                  ExactDegreesPerRadian;
    field.Height =
        SkyDistance(map.SkyOf({middle.X, -0.5}), map.SkyOf({middle.X, map.Height - 0.5})) *
        ExactDegreesPerRadian;
    field.Coordinates = CoordinatesOf(map, state.Image, RowOrder::AsStored);
    if (!model->Solution) return field;
    field.FittedToAllStars = true;
    field.Rms = model->Solution->Rms;
    field.CentreError =
        model->Solution->Fit.CentreSigma * map.Scale() * ExactDegreesPerRadian * 3600;
    return field;
}

void ExplainEnd(const ProgramState& state, SolveCode code, const PlanReport& plan, bool stopped,
                SolverOutcome& outcome) {
    const auto end = [&outcome](SolverEnd how, std::string reason) {
        outcome.End = how;
        outcome.Reason = std::move(reason);
    };
    if (code == SolveCode::Solved) {
        outcome.Certainty = CertaintyOf(state.Solution->Confidence);
        return end(SolverEnd::Solved, {});
    }
    if (plan.Candidate) {
        outcome.Certainty = CertaintyOf(plan.Candidate->Confidence);
        outcome.Candidate = InDegrees(plan.Candidate->Centre());
    }
    if (code == SolveCode::Stopped) {
        if (stopped) return end(SolverEnd::Stopped, "It was stopped.");
        return end(SolverEnd::TimeLimit, "The time limit came before all attempts were made.");
    }
    outcome.Advice = Advice(state, code, libraryWords);
    if (state.Display.Status.Text == "Out of memory") {
        return end(SolverEnd::OutOfMemory, "There is not enough memory for this picture.");
    }
    if (code == SolveCode::TooFewStars) {
        return end(SolverEnd::TooFewStars, std::to_string(state.Extraction.StarsFound) +
                                               " stars were found; 6 are the fewest.");
    }
    if (plan.Candidate) {
        const PlateSolution& candidate = *plan.Candidate;
        return end(SolverEnd::NotSure, "Only a candidate was found, about " +
                                           FormatRA(candidate.CentreRA, true, 1) + " " +
                                           FormatDec(candidate.CentreDec, true, 0) + ": " +
                                           ConfidenceText(candidate.Confidence) + ".");
    }
    const std::string damage = CatalogDamage(state);
    if (!damage.empty()) return end(SolverEnd::DamagedCatalog, damage);
    const std::string lack = LackOfCatalog(state);
    if (!lack.empty()) return end(SolverEnd::NoCatalog, lack);
    if (plan.TimeLimitReached) {
        return end(SolverEnd::TimeLimit, "The time limit came before all attempts were made.");
    }
    const std::string shallow = ShallowCatalogText(state);
    end(SolverEnd::NoMatch, "No place that was searched matches its " +
                                std::to_string(state.Extraction.StarsFound) + " stars" +
                                (shallow.empty() ? "" : "; " + shallow) + ".");
}

void ExplainCause(ProgramState& state, Port& port, SolveCode code, const SearchRequest& request,
                  const PlanReport& plan, SolverOutcome& outcome) {
    const auto cause = CauseOfFailure(state, port, code, request, libraryWords, plan.Lists);
    if (!cause || cause->Text.empty()) return;
    outcome.CauseKind = NameOf(cause->Kind);
    outcome.Cause = cause->Text;
    outcome.Advice.insert(outcome.Advice.begin(), cause->Try);
}

}  // namespace vestrel
