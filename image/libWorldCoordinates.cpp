#include "image/libWorldCoordinates.h"

#include <algorithm>
#include <cmath>

#include "astro/libMath.h"
#include "astro/libSphericalMath.h"
#include "image/libFitsCards.h"

namespace vestrel {

namespace {

constexpr double fullCircle = 360;

double InCircle(double degrees) {
    if (degrees >= 0 && degrees < fullCircle) return degrees;
    const double rest = std::fmod(degrees, fullCircle);
    return rest < 0 ? rest + fullCircle : rest;
}

/// In a pattern, "#" stands for a number, and "@" at the end for a capital letter or nothing: the
/// letter of an alternative coordinate description.
bool MatchesPattern(std::string_view text, std::string_view pattern) {
    const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
    for (const char c : pattern) {
        if (c == '@') return text.empty() || (text.size() == 1 && text[0] >= 'A' && text[0] <= 'Z');
        if (text.empty() || (c == '#' ? !isDigit(text.front()) : text.front() != c)) return false;
        do {
            text.remove_prefix(1);
        } while (c == '#' && !text.empty() && isDigit(text.front()));
    }
    return text.empty();
}

/// 1 when the rows of the grid run like those of the coordinates, −1 when they run the other way.
double Upward(const PlateImage& image, RowOrder rows) {
    const bool turns = rows == RowOrder::BottomUp ? FirstRowAtTop(image) : TurnedOver(image);
    return turns ? -1 : 1;
}

const char* RowRemark(RowOrder rows) {
    return rows == RowOrder::BottomUp
               ? "Rows count from the bottom of the picture up, the lowest one is row 1."
               : "Rows count as they lie in the file of the picture, the first one is row 1.";
}

}  // namespace

std::optional<WorldCoordinates> WorldCoordinatesOf(const PlateImage& image, RowOrder rows) {
    const ImageHeader& header = image.Header;
    if (!header.PlateMatched) return std::nullopt;
    const auto& map = header.PlateTransform;
    const double determinant = map[0][0] * map[1][1] - map[0][1] * map[1][0];
    const double degreesPerUnit = ExactDegreesPerRadian / header.PlateScale;
    if (!std::isnormal(determinant) || !std::isnormal(degreesPerUnit)) return std::nullopt;

    // The map from pixels to the plane; xi grows west.
    const double upward = Upward(image, rows);
    WorldCoordinates result;
    result.Cd[0][0] = -degreesPerUnit * map[1][1] / determinant;
    result.Cd[0][1] = degreesPerUnit * map[0][1] / determinant * upward;
    result.Cd[1][0] = -degreesPerUnit * map[1][0] / determinant;
    result.Cd[1][1] = degreesPerUnit * map[0][0] / determinant * upward;
    result.Crpix[0] = map[0][2] + 1;
    result.Crpix[1] = upward > 0 ? map[1][2] + 1 : image.Height - map[1][2];
    result.Crval[0] = InCircle(header.RaRef * ExactDegreesPerRadian);
    result.Crval[1] = std::remainder(header.DecRef * ExactDegreesPerRadian, fullCircle);

    const double dx = (image.Width + 1) / 2.0 - result.Crpix[0];
    const double dy = (image.Height + 1) / 2.0 - result.Crpix[1];
    Projection plane;
    plane.SetProjectionCentre({header.RaRef, header.DecRef}, ExactDegreesPerRadian);
    const auto [ra, dec] = plane.PlaneToSky(-(result.Cd[0][0] * dx + result.Cd[0][1] * dy),
                                            result.Cd[1][0] * dx + result.Cd[1][1] * dy);
    result.Centre[0] = InCircle(ra * ExactDegreesPerRadian);
    result.Centre[1] = dec * ExactDegreesPerRadian;
    // A search may end with a tangent point beyond a pole. The same point in valid coordinates lies
    // on the opposite meridian, where east and north point the other way.
    if (std::fabs(result.Crval[1]) > fullCircle / 4) {
        result.Crval[0] = InCircle(result.Crval[0] + fullCircle / 2);
        result.Crval[1] = std::copysign(fullCircle / 2, result.Crval[1]) - result.Crval[1];
        for (auto& row : result.Cd) {
            for (double& value : row) value = -value;
        }
    }
    for (const double value :
         {result.Crval[0], result.Crval[1], result.Cd[0][0], result.Cd[0][1], result.Cd[1][0],
          result.Cd[1][1], result.Crpix[0], result.Crpix[1], ra, dec}) {
        if (!std::isfinite(value)) return std::nullopt;
    }
    return result;
}

std::vector<std::string> WorldCoordinateCards(const WorldCoordinates& coordinates, RowOrder rows) {
    std::vector<std::string> cards = {
        FitsNumberCard("WCSAXES", 2, "world coordinates of pixels"),
        FitsTextCard("CTYPE1", "RA---SIN", "right ascension, orthographic"),
        FitsTextCard("CTYPE2", "DEC--SIN", "declination, orthographic"),
        FitsTextCard("CUNIT1", "deg"),
        FitsTextCard("CUNIT2", "deg"),
        FitsNumberCard("CRPIX1", coordinates.Crpix[0], "column of the tangent point, from 1"),
        FitsNumberCard("CRPIX2", coordinates.Crpix[1], "row of the tangent point, from 1"),
        FitsNumberCard("CRVAL1", coordinates.Crval[0], "[deg] tangent point"),
        FitsNumberCard("CRVAL2", coordinates.Crval[1], "[deg] tangent point"),
        FitsNumberCard("CD1_1", coordinates.Cd[0][0], "[deg] east per column"),
        FitsNumberCard("CD1_2", coordinates.Cd[0][1], "[deg] east per row"),
        FitsNumberCard("CD2_1", coordinates.Cd[1][0], "[deg] north per column"),
        FitsNumberCard("CD2_2", coordinates.Cd[1][1], "[deg] north per row"),
        FitsNumberCard("LONPOLE", 180, "[deg]"),
        FitsTextCard("RADESYS", "ICRS"),
        FitsNumberCard("EQUINOX", 2000, "[yr]")};
    for (const char* line :
         {"CRVAL and CRPIX are the tangent point, where the search began: it need",
          "not lie in the image. The image centre is NH_CRA, NH_CDEC.", RowRemark(rows)}) {
        for (std::string& card : FitsCommentCards(line)) cards.push_back(std::move(card));
    }
    cards.push_back(FitsNumberCard("NH_CRA", coordinates.Centre[0],
                                   "[deg] J2000 right ascension, image centre"));
    cards.push_back(FitsNumberCard("NH_CDEC", coordinates.Centre[1],
                                   "[deg] J2000 declination of the image centre"));
    return cards;
}

std::vector<std::string> WorldCoordinateCards(const PlateImage& image, const SkyModel& model,
                                              RowOrder rows) {
    const double upward = Upward(image, rows);
    const bool distorted = model.Distorted();
    const double ra = InCircle(model.Tangent.Ra * ExactDegreesPerRadian);
    const double dec = model.Tangent.Dec * ExactDegreesPerRadian;
    const auto cd = [&](int row, int column) {
        return model.Cd[row][column] * ExactDegreesPerRadian * (column == 1 ? upward : 1);
    };
    std::vector<std::string> cards = {
        FitsNumberCard("WCSAXES", 2, "world coordinates of pixels"),
        FitsTextCard("CTYPE1", distorted ? "RA---TAN-SIP" : "RA---TAN",
                     "right ascension, gnomonic"),
        FitsTextCard("CTYPE2", distorted ? "DEC--TAN-SIP" : "DEC--TAN", "declination, gnomonic"),
        FitsTextCard("CUNIT1", "deg"),
        FitsTextCard("CUNIT2", "deg"),
        FitsNumberCard("CRPIX1", (image.Width + 1) / 2.0, "column of the image centre, from 1"),
        FitsNumberCard("CRPIX2", (image.Height + 1) / 2.0, "row of the image centre, from 1"),
        FitsNumberCard("CRVAL1", ra, "[deg] image centre"),
        FitsNumberCard("CRVAL2", dec, "[deg] image centre"),
        FitsNumberCard("CD1_1", cd(0, 0), "[deg] east per column"),
        FitsNumberCard("CD1_2", cd(0, 1), "[deg] east per row"),
        FitsNumberCard("CD2_1", cd(1, 0), "[deg] north per column"),
        FitsNumberCard("CD2_2", cd(1, 1), "[deg] north per row"),
        FitsNumberCard("LONPOLE", 180, "[deg]"),
        FitsTextCard("RADESYS", "ICRS"),
        FitsNumberCard("EQUINOX", 2000, "[yr]")};
    const auto addPolynomial = [&](const std::string& name, const Polynomial& polynomial, int least,
                                   double sign, const char* comment) {
        cards.push_back(FitsNumberCard(name + "_ORDER", polynomial.Order, comment));
        for (int degree = least; degree <= polynomial.Order; ++degree) {
            for (int q = 0; q <= degree; ++q) {
                const double turned = q % 2 == 0 ? sign : sign * upward;
                cards.push_back(FitsNumberCard(
                    name + "_" + std::to_string(degree - q) + "_" + std::to_string(q),
                    polynomial.At(degree - q, q) * turned));
            }
        }
    };
    if (distorted) {
        addPolynomial("A", model.Distortion[0], 2, 1, "distortion of columns");
        addPolynomial("B", model.Distortion[1], 2, upward, "distortion of rows");
        addPolynomial("AP", model.InverseDistortion[0], 0, 1, "its inverse");
        addPolynomial("BP", model.InverseDistortion[1], 0, upward, "its inverse");
    }
    for (std::string& card : FitsCommentCards(RowRemark(rows))) {
        cards.push_back(std::move(card));
    }
    cards.push_back(FitsNumberCard("NH_CRA", ra, "[deg] J2000 right ascension, image centre"));
    cards.push_back(FitsNumberCard("NH_CDEC", dec, "[deg] J2000 declination of the image centre"));
    return cards;
}

bool IsStaleKeyword(std::string_view keyword) {
    static constexpr std::string_view stale[] = {
        "WCSAXES@", "WCSNAME@", "LONPOLE@", "LATPOLE@", "EQUINOX@", "RADESYS@", "CTYPE#@",
        "CUNIT#@", "CRVAL#@", "CRPIX#@", "CDELT#@", "CROTA#@", "CRDER#@", "CSYER#@", "CNAME#@",
        "CD#_#@", "CD#", "PC#_#@", "PV#_#@", "PS#_#@", "PC#", "RADECSYS", "EPOCH", "WCSDIM",
        "WAT#_#", "CPDIS#@", "CQDIS#@", "CPERR#@", "CQERR#@", "DP#@", "DQ#@", "DVERR@", "D2IMDIS#",
        "D2IMERR#", "D2IMEXT",
        // distortions, the sizes that go with them, and plates of the sky surveys
        "A_#_#", "B_#_#", "AP_#_#", "BP_#_#", "A_ORDER", "B_ORDER", "AP_ORDER", "BP_ORDER",
        "A_DMAX", "B_DMAX", "IMAGEW", "IMAGEH", "TR1_#", "TR2_#", "AMDX#", "AMDY#", "PPO#",
        "PLTRAH", "PLTRAM", "PLTRAS", "PLTDECSN", "PLTDECD", "PLTDECM", "PLTDECS",
        // Vestrel's own
        "IMAGESZX", "IMAGESZY"};
    return keyword.starts_with("NH_") ||
           std::any_of(std::begin(stale), std::end(stale), [keyword](std::string_view pattern) {
               return MatchesPattern(keyword, pattern);
           });
}

}  // namespace vestrel
