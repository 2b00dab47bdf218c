#include "console/jsonReport.h"

#include "astro/libConversions.h"
#include "astro/libMath.h"
#include "astro/libStrings.h"
#include "platform/libPlatform.h"
#include "program/mImageData.h"
#include "program/mSkyModel.h"
#include "program/mSolveReport.h"

namespace vestrel {

namespace {

/// The matched pairs: the place of each star in the image and in the catalog.
nlohmann::ordered_json JsonMatches(const PlateSolution& solution) {
    nlohmann::ordered_json matches = nlohmann::ordered_json::array();
    for (const auto& [catalog, plate] : MatchedStars(solution)) {
        double x = 0;
        double y = 0;
        ApplyPlateFit(solution.Transform, double{catalog->X}, double{catalog->Y}, x, y);
        matches.push_back({{"x", plate->X},
                           {"y", plate->Y},
                           {"catalog_x", x},
                           {"catalog_y", y},
                           {"ra_deg", catalog->Ra * ExactDegreesPerRadian},
                           {"dec_deg", catalog->Dec * ExactDegreesPerRadian},
                           {"magnitude", RoundToDecimals(double{catalog->Flux}, 2)}});
    }
    return matches;
}

nlohmann::ordered_json JsonConfidence(const MatchConfidence& confidence) {
    return {{"stars_matched", confidence.Matched},
            {"stars_in_frame", confidence.Candidates},
            {"expected_by_chance", confidence.ExpectedByChance},
            {"log10_false_alarm", confidence.Log10FalseAlarm},
            {"log10_likelihood_ratio", confidence.Log10LikelihoodRatio},
            {"log10_trials", confidence.Log10Trials}};
}

/// Coefficients by their powers of X and Y, "2_0" and so on.
nlohmann::ordered_json JsonPolynomial(const Polynomial& polynomial, int least) {
    nlohmann::ordered_json json = nlohmann::ordered_json::object();
    for (int degree = least; degree <= polynomial.Order; ++degree) {
        for (int q = 0; q <= degree; ++q) {
            json[std::to_string(degree - q) + "_" + std::to_string(q)] =
                polynomial.At(degree - q, q);
        }
    }
    return json;
}

/// The gnomonic model of the whole image, in grid pixels: x and y count from 0.
nlohmann::ordered_json JsonSkyModel(const ImageSkyModel& image) {
    const SkyModel& model = image.Model;
    const auto degrees = [&](int row, int column) {
        return model.Cd[row][column] * ExactDegreesPerRadian;
    };
    nlohmann::ordered_json json = {
        {"ra_deg", model.Tangent.Ra * ExactDegreesPerRadian},
        {"dec_deg", model.Tangent.Dec * ExactDegreesPerRadian},
        {"x", model.Centre().X},
        {"y", model.Centre().Y},
        {"cd_deg", {{degrees(0, 0), degrees(0, 1)}, {degrees(1, 0), degrees(1, 1)}}},
        {"scale_arcsec_px", model.Scale() * ExactDegreesPerRadian * 3600},
        {"sip_order", model.Distortion[0].Order},
        {"fitted_to_all_stars", image.Solution.has_value()}};
    if (model.Distorted()) {
        json["sip_a"] = JsonPolynomial(model.Distortion[0], 2);
        json["sip_b"] = JsonPolynomial(model.Distortion[1], 2);
        json["sip_ap"] = JsonPolynomial(model.InverseDistortion[0], 0);
        json["sip_bp"] = JsonPolynomial(model.InverseDistortion[1], 0);
    }
    nlohmann::ordered_json corners = nlohmann::ordered_json::array();
    for (const double y : {0.0, model.Height - 1.0}) {
        for (const double x : {0.0, model.Width - 1.0}) {
            const SkyPosition sky = model.SkyOf({x, y});
            corners.push_back({{"x", x},
                               {"y", y},
                               {"ra_deg", sky.Ra * ExactDegreesPerRadian},
                               {"dec_deg", sky.Dec * ExactDegreesPerRadian}});
        }
    }
    json["corners"] = corners;
    if (!image.Solution) return json;
    const SkySolution& solution = *image.Solution;
    const SkyModelFit& fit = solution.Fit;
    json["stars"] = solution.Pairs.size();
    json["rms_px"] = solution.Rms;
    json["sigma"] = {
        {"star_px", fit.Sigma},
        {"centre_px", fit.CentreSigma},
        {"centre_arcsec", fit.CentreSigma * model.Scale() * ExactDegreesPerRadian * 3600},
        {"scale_relative", fit.ScaleSigma},
        {"rotation_deg", fit.RotationSigma * ExactDegreesPerRadian},
        {"edge_px", nullptr}};
    if (solution.ReachesEdges) json["sigma"]["edge_px"] = fit.EdgeSigma;
    nlohmann::ordered_json rings = nlohmann::ordered_json::array();
    for (const SkyRing& ring : solution.Rings) {
        rings.push_back({{"outer", ring.Outer}, {"stars", ring.Stars}, {"rms_px", ring.Rms}});
    }
    json["rings"] = rings;
    return json;
}

/// The counts of the search in the quad tables.
nlohmann::ordered_json JsonQuads(const ProgramState& state) {
    const QuadSearch& search = state.QuadMatch;
    nlohmann::ordered_json json = {{"searched", search.Searched},
                                   {"candidates", search.Candidates},
                                   {"four_star_fits", search.FourStarFits},
                                   {"matched", !search.Pairs.Empty()},
                                   {"seconds", search.Seconds}};
    if (!search.Pairs.Empty()) json["confidence"] = JsonConfidence(search.Confidence);
    if (!state.Quads.Fault.empty()) json["fault"] = state.Quads.Fault;
    return json;
}

/// The likeliest cause of a failure, with all the evidence.
nlohmann::ordered_json JsonCause(const FailureCause& cause) {
    const FailureEvidence& evidence = cause.Evidence;
    const ImageHealth& health = evidence.Health;
    nlohmann::ordered_json json = {
        {"kind", NameOf(cause.Kind)}, {"text", cause.Text}, {"try", cause.Try}};
    nlohmann::ordered_json& found = json["evidence"];
    if (health.Measured) {
        found = {{"sky_level", health.SkyLevel},
                 {"sky_noise_px", health.SkyNoise},
                 {"patches", health.Patches},
                 {"hot_pixels", health.HotPixels},
                 {"dark_patches", health.DarkPatches},
                 {"covered_part", health.CoveredPart},
                 {"width_px", health.Width},
                 {"elongation", health.Elongation},
                 {"trail_px", health.TrailLength},
                 {"trail_spread", health.LengthSpread},
                 {"trail_angle_deg", evidence.TrailAngle},
                 {"angle_agreement", health.AngleAgreement},
                 {"hollow_part", health.HollowPart}};
    }
    found["full_scale"] = evidence.FullScale;
    found["stars_extracted"] = evidence.StarsExtracted;
    found["catalog_stars"] = evidence.CatalogStars;
    if (evidence.MagnitudeLimit > 0) found["magnitude_limit"] = evidence.MagnitudeLimit;
    if (evidence.CatalogEnd > 0) found["catalog_end"] = evidence.CatalogEnd;
    if (evidence.Elsewhere) {
        const PlateSolution& solution = *evidence.Elsewhere;
        found["elsewhere"] = {{"ra_deg", solution.CentreRA * ExactDegreesPerRadian},
                              {"dec_deg", solution.CentreDec * ExactDegreesPerRadian},
                              {"width_arcmin", solution.WidthArcmin},
                              {"height_arcmin", solution.HeightArcmin},
                              {"separation_deg", evidence.Separation * ExactDegreesPerRadian},
                              {"size_ratio", evidence.SizeRatio},
                              {"log10_false_alarm", solution.Confidence.Log10FalseAlarm}};
    }
    return json;
}

nlohmann::ordered_json JsonAttempts(const PlanReport& report) {
    nlohmann::ordered_json attempts = nlohmann::ordered_json::array();
    for (const PlanAttempt& attempt : report.Attempts) {
        attempts.push_back(
            {{"name", attempt.Name}, {"seconds", attempt.Seconds}, {"sure", attempt.Sure}});
    }
    return attempts;
}

/// The figures of a solution, or of a candidate that is not sure.
void AddSolution(nlohmann::ordered_json& json, const PlateSolution& solution,
                 const PlateImage& image) {
    const ImageOrientation orientation = OrientationOf(solution, image);
    json["ra_deg"] = solution.CentreRA * ExactDegreesPerRadian;
    json["dec_deg"] = solution.CentreDec * ExactDegreesPerRadian;
    json["ra"] = FormatRA(solution.CentreRA, true, 2);
    json["dec"] = FormatDec(solution.CentreDec, true, 1);
    json["width_arcmin"] = solution.WidthArcmin;
    json["height_arcmin"] = solution.HeightArcmin;
    json["scale_arcsec_px"] = 1 / solution.Scale;
    json["rotation_deg"] = PositionAngleDegrees(solution.Angle);
    json["up_position_angle_deg"] = orientation.UpPositionAngle;
    json["mirrored"] = orientation.Mirrored;
    json["stretch"] = solution.Stretch;
    json["skew"] = solution.Skew;
    json["rms_px"] = solution.Rms;
    json["rms_arcsec"] = solution.Rms / solution.Scale;
    json["stars_matched"] = solution.MatchedCount;
    json["regions_searched"] = solution.RegionsSearched;
    json["magnitude_zero_point"] = solution.MagnitudeZeroPoint;
    json["tangent_ra_deg"] = solution.TangentRA * ExactDegreesPerRadian;
    json["tangent_dec_deg"] = solution.TangentDec * ExactDegreesPerRadian;
    const PlateConstants& t = solution.Transform;
    json["transform"] = {t.a, t.b, t.c, t.d, t.e, t.f};
    json["confidence"] = JsonConfidence(solution.Confidence);
}

}  // namespace

nlohmann::ordered_json JsonReport(const ProgramState& state, const RunOutcome& outcome) {
    const bool solved = outcome.Result.Code == SolveCode::Solved && outcome.Attempted;
    nlohmann::ordered_json json;
    json["solved"] = solved;
    // Code 0 means too few stars; an outcome without a code must not look like that.
    if (outcome.Exit == ExitCode::Usage || outcome.Exit == ExitCode::InvalidFileName) {
        json["code"] = nullptr;
    } else {
        json["code"] = NumberOf(outcome.Result.Code);
    }
    json["message"] = outcome.Result.Message;
    json["exit_code"] = NumberOf(outcome.Exit);
    json["image"] = outcome.Image;
    if (const std::string cause = CauseOfRefusal(state); !outcome.Attempted && !cause.empty()) {
        json["cause"] = {{"kind", "unreadable"}, {"text", cause}};
    }
    if (!outcome.Attempted) return json;
    if (outcome.Replayed) json["same_outcome_as_bundle"] = outcome.SameOutcome;
    if (solved) {
        AddSolution(json, *state.Solution, state.Image);
        json["cautions"] = Cautions(state);
        json["matches"] = JsonMatches(*state.Solution);
        if (const auto model = SkyModelOfImage(state)) json["sky_model"] = JsonSkyModel(*model);
    } else if (outcome.Plan.Candidate) {
        AddSolution(json["candidate"], *outcome.Plan.Candidate, state.Image);
    }
    const SolveReport& report = state.Report;
    if (state.Image.ImageType == ImageType::Decoded) {
        json["format"] = state.Image.Format;
        json["counts"] = {{"zero", state.Image.Counts.Zero}, {"factor", state.Image.Counts.Factor}};
        json["remarks"] = state.Image.Remarks;
    } else if (!state.Image.Remarks.empty()) {
        json["remarks"] = state.Image.Remarks;
    }
    if (!outcome.StartedFrom.empty()) json["started_from"] = outcome.StartedFrom;
    json["width_px"] = state.Image.Width;
    json["height_px"] = state.Image.Height;
    json["stars_extracted"] =
        state.Solution ? state.Solution->ExtractedCount : state.Extraction.StarsFound;
    json["stars_in_catalog"] = solved ? state.Solution->CatalogCount() : report.CatalogStarsAtStart;
    json["sky_noise"] = state.Extraction.BackgroundSigma;
    json["smoothed"] = report.Smoothed;
    json["magnitude_limit"] = report.MagnitudeLimit;
    json["regions_tried"] = report.RegionsTried;
    if (report.Blind) json["quads"] = JsonQuads(state);
    if (!outcome.Plan.Attempts.empty()) json["attempts"] = JsonAttempts(outcome.Plan);
    if (!outcome.Plan.SolvedBy.empty()) json["solved_by"] = outcome.Plan.SolvedBy;
    if (outcome.Plan.TimeLimitReached) json["time_limit_reached"] = true;
    json["catalog_folder"] = TextFromPath(state.Catalog.Folder);
    if (!solved) {
        json["catalog_complaint"] = CatalogComplaint(state);
        json["best_attempt"] = {{"pairs_by_votes", report.BestAttempt.Selected},
                                {"pairs_left", report.BestAttempt.Kept},
                                {"ra_deg", report.BestAttemptCentre.Ra * ExactDegreesPerRadian},
                                {"dec_deg", report.BestAttemptCentre.Dec * ExactDegreesPerRadian}};
        json["advice"] = Advice(state, outcome.Result.Code);
        if (outcome.Cause) json["cause"] = JsonCause(*outcome.Cause);
    }
    for (const auto& [stage, seconds] : StageTable(report.Times)) json["seconds"][stage] = seconds;
    json["seconds"]["total"] = outcome.Seconds;
    json["peak_memory_bytes"] = PeakMemoryBytes();
    return json;
}

}  // namespace vestrel
