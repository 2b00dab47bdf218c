#include "image/libHints.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <numbers>
#include <string_view>

#include "astro/libConversions.h"
#include "astro/libMath.h"
#include "astro/libStrings.h"
#include "astro/libTime.h"
#include "image/libFitsCards.h"
#include "image/libWorldCoordinates.h"

namespace vestrel {

namespace {

constexpr double fullCircle = 2 * std::numbers::pi;

/// The values of a header by keyword, without quotes and comments. When a keyword is repeated, its
/// first card counts.
class CardValues {
 public:
    explicit CardValues(const ImageHeader& header) {
        for (std::size_t i = 1; i <= static_cast<std::size_t>(header.CardCount); ++i) {
            const std::string_view card = header.Cards[i];
            const std::size_t equals = card.find('=');
            if (equals == std::string_view::npos) continue;
            values_.emplace(UpperCase(Trim(card.substr(0, equals))),
                            ValueIn(Trim(card.substr(equals + 1))));
        }
    }

    std::string_view Text(std::string_view keyword) const {
        const auto found = values_.find(keyword);
        return found == values_.end() ? std::string_view() : std::string_view(found->second);
    }
    std::optional<double> Number(std::string_view keyword) const {
        const auto number = ParseNumber(Text(keyword));
        return number && std::isfinite(*number) ? number : std::nullopt;
    }
    /// A length or a scale: 0 stands for "not known" in many headers.
    std::optional<double> Positive(std::string_view keyword) const {
        const auto number = Number(keyword);
        return number && *number > 0 ? number : std::nullopt;
    }

 private:
    static std::string ValueIn(std::string_view field) {
        if (field.starts_with('\'')) {
            return std::string(Trim(field.substr(1, field.find('\'', 1) - 1)));
        }
        std::string value(Trim(field.substr(0, field.find('/'))));
        // The "D" of an exponent would stand for degrees in a position.
        if (ParseFitsNumber(value)) std::replace(value.begin(), value.end(), 'D', 'E');
        return value;
    }
    std::map<std::string, std::string, std::less<>> values_;
};

bool IsPosition(const SkyPosition& position) {
    return std::isfinite(position.Ra) && std::fabs(position.Dec) <= std::numbers::pi / 2;
}

// ---- world coordinates ----

/// The part of a header's world coordinates that a hint needs.
struct LinearPart {
    double Tangent[2] = {};           ///< right ascension, declination, degrees
    double FromTangent[2] = {};       ///< the image's middle from there, degrees east and north
    double DegreesPerPixel = 0;       ///< mean of both directions
    std::string_view ProjectionCode;  ///< "TAN"
    std::string Matrix;               ///< the keywords of the scale
};

/// Reads the matrix from pixels to degrees. False when there is none, or when it is singular.
bool ReadMatrix(const CardValues& cards, double (&matrix)[2][2], std::string& keywords) {
    const char* const cd[2][2] = {{"CD1_1", "CD1_2"}, {"CD2_1", "CD2_2"}};
    const char* const pc[2][2] = {{"PC1_1", "PC1_2"}, {"PC2_1", "PC2_2"}};
    if (cards.Number("CD1_1") || cards.Number("CD2_1")) {
        keywords = "CD";
        for (int i = 0; i < 2; ++i) {
            for (int k = 0; k < 2; ++k) matrix[i][k] = cards.Number(cd[i][k]).value_or(0);
        }
    } else {
        keywords = "CDELT";
        const double delta[2] = {cards.Number("CDELT1").value_or(0),
                                 cards.Number("CDELT2").value_or(0)};
        const double turn =
            cards.Number("CROTA2").value_or(cards.Number("CROTA1").value_or(0)) * RadiansPerDegree;
        const bool hasPc = cards.Number("PC1_1") || cards.Number("PC2_1");
        const double rotation[2][2] = {
            {std::cos(turn), -std::sin(turn) * (delta[0] != 0 ? delta[1] / delta[0] : 0)},
            {std::sin(turn) * (delta[1] != 0 ? delta[0] / delta[1] : 0), std::cos(turn)}};
        for (int i = 0; i < 2; ++i) {
            for (int k = 0; k < 2; ++k) {
                const double part =
                    hasPc ? cards.Number(pc[i][k]).value_or(i == k ? 1 : 0) : rotation[i][k];
                matrix[i][k] = delta[i] * part;
            }
        }
    }
    const double determinant = matrix[0][0] * matrix[1][1] - matrix[0][1] * matrix[1][0];
    return std::isnormal(determinant);
}

std::optional<LinearPart> ReadWorldCoordinates(const CardValues& cards, const PlateImage& image) {
    LinearPart part;
    double matrix[2][2];
    const auto first = cards.Number("CRVAL1");
    const auto second = cards.Number("CRVAL2");
    if (!first || !second || !ReadMatrix(cards, matrix, part.Matrix)) return std::nullopt;
    std::string_view type = cards.Text("CTYPE1");
    // Declination may come first. Only equatorial coordinates can be used.
    const bool turned = type.starts_with("DEC");
    if (turned) type = cards.Text("CTYPE2");
    if (!type.starts_with("RA")) return std::nullopt;
    part.ProjectionCode = type.size() >= 8 ? type.substr(5, 3) : std::string_view("TAN");
    const double dx =
        (image.Width + 1) / 2.0 - cards.Number("CRPIX1").value_or((image.Width + 1) / 2.0);
    const double dy =
        (image.Height + 1) / 2.0 - cards.Number("CRPIX2").value_or((image.Height + 1) / 2.0);
    const double offset[2] = {matrix[0][0] * dx + matrix[0][1] * dy,
                              matrix[1][0] * dx + matrix[1][1] * dy};
    part.Tangent[0] = turned ? *second : *first;
    part.Tangent[1] = turned ? *first : *second;
    part.FromTangent[0] = offset[turned ? 1 : 0];
    part.FromTangent[1] = offset[turned ? 0 : 1];
    part.DegreesPerPixel =
        std::sqrt(std::fabs(matrix[0][0] * matrix[1][1] - matrix[0][1] * matrix[1][0]));
    return part;
}

/// The angular distance from the tangent point for a distance in the projection plane, both in
/// radians (Calabretta & Greisen 2002, A&A 395, 1077, section 5.1).
double DistanceInPlane(std::string_view projection, double r) {
    if (projection == "SIN") return std::asin(std::min(r, 1.0));
    if (projection == "ARC") return r;
    if (projection == "STG") return 2 * std::atan(r / 2);
    if (projection == "ZEA") return 2 * std::asin(std::min(r / 2, 1.0));
    return std::atan(r);  // TAN and its distorted forms; near the centre all projections agree
}

SkyPosition MiddleOf(const LinearPart& part) {
    const double east = part.FromTangent[0] * RadiansPerDegree;
    const double north = part.FromTangent[1] * RadiansPerDegree;
    const double r = std::hypot(east, north);
    const double ra0 = part.Tangent[0] * RadiansPerDegree;
    const double dec0 = part.Tangent[1] * RadiansPerDegree;
    if (r == 0) return {ra0, dec0};
    const double distance = DistanceInPlane(part.ProjectionCode, r);
    // On the orthographic plane the radius is the sine of the distance.
    const double stretch = std::sin(distance) / r;
    Projection plane;
    plane.SetProjectionCentre({ra0, dec0}, 1);
    const SkyPosition position = plane.PlaneToSky(-east * stretch, north * stretch);
    return position;
}

// ---- the lists ----

void AddCentre(PictureHints& hints, SkyPosition position, std::string source) {
    // The π of parsed angles is a little too large: 90° lies beyond the pole by 2e-10.
    constexpr double rounding = 1e-8;
    constexpr double pole = std::numbers::pi / 2;
    if (std::fabs(position.Dec) < pole + rounding)
        position.Dec = std::clamp(position.Dec, -pole, pole);
    if (!IsPosition(position)) return;
    position.Ra = std::fmod(position.Ra, fullCircle);
    if (position.Ra < 0) position.Ra += fullCircle;
    hints.Centres.push_back({position, std::move(source)});
}

void AddScale(PictureHints& hints, double arcsecondsPerPixel, std::string source) {
    // The range from planetary imaging to fish-eye lenses; values beyond it are no scales.
    if (!(arcsecondsPerPixel > 1e-3 && arcsecondsPerPixel < 3600.0 * 10)) return;
    hints.Scales.push_back({arcsecondsPerPixel, std::move(source)});
}

/// Texts with parts are hours and degrees, whatever separates them.
bool HasParts(std::string_view text) {
    return Trim(text).find_first_of(" :hHdD") != std::string_view::npos;
}

void AddPositionCards(PictureHints& hints, const CardValues& cards, const char* raKeyword,
                      const char* decKeyword) {
    const std::string_view raText = cards.Text(raKeyword);
    const std::string_view decText = cards.Text(decKeyword);
    if (raText.empty() || decText.empty()) return;
    const double dec = ParseDec(decText);
    if (dec == InvalidAngle) return;
    const std::string source = std::string(raKeyword) + " and " + decKeyword;
    if (HasParts(raText)) {
        const double ra = ParseRA(raText);
        if (ra != InvalidAngle) AddCentre(hints, {ra, dec}, source + ", as hours and degrees");
        return;
    }
    const auto number = ParseNumber(raText);
    if (!number || *number < -360 || *number > 360) return;
    AddCentre(hints, {*number * RadiansPerDegree, dec}, source + ", as degrees");
    if (*number >= 0 && *number < 24) {
        AddCentre(hints, {*number * 15 * RadiansPerDegree, dec},
                  source + ", with the first as hours");
    }
}

void AddWorldCoordinates(PictureHints& hints, const CardValues& cards, const PlateImage& image) {
    const auto part = ReadWorldCoordinates(cards, image);
    if (!part) return;
    SkyPosition middle = MiddleOf(*part);
    std::string source = "CRVAL, CRPIX and " + part->Matrix;
    const auto equinox = cards.Number("EQUINOX") ? cards.Number("EQUINOX") : cards.Number("EPOCH");
    const bool fixedFrame = cards.Text("RADESYS") == "ICRS";
    if (equinox && *equinox > 1800 && *equinox < 2200 && *equinox != 2000 && !fixedFrame) {
        middle = Precess(middle, EpochJulianDate(*equinox), J2000);
        source += ", precessed from " + NumberText(*equinox);
    }
    AddCentre(hints, middle, source);
    AddScale(hints, part->DegreesPerPixel * 3600, "the matrix " + part->Matrix);
}

void AddStoredSolution(PictureHints& hints, const PlateImage& image) {
    const auto solution = WorldCoordinatesOf(image);
    if (!solution) return;
    AddCentre(hints,
              {solution->Centre[0] * RadiansPerDegree, solution->Centre[1] * RadiansPerDegree},
              "the stored solution");
    const auto& cd = solution->Cd;
    AddScale(hints, 3600 * std::sqrt(std::fabs(cd[0][0] * cd[1][1] - cd[0][1] * cd[1][0])),
             "the stored solution");
}

void AddScaleCards(PictureHints& hints, const CardValues& cards) {
    for (const char* keyword :
         {"SECPIX", "SECPIX1", "PIXSCALE", "SCALE", "PIXSCAL1", "PLATESC", "CCDSCALE"}) {
        if (const auto scale = cards.Positive(keyword)) AddScale(hints, *scale, keyword);
    }
}

/// Adds scales from focal length and pixel size. The fields of `ImageHeader` serve formats whose
/// header lines are not FITS cards.
void AddOptics(PictureHints& hints, const CardValues& cards, const PlateImage& image) {
    const auto orField = [](std::optional<double> card, double field) {
        return card ? *card : std::max(field, 0.0);
    };
    const double focal = orField(cards.Positive("FOCALLEN"), image.Header.FocalLength);
    double pixel = orField(cards.Positive("XPIXSZ"), image.Header.XPixelSize);
    const char* name = "XPIXSZ";
    if (pixel == 0) {
        name = "PIXSIZE1";
        pixel = cards.Positive(name).value_or(0);
    }
    if (focal > 0 && pixel > 0) {
        const double scale = ExactArcsecondsPerRadian * pixel / 1000 / focal;
        const std::string source = std::string("FOCALLEN and ") + name;
        AddScale(hints, scale, source);
        const double binning =
            orField(cards.Positive("XBINNING"), static_cast<double>(image.Header.XBinning));
        if (binning > 1) AddScale(hints, scale * binning, source + ", times XBINNING");
    }
    // The diagonal of a frame of 36 x 24 mm.
    constexpr double diagonal = 43.26661530556787;
    if (const auto equal = cards.Positive("FOCLEN35")) {
        const double pixels = std::hypot(image.Width, image.Height);
        if (pixels > 0) {
            AddScale(hints, ExactArcsecondsPerRadian * diagonal / *equal / pixels,
                     "FOCLEN35, the focal length of an equal 35 mm camera");
        }
    }
}

/// Removes hints that repeat an earlier one.
void DropRepetitions(PictureHints& hints) {
    const auto sameScale = [](const ScaleHint& a, const ScaleHint& b) {
        return std::fabs(a.ArcsecondsPerPixel / b.ArcsecondsPerPixel - 1) < 0.01;
    };
    std::vector<ScaleHint> scales;
    for (ScaleHint& hint : hints.Scales) {
        if (std::none_of(scales.begin(), scales.end(),
                         [&](const ScaleHint& kept) { return sameScale(kept, hint); })) {
            scales.push_back(std::move(hint));
        }
    }
    hints.Scales = std::move(scales);
    const auto samePlace = [](const CentreHint& a, const CentreHint& b) {
        constexpr double near = 0.001;  // radians; well inside any field that is searched
        return std::hypot(
                   std::remainder(a.Centre.Ra - b.Centre.Ra, fullCircle) * std::cos(a.Centre.Dec),
                   a.Centre.Dec - b.Centre.Dec) < near;
    };
    std::vector<CentreHint> centres;
    for (CentreHint& hint : hints.Centres) {
        if (std::none_of(centres.begin(), centres.end(),
                         [&](const CentreHint& kept) { return samePlace(kept, hint); })) {
            centres.push_back(std::move(hint));
        }
    }
    hints.Centres = std::move(centres);
}

}  // namespace

PictureHints HintsOf(const PlateImage& image) {
    const CardValues cards(image.Header);
    PictureHints hints;
    AddStoredSolution(hints, image);
    AddWorldCoordinates(hints, cards, image);
    for (const auto& [ra, dec] : {std::pair{"OBJCTRA", "OBJCTDEC"},
                                  {"RA", "DEC"},
                                  {"RA_OBJ", "DEC_OBJ"},
                                  {"TELRA", "TELDEC"},
                                  {"CENTRA", "CENTDEC"},
                                  {"CENTERRA", "CENTERDE"},
                                  {"MOUNTRA", "MOUNTDEC"}}) {
        AddPositionCards(hints, cards, ra, dec);
    }
    AddScaleCards(hints, cards);
    AddOptics(hints, cards, image);
    DropRepetitions(hints);
    return hints;
}

bool IsMosaic(const PlateImage& image) {
    const CardValues cards(image.Header);
    const auto isPattern = [](std::string_view text) {
        constexpr std::size_t colours = 4;
        return text.size() == colours &&
               text.find_first_not_of("RGBCMYW") == std::string_view::npos &&
               text.find_first_not_of(text[0]) != std::string_view::npos;
    };
    constexpr std::array keywords{"BAYERPAT", "COLORTYP", "CFAPAT", "CFA-PAT"};
    return std::any_of(keywords.begin(), keywords.end(), [&](const char* keyword) {
        return isPattern(UpperCase(cards.Text(keyword)));
    });
}

std::pair<double, double> FieldOfScale(const PlateImage& image, double arcsecondsPerPixel) {
    const double radiansPerPixel = arcsecondsPerPixel / ExactArcsecondsPerRadian;
    return {image.Width * radiansPerPixel, image.Height * radiansPerPixel};
}

}  // namespace vestrel
