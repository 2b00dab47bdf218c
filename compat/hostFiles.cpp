#include "compat/hostFiles.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <system_error>

#include "astro/libMath.h"
#include "astro/libStrings.h"
#include "compat/libNumberFormats.h"
#include "image/libFitsCards.h"
#include "image/libWorldCoordinates.h"
#include "platform/libConsole.h"
#include "platform/libPlatform.h"

namespace vestrel {

namespace {

bool SpeaksOfLayout(std::string_view keyword) {
    if (keyword.starts_with("NAXIS")) return true;
    static constexpr std::string_view layout[] = {
        "SIMPLE",  "BITPIX", "BZERO",    "BSCALE",   "EXTEND",   "END",     "CONTINUE", "BLANK",
        "PCOUNT",  "GCOUNT", "GROUPS",   "XTENSION", "CHECKSUM", "DATASUM", "TFIELDS",  "INHERIT",
        "EXTNAME", "EXTVER", "LONGSTRN", "PLTSOLVD", "WARNING",  "ZIMAGE",  "ZCMPTYPE", "ZBITPIX"};
    return std::find(std::begin(layout), std::end(layout), keyword) != std::end(layout);
}

/// Whether a text continues in a CONTINUE card: it then ends with "&" and would be wrong alone.
bool GoesOn(std::string_view card) {
    return Trim(card).ends_with("&'");
}

void AddPolynomial(std::vector<std::string>& cards, const std::string& name,
                   const SipPolynomial& polynomial, int least) {
    cards.push_back(FitsNumberCard(name + "_ORDER", polynomial.Order));
    for (int degreeOfTerm = least; degreeOfTerm <= polynomial.Order; ++degreeOfTerm) {
        for (int q = 0; q <= degreeOfTerm; ++q) {
            const int p = degreeOfTerm - q;
            cards.push_back(FitsNumberCard(name + "_" + std::to_string(p) + "_" + std::to_string(q),
                                           polynomial.Terms[p][q]));
        }
    }
}

/// The text as a single line.
std::string OneLine(const std::string& text) {
    return WithoutControls(text);
}

}  // namespace

bool ClearResult(const std::string& path) {
    namespace fs = std::filesystem;
    const fs::path file = PathFromText(path);
    std::error_code error;
    const fs::file_type type = fs::symlink_status(file, error).type();
    if (type == fs::file_type::not_found) return true;
    if (type != fs::file_type::regular && type != fs::file_type::symlink) return false;
    fs::remove(file, error);
    if (error) fs::resize_file(file, 0, error);
    return !error;
}

ClassicGeometry ClassicGeometryOf(const SolverCoordinates& coordinates) {
    const auto& cd = coordinates.Cd;
    const double sign = cd[0][0] * cd[1][1] - cd[0][1] * cd[1][0] < 0 ? -1 : 1;
    ClassicGeometry classic;
    classic.Cdelt[0] = sign * std::hypot(cd[0][0], cd[0][1]);
    classic.Cdelt[1] = std::hypot(cd[1][0], cd[1][1]);
    classic.Crota[1] = std::atan2(sign * cd[1][0], cd[1][1]) / RadiansPerDegree;
    classic.Crota[0] =
        std::atan2(-cd[0][1] / (sign * classic.Cdelt[1]), cd[0][0] / classic.Cdelt[0]) /
        RadiansPerDegree;
    return classic;
}

std::string SolvedIniText(const SolverCoordinates& coordinates, const std::string& command,
                          const std::string& warning) {
    std::string text = "PLTSOLVD=T\n";
    const auto add = [&](const char* key, double value) {
        text.append(key).append("=").append(LongScientificText(value)).append("\n");
    };
    const ClassicGeometry classic = ClassicGeometryOf(coordinates);
    add("CRPIX1", coordinates.Crpix[0]);
    add("CRPIX2", coordinates.Crpix[1]);
    add("CRVAL1", coordinates.Crval[0]);
    add("CRVAL2", coordinates.Crval[1]);
    add("CDELT1", classic.Cdelt[0]);
    add("CDELT2", classic.Cdelt[1]);
    add("CROTA1", classic.Crota[0]);
    add("CROTA2", classic.Crota[1]);
    add("CD1_1", coordinates.Cd[0][0]);
    add("CD1_2", coordinates.Cd[0][1]);
    add("CD2_1", coordinates.Cd[1][0]);
    add("CD2_2", coordinates.Cd[1][1]);
    text += "CMDLINE=" + OneLine(command) + "\n";
    if (!warning.empty()) text += "WARNING=" + OneLine(warning) + "\n";
    return text;
}

std::string FailedIniText(const std::string& command, const std::string& error) {
    // There must be no blank line first: one reader would take the file for empty.
    return "PLTSOLVD=F\nCMDLINE=" + OneLine(command) + "\nERROR=" + OneLine(error) + "\n";
}

std::vector<std::string> HeaderCards(const HeaderContents& contents) {
    std::vector<std::string> cards = {FitsFlagCard("SIMPLE", true, "standard FITS"),
                                      FitsNumberCard("BITPIX", 8), FitsNumberCard("NAXIS", 0),
                                      FitsFlagCard("EXTEND", true)};
    for (const std::string& card : contents.PictureCards) {
        const std::string_view keyword = KeywordOfCard(card);
        if (SpeaksOfLayout(keyword) || IsStaleKeyword(keyword) || GoesOn(card)) continue;
        cards.push_back(card);
    }
    const std::vector<std::string> coordinates = CoordinateCards(contents);
    cards.insert(cards.end(), coordinates.begin(), coordinates.end());
    return cards;
}

std::vector<std::string> CoordinateCards(const HeaderContents& contents) {
    const SolverCoordinates& wcs = contents.Coordinates;
    const bool distorted = wcs.A.Order > 1 || wcs.B.Order > 1;
    std::vector<std::string> cards;
    const auto append = [&cards](const std::vector<std::string>& more) {
        cards.insert(cards.end(), more.begin(), more.end());
    };
    append({FitsNumberCard("WCSAXES", 2),
            FitsTextCard("CTYPE1", distorted ? "RA---TAN-SIP" : "RA---TAN"),
            FitsTextCard("CTYPE2", distorted ? "DEC--TAN-SIP" : "DEC--TAN"),
            FitsTextCard("CUNIT1", "deg"), FitsTextCard("CUNIT2", "deg"),
            FitsNumberCard("EQUINOX", 2000, "[yr]"), FitsNumberCard("LONPOLE", 180, "[deg]"),
            FitsNumberCard("LATPOLE", 0, "[deg]"),
            FitsNumberCard("CRPIX1", wcs.Crpix[0], "column of the image centre, from 1"),
            FitsNumberCard("CRPIX2", wcs.Crpix[1], "row of the image centre, from 1"),
            FitsNumberCard("CRVAL1", wcs.Crval[0], "[deg] image centre"),
            FitsNumberCard("CRVAL2", wcs.Crval[1], "[deg] image centre")});
    if (contents.Classic) {
        const ClassicGeometry classic = ClassicGeometryOf(wcs);
        append({FitsNumberCard("CDELT1", classic.Cdelt[0], "[deg] per column"),
                FitsNumberCard("CDELT2", classic.Cdelt[1], "[deg] per row"),
                FitsNumberCard("CROTA1", classic.Crota[0], "[deg]"),
                FitsNumberCard("CROTA2", classic.Crota[1], "[deg]")});
    }
    append({FitsNumberCard("CD1_1", wcs.Cd[0][0], "[deg] east per column"),
            FitsNumberCard("CD1_2", wcs.Cd[0][1], "[deg] east per row"),
            FitsNumberCard("CD2_1", wcs.Cd[1][0], "[deg] north per column"),
            FitsNumberCard("CD2_2", wcs.Cd[1][1], "[deg] north per row"),
            FitsNumberCard("IMAGEW", contents.Width, "columns of the image"),
            FitsNumberCard("IMAGEH", contents.Height, "rows of the image")});
    if (distorted) {
        AddPolynomial(cards, "A", wcs.A, 2);
        AddPolynomial(cards, "B", wcs.B, 2);
        AddPolynomial(cards, "AP", wcs.Ap, 0);
        AddPolynomial(cards, "BP", wcs.Bp, 0);
    }
    if (contents.Classic) cards.push_back(FitsFlagCard("PLTSOLVD", true, "solved by Vestrel"));
    if (!contents.Warning.empty()) cards.push_back(FitsTextCard("WARNING", contents.Warning));
    for (const std::string& comment : contents.Comments) append(FitsCommentCards(comment));
    return cards;
}

std::string HeaderLinesText(const std::vector<std::string>& cards) {
    std::string text;
    for (const std::string& card : cards) {
        std::string line = card.substr(0, FitsCardLength);
        line.erase(line.find_last_not_of(' ') + 1);
        text += line + "\n";
    }
    return text + "END\n";
}

}  // namespace vestrel
