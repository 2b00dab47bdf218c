#include "batch/libNightReport.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <limits>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "astro/libConversions.h"
#include "astro/libMath.h"
#include "astro/libStrings.h"
#include "batch/libJournal.h"
#include "platform/libConsole.h"
#include "platform/libFiles.h"
#include "platform/libPlatform.h"

namespace vestrel {

namespace {

/// The beginning of every page.
constexpr std::string_view firstWords = "<!DOCTYPE html>";

constexpr double notThere = std::numeric_limits<double>::quiet_NaN();

/// What the page shows of a picture; missing numbers are NaN.
struct Row {
    std::string Picture;
    std::string Observed;
    std::string End;
    std::string Reason;
    std::string CauseKind;  ///< of a failure, as in "trailed"; may be empty
    std::string Cause;      ///< with the evidence
    std::string Try;
    double Ra = notThere;   ///< degrees
    double Dec = notThere;  ///< degrees
    double Field = 0;       ///< shorter side, degrees
    double Scale = notThere;
    double Up = notThere;  ///< its position angle, degrees
    double Rms = notThere;
    double Stars = notThere;
    double Seconds = notThere;
    double East = notThere;   ///< arcseconds from the first picture of its target
    double North = notThere;  ///< arcseconds
    bool NewTarget = false;

    bool Solved() const { return End == "solved"; }
};

std::string TextAt(const nlohmann::ordered_json& line, const char* key) {
    const auto found = line.find(key);
    return found != line.end() && found->is_string() ? found->get<std::string>() : std::string();
}

double NumberAt(const nlohmann::ordered_json& line, const char* key) {
    const auto found = line.find(key);
    const double value =
        found != line.end() && found->is_number() ? found->get<double>() : notThere;
    constexpr double beyondAnyUse = 1e9;
    return std::fabs(value) < beyondAnyUse ? value : notThere;
}

/// The position angle of "up". Lines that older versions left in a journal have that of the rising
/// rows of the file, which point down in all pictures but FITS.
double UpAt(const nlohmann::ordered_json& line) {
    const double up = NumberAt(line, "up_position_angle_deg");
    if (std::isfinite(up)) return up;
    const double rows = NumberAt(line, "rotation_deg");
    return TextAt(line, "format") == "FITS" ? rows : std::fmod(rows + 180, 360);
}

Row RowOf(const nlohmann::ordered_json& line) {
    Row row;
    row.Picture = TextAt(line, "picture");
    row.Observed = TextAt(line, "observed_at");
    row.End = TextAt(line, "end");
    row.Reason = TextAt(line, "reason");
    if (const auto cause = line.find("cause"); cause != line.end() && cause->is_object()) {
        row.CauseKind = TextAt(*cause, "kind");
        std::replace(row.CauseKind.begin(), row.CauseKind.end(), '_', ' ');
        row.Cause = TextAt(*cause, "text");
        row.Try = TextAt(*cause, "try");
    }
    row.Ra = NumberAt(line, "ra_deg");
    row.Dec = NumberAt(line, "dec_deg");
    row.Field = std::min(NumberAt(line, "width_deg"), NumberAt(line, "height_deg"));
    row.Scale = NumberAt(line, "scale_arcsec_px");
    row.Up = UpAt(line);
    row.Rms = NumberAt(line, "rms_px");
    row.Stars = NumberAt(line, "stars_matched");
    const auto seconds = line.find("seconds");
    if (seconds != line.end() && seconds->is_object()) row.Seconds = NumberAt(*seconds, "total");
    return row;
}

/// Groups pictures into targets, which are pictures within half a field of the first one, and finds
/// their drift.
void FindDrift(std::vector<Row>& rows) {
    const Row* first = nullptr;
    double lastUp = 0;
    for (Row& row : rows) {
        if (!row.Solved() || !std::isfinite(row.Ra) || !std::isfinite(row.Dec)) continue;
        const auto place = [&row](const Row& from) {
            const double ra = std::remainder(row.Ra - from.Ra, 360);
            return std::pair{ra * std::cos(from.Dec * RadiansPerDegree), row.Dec - from.Dec};
        };
        if (first != nullptr) {
            const auto [east, north] = place(*first);
            if (!(std::hypot(east, north) < first->Field / 2)) first = nullptr;
        }
        if (first == nullptr) {
            first = &row;
            row.NewTarget = true;
        }
        constexpr double arcseconds = 3600;
        const auto [east, north] = place(*first);
        row.East = east * arcseconds;
        row.North = north * arcseconds;
        // Keeps the curve continuous across 0°.
        if (std::isfinite(row.Up)) {
            row.Up = lastUp + std::remainder(row.Up - lastUp, 360);
            lastUp = row.Up;
        }
    }
}

std::string Escaped(const std::string& text) {
    std::string safe;
    for (const char c : WithoutControls(text)) {
        switch (c) {
            case '&':
                safe += "&amp;";
                break;
            case '<':
                safe += "&lt;";
                break;
            case '>':
                safe += "&gt;";
                break;
            case '"':
                safe += "&quot;";
                break;
            case '\'':
                safe += "&#39;";
                break;
            default:
                safe += c;
        }
    }
    return safe;
}

std::string Fixed(double value, int decimals) {
    if (!std::isfinite(value)) return {};
    char text[64];
    const int length = std::snprintf(text, sizeof text, "%.*f", decimals, value);
    return {text, static_cast<std::size_t>(std::clamp<int>(length, 0, sizeof text - 1))};
}

struct Curve {
    const char* Name;
    const char* Colour;
    double Row::*Value;
};

// Pixels of the drawing.
constexpr double plotWidth = 900;
constexpr double plotHeight = 200;
constexpr double leftMargin = 70;
constexpr double plotMargin = 20;

double PlaceOf(std::size_t picture, std::size_t pictures) {
    const double last = std::max<double>(1, static_cast<double>(pictures) - 1);
    return leftMargin + (plotWidth - leftMargin - plotMargin) * static_cast<double>(picture) / last;
}

/// A round step that divides a range into three to eight.
double StepFor(double range) {
    const double rough = range / 5;
    const double power = std::pow(10, std::floor(std::log10(rough)));
    for (const double factor : {1.0, 2.0, 5.0}) {
        if (factor * power >= rough) return factor * power;
    }
    return 10 * power;
}

/// A plot over the pictures in their order; empty when there is nothing to show.
std::string Plot(const std::vector<Row>& rows, const std::string& title, double leastRange,
                 const std::vector<Curve>& curves) {
    double least = std::numeric_limits<double>::infinity();
    double greatest = -least;
    for (const Row& row : rows) {
        for (const Curve& curve : curves) {
            const double value = row.*curve.Value;
            if (!std::isfinite(value)) continue;
            least = std::min(least, value);
            greatest = std::max(greatest, value);
        }
    }
    if (!(least <= greatest)) return {};
    const double room = std::max(leastRange, (greatest - least) * 1.1) - (greatest - least);
    least -= room / 2;
    greatest += room / 2;
    const auto height = [&](double value) {
        return plotHeight - plotMargin -
               (plotHeight - 2 * plotMargin) * (value - least) / (greatest - least);
    };
    std::string svg = "<svg viewBox=\"0 0 " + Fixed(plotWidth, 0) + " " + Fixed(plotHeight, 0) +
                      "\" role=\"img\"><title>" + Escaped(title) + "</title>\n";
    const double step = StepFor(greatest - least);
    const int decimals = std::max(0, static_cast<int>(std::ceil(-std::log10(step) - 1e-9)));
    const auto firstTick = static_cast<long>(std::ceil(least / step));
    const auto lastTick = static_cast<long>(std::floor(greatest / step));
    for (long number = firstTick; number <= lastTick; ++number) {
        const double tick = static_cast<double>(number) * step;
        const std::string y = Fixed(height(tick), 1);
        svg.append("<path class=\"grid\" d=\"M" + Fixed(leftMargin, 0) + " ")
            .append(y + "H" + Fixed(plotWidth - plotMargin, 0) + "\"/><text x=\"")
            .append(Fixed(leftMargin - 6, 0) + "\" y=\"" + y + "\" class=\"tick\">")
            .append(Fixed(tick + 0.0, decimals) + "</text>\n");
    }
    for (std::size_t i = 1; i < rows.size(); ++i) {
        if (!rows[i].NewTarget) continue;
        svg += "<path class=\"target\" d=\"M" + Fixed(PlaceOf(i, rows.size()) - 1, 1) + " " +
               Fixed(plotMargin, 0) + "V" + Fixed(plotHeight - plotMargin, 0) + "\"/>\n";
    }
    for (const Curve& curve : curves) {
        svg += std::string("<path class=\"dots\" stroke=\"") + curve.Colour + "\" d=\"";
        for (std::size_t i = 0; i < rows.size(); ++i) {
            const double value = rows[i].*curve.Value;
            if (!std::isfinite(value)) continue;
            svg += "M" + Fixed(PlaceOf(i, rows.size()), 1) + " " + Fixed(height(value), 1) + "h0";
        }
        svg += "\"/>\n";
    }
    std::string legend;
    for (const Curve& curve : curves) {
        if (curves.size() < 2) break;
        legend += std::string(" <span style=\"color:") + curve.Colour + "\">&#9679; " + curve.Name +
                  "</span>";
    }
    return "<h2>" + Escaped(title) + legend + "</h2>\n" + svg + "</svg>\n";
}

/// A strip that shows which pictures were solved.
std::string Strip(const std::vector<Row>& rows) {
    std::string svg = "<h2>Solved and not</h2>\n<svg viewBox=\"0 0 " + Fixed(plotWidth, 0) +
                      " 40\" role=\"img\"><title>Solved and not</title>\n";
    for (const bool solved : {true, false}) {
        svg += std::string("<path stroke-width=\"2\" stroke=\"") +
               (solved ? "#2a9d5c" : "#d1353f") + "\" d=\"";
        for (std::size_t i = 0; i < rows.size(); ++i) {
            if (rows[i].Solved() != solved) continue;
            svg += "M" + Fixed(PlaceOf(i, rows.size()), 1) + (solved ? " 18v16" : " 4v30");
        }
        svg += "\"/>\n";
    }
    return svg + "</svg>\n";
}

constexpr const char* head =
    "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">\n"
    "<meta name=\"viewport\" content=\"width=device-width\">\n"
    "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; style-src "
    "'unsafe-inline'\">\n"
    "<title>Vestrel: a night</title>\n<style>\n"
    "body{font:14px system-ui,sans-serif;margin:2em auto;max-width:75em;padding:0 1em;"
    "color:#222;background:#fff}\n"
    "h1{font-size:1.5em}h2{font-size:1em;margin:1.5em 0 .3em}\n"
    "svg{width:100%;height:auto;display:block}.grid{stroke:#8884;fill:none}"
    ".target{stroke:#888a;stroke-dasharray:3 3;fill:none}\n"
    ".dots{fill:none;stroke-width:4;stroke-linecap:round}"
    ".tick{font-size:11px;text-anchor:end;dominant-baseline:middle;fill:currentColor}\n"
    "table{border-collapse:collapse;width:100%;font-variant-numeric:tabular-nums}\n"
    "th,td{text-align:left;padding:.2em .5em;border-bottom:1px solid #8884;vertical-align:top}\n"
    "td.n,th.n{text-align:right;white-space:nowrap}.failed td{color:#c22f3a}\n"
    "td.p{overflow-wrap:anywhere;min-width:11em}.w{overflow-x:auto}\n"
    "@media(prefers-color-scheme:dark){body{color:#ddd;background:#16181c}"
    ".failed td{color:#ff7a82}}\n"
    "</style></head><body>\n";

/// "one 3, other 2" as HTML, without the name `left`.
std::string Counted(const std::map<std::string, std::size_t>& counts, const std::string& left) {
    std::string list;
    for (const auto& [name, count] : counts) {
        if (name == left) continue;
        list += (list.empty() ? "" : ", ") + Escaped(name) + " " + std::to_string(count);
    }
    return list;
}

std::string Summary(const std::vector<Row>& rows) {
    std::map<std::string, std::size_t> ends;
    std::map<std::string, std::size_t> causes;
    double seconds = 0;
    for (const Row& row : rows) {
        ++ends[row.End];
        if (!row.Solved()) ++causes[row.CauseKind];
        if (std::isfinite(row.Seconds)) seconds += row.Seconds;
    }
    const std::size_t solved = ends["solved"];
    std::string text = "<h1>" + std::to_string(solved) + " of " + std::to_string(rows.size()) +
                       " pictures solved</h1>\n<p>";
    const std::string failed = Counted(ends, "solved");
    if (!failed.empty()) text += "Not solved: " + failed + ". ";
    const std::string why = Counted(causes, "");
    if (!why.empty()) text += "Likely causes: " + why + ". ";
    if (!rows.empty()) {
        text += Fixed(seconds / static_cast<double>(rows.size()), 2) + " s a picture in the mean.";
    }
    return text + "</p>\n";
}

/// How a picture ended, why, and what to do about it, as HTML.
std::string Result(const Row& row) {
    std::string html = Escaped(row.Reason.empty() ? row.End : row.End + ": " + row.Reason);
    for (const std::string& text : {row.Cause, row.Try.empty() ? "" : "Try: " + row.Try}) {
        if (!text.empty()) html += "<br>" + Escaped(text);
    }
    return html;
}

std::string Table(const std::vector<Row>& rows) {
    std::string html =
        "<h2>Pictures</h2>\n<div class=\"w\"><table>\n<tr><th class=\"n\">#</th><th>Picture</th>"
        "<th>Observed</th><th>Result</th><th class=\"n\">RA</th><th class=\"n\">Dec</th>"
        "<th class=\"n\">Scale \"/px</th><th class=\"n\">Up &deg;</th>"
        "<th class=\"n\">Stars</th><th class=\"n\">RMS px</th><th class=\"n\">Time s</th></tr>\n";
    const auto number = [](const std::string& text) { return "<td class=\"n\">" + text + "</td>"; };
    std::size_t count = 0;
    for (const Row& row : rows) {
        const bool placed = std::isfinite(row.Ra) && std::isfinite(row.Dec);
        const double turned = std::remainder(row.Up, 360);
        html += std::string(row.Solved() ? "<tr>" : "<tr class=\"failed\">") +
                number(std::to_string(++count)) + "<td class=\"p\" title=\"" +
                Escaped(row.Picture) + "\">" +
                Escaped(row.Picture.substr(LastFolderSeparator(row.Picture) + 1)) + "</td><td>" +
                Escaped(row.Observed) + "</td><td>" + Result(row) + "</td>" +
                number(placed ? Escaped(FormatRA(row.Ra * RadiansPerDegree, true, 1)) : "") +
                number(placed ? Escaped(FormatDec(row.Dec * RadiansPerDegree, true, 0)) : "") +
                number(Fixed(row.Scale, 3)) + number(Fixed(turned < 0 ? turned + 360 : turned, 2)) +
                number(Fixed(row.Stars, 0)) + number(Fixed(row.Rms, 2)) +
                number(Fixed(row.Seconds, 2)) + "</tr>\n";
    }
    return html + "</table></div>\n";
}

}  // namespace

bool MayHoldReport(const std::filesystem::path& page, const std::filesystem::path& journal) {
    namespace fs = std::filesystem;
    std::error_code ignored;
    if (fs::equivalent(page, journal, ignored) ||
        fs::weakly_canonical(page, ignored) == fs::weakly_canonical(journal, ignored)) {
        return false;
    }
    if (!fs::is_regular_file(page, ignored)) return true;
    std::ifstream in(page, std::ios::binary);
    std::string start(firstWords.size(), '\0');
    in.read(start.data(), static_cast<std::streamsize>(start.size()));
    start.resize(static_cast<std::size_t>(in.gcount()));
    return start.empty() || start == firstWords;
}

void WriteNightReport(const std::filesystem::path& journal, const std::filesystem::path& page) {
    std::error_code ignored;
    if (!std::filesystem::exists(journal, ignored)) {
        throw std::runtime_error("There is no journal " + TextFromPath(journal) + ".");
    }
    // A picture may have come there since the night began.
    if (!MayHoldReport(page, journal)) {
        throw std::runtime_error("The report " + TextFromPath(page) +
                                 " would replace a file of another kind.");
    }
    std::vector<Row> rows;
    ReadJournal(journal, [&rows](const auto& line) { rows.push_back(RowOf(line)); });
    const bool timed =
        std::all_of(rows.begin(), rows.end(), [](const Row& row) { return !row.Observed.empty(); });
    if (timed) {
        std::stable_sort(rows.begin(), rows.end(), [](const Row& one, const Row& other) {
            return one.Observed < other.Observed;
        });
    }
    FindDrift(rows);
    std::string html = head + Summary(rows);
    if (!rows.empty()) html += Strip(rows);
    html += Plot(rows, "Pointing from the first picture of each target, arcseconds", 1,
                 {{"east", "#2f7ed8", &Row::East}, {"north", "#e08a1e", &Row::North}});
    html += Plot(rows, "Scale, arcseconds per pixel", 1e-4, {{"scale", "#2f7ed8", &Row::Scale}});
    html += Plot(rows, "Up, degrees east of north", 0.1, {{"up", "#2f7ed8", &Row::Up}});
    html += Table(rows) + "</body></html>\n";
    if (!ReplaceFile(page, html)) {
        throw std::runtime_error("The report " + TextFromPath(page) + " cannot be written.");
    }
}

}  // namespace vestrel
