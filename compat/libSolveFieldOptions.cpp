#include "compat/libSolveFieldOptions.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <string_view>

#include "astro/libConversions.h"
#include "astro/libStrings.h"
#include "platform/libPlatform.h"

namespace vestrel {

namespace {

/// An option: its letter (0: none), its long name (empty: none), and whether a value follows.
struct KnownOption {
    char Letter;
    std::string_view Name;
    bool TakesValue;
};
constexpr KnownOption known[] = {
    {'h', "help", false},
    {0, "version", false},
    {'v', "verbose", false},
    {'D', "dir", true},
    {'o', "out", true},
    {'b', "backend-config", true},
    {0, "config", true},
    {0, "batch", false},
    {'f', "files-on-stdin", false},
    {'p', "no-plots", false},
    {0, "plot-scale", true},
    {0, "plot-bg", true},
    {'G', "use-wget", false},
    {'O', "overwrite", false},
    {'K', "continue", false},
    {'J', "skip-solved", false},
    {0, "fits-image", false},
    {'N', "new-fits", true},
    {'Z', "kmz", true},
    {'i', "scamp", true},
    {'n', "scamp-config", true},
    {'U', "index-xyls", true},
    {0, "just-augment", false},
    {0, "axy", true},
    {0, "temp-axy", false},
    {0, "timestamp", false},
    {'7', "no-delete-temp", false},
    {'L', "scale-low", true},
    {'H', "scale-high", true},
    {'u', "scale-units", true},
    {'8', "parity", true},
    {'c', "code-tolerance", true},
    {'E', "pixel-error", true},
    {'q', "quad-size-min", true},
    {'Q', "quad-size-max", true},
    {0, "odds-to-tune-up", true},
    {0, "odds-to-solve", true},
    {0, "odds-to-reject", true},
    {0, "odds-to-stop-looking", true},
    {0, "use-source-extractor", false},
    {0, "source-extractor-config", true},
    {0, "source-extractor-path", true},
    {'3', "ra", true},
    {'4', "dec", true},
    {'5', "radius", true},
    {'d', "depth", true},
    {0, "objs", true},
    {'l', "cpulimit", true},
    {'r', "resort", false},
    {'6', "extension", true},
    {0, "invert", false},
    {'z', "downsample", true},
    {0, "no-background-subtraction", false},
    {0, "sigma", true},
    {0, "nsigma", true},
    {'9', "no-remove-lines", false},
    {0, "uniformize", true},
    {0, "no-verify-uniformize", false},
    {0, "no-verify-dedup", false},
    {'C', "cancel", true},
    {'S', "solved", true},
    {'I', "solved-in", true},
    {'M', "match", true},
    {'R', "rdls", true},
    {0, "sort-rdls", true},
    {0, "tag", true},
    {0, "tag-all", false},
    {'j', "scamp-ref", true},
    {'B', "corr", true},
    {'W', "wcs", true},
    {'P', "pnm", true},
    {'k', "keep-xylist", true},
    {'A', "dont-augment", false},
    {'V', "verify", true},
    {0, "verify-ext", true},
    {'y', "no-verify", false},
    {'g', "guess-scale", false},
    {0, "crpix-center", false},
    {0, "crpix-x", true},
    {0, "crpix-y", true},
    {'T', "no-tweak", false},
    {'t', "tweak-order", true},
    {0, "predistort", true},
    {0, "xscale", true},
    {'m', "temp-dir", true},
    {'F', "fields", true},
    {'w', "width", true},
    {'e', "height", true},
    {'X', "x-column", true},
    {'Y', "y-column", true},
    {'s', "sort-column", true},
    {'a', "sort-ascending", false},
};

/// The option with a name, which may be abbreviated. Null, with a fault, when there is none or the
/// name is ambiguous.
const KnownOption* LongOption(std::string_view name, std::string& fault) {
    const KnownOption* found = nullptr;
    bool several = false;
    for (const KnownOption& option : known) {
        if (option.Name == name) return &option;
        if (!option.Name.starts_with(name)) continue;
        several = found != nullptr;
        found = &option;
    }
    if (several) {
        fault = "option '--" + std::string(name) + "' is ambiguous";
        return nullptr;
    }
    if (found == nullptr) fault = "unrecognized option '--" + std::string(name) + "'";
    return found;
}

const KnownOption* LetterOption(char letter, std::string& fault) {
    const auto* const found =
        std::find_if(std::begin(known), std::end(known),
                     [letter](const KnownOption& option) { return option.Letter == letter; });
    if (found != std::end(known) && letter != 0) return found;
    fault = std::string("invalid option -- '") + letter + "'";
    return nullptr;
}

/// Reads the values of options; invalid ones become a fault.
class Reader {
 public:
    explicit Reader(SolveFieldOptions& options) : options_(options) {}

    void Take(const KnownOption& option, const std::string& value) {
        const std::string_view name = option.Name;
        if (name == "help") options_.Help = true;
        if (name == "version") options_.Version = true;
        if (name == "overwrite") options_.Overwrite = true;
        if (name == "continue") options_.Continue = true;
        if (name == "skip-solved") options_.SkipSolved = true;
        if (name == "sort-ascending") options_.SortAscending = true;
        if (name == "crpix-center") options_.CentreIsReference = true;
        if (name == "no-tweak") options_.TweakOrder = 0;
        if (name == "dir") options_.Folder = value;
        if (name == "out") options_.Base = value;
        if (name == "wcs") options_.Wcs = value;
        if (name == "new-fits") options_.NewFits = value;
        if (name == "solved") options_.Solved = value;
        if (name == "cancel") options_.Cancel = value;
        if (name == "x-column") options_.XColumn = value;
        if (name == "y-column") options_.YColumn = value;
        if (name == "sort-column") options_.SortColumn = value;
        if (name == "scale-low") options_.ScaleLow = Positive(value, name);
        if (name == "scale-high") options_.ScaleHigh = Positive(value, name);
        if (name == "cpulimit") options_.TimeLimit = Positive(value, name).value_or(0);
        if (name == "width") options_.Width = Side(value, name);
        if (name == "height") options_.Height = Side(value, name);
        if (name == "radius") options_.Radius = Positive(value, name).value_or(0);
        if (name == "ra") ra_ = Angle(value, ParseRA(value), name);
        if (name == "dec") dec_ = Angle(value, ParseDec(value), name);
        if (name == "tweak-order") TakeOrder(value);
        if (name == "scale-units") TakeUnit(value);
        if (name == "parity") TakeParity(value);
    }

    void Finish() {
        if (ra_ && dec_) options_.Centre = SkyPosition{*ra_, *dec_};
    }

 private:
    void Refuse(std::string_view name, const std::string& value) {
        options_.Fault = "'" + value + "' is no value of --" + std::string(name);
    }
    std::optional<double> Positive(const std::string& value, std::string_view name) {
        const auto number = ParseNumber(value);
        // 0 means "unknown".
        if (number && std::isfinite(*number) && *number >= 0) {
            return *number > 0 ? number : std::nullopt;
        }
        Refuse(name, value);
        return std::nullopt;
    }
    int Side(const std::string& value, std::string_view name) {
        constexpr double longest = 32767;
        const auto number = Positive(value, name);
        if (!number) return 0;
        if (*number <= longest) return static_cast<int>(std::ceil(*number));
        Refuse(name, value);
        return 0;
    }
    std::optional<double> Angle(const std::string& value, double radians, std::string_view name) {
        if (radians != InvalidAngle) return radians;
        Refuse(name, value);
        return std::nullopt;
    }
    void TakeOrder(const std::string& value) {
        constexpr double highest = 10;
        const auto order = ParseNumber(value);
        if (!order || *order < 0 || *order > highest) {
            Refuse("tweak-order", value);
        } else {
            options_.TweakOrder = static_cast<int>(*order);
        }
    }
    void TakeUnit(std::string_view value) {
        struct UnitName {
            std::string_view Name;
            ScaleUnit Unit;
        };
        for (const UnitName& unit : {UnitName{"degwidth", ScaleUnit::DegreesWidth},
                                     {"degw", ScaleUnit::DegreesWidth},
                                     {"dw", ScaleUnit::DegreesWidth},
                                     {"arcminwidth", ScaleUnit::ArcminutesWidth},
                                     {"amw", ScaleUnit::ArcminutesWidth},
                                     {"aw", ScaleUnit::ArcminutesWidth},
                                     {"arcsecperpix", ScaleUnit::ArcsecondsPerPixel},
                                     {"app", ScaleUnit::ArcsecondsPerPixel},
                                     {"focalmm", ScaleUnit::FocalLength35mm}}) {
            if (unit.Name == value) {
                options_.Unit = unit.Unit;
                return;
            }
        }
        Refuse("scale-units", std::string(value));
    }
    void TakeParity(const std::string& value) {
        options_.Parity = value == "pos" ? 1 : value == "neg" ? -1 : 0;
        if (options_.Parity == 0) Refuse("parity", value);
    }

    SolveFieldOptions& options_;
    std::optional<double> ra_;
    std::optional<double> dec_;
};

}  // namespace

SolveFieldOptions ParseSolveFieldOptions(const std::vector<std::string>& arguments) {
    SolveFieldOptions options;
    Reader reader(options);
    std::string& fault = options.Fault;
    bool filesOnly = false;
    for (std::size_t i = 0; i < arguments.size() && fault.empty(); ++i) {
        const std::string& argument = arguments[i];
        const auto next = [&](const std::string& shown) {
            if (i + 1 < arguments.size()) return arguments[++i];
            fault = "option '" + shown + "' requires an argument";
            return std::string();
        };
        if (filesOnly || argument.size() < 2 || argument[0] != '-') {
            options.Inputs.push_back(argument);
        } else if (argument == "--") {
            filesOnly = true;
        } else if (argument[1] == '-') {
            const std::size_t equals = argument.find('=');
            const KnownOption* option = LongOption(
                argument.substr(2, equals == std::string::npos ? equals : equals - 2), fault);
            if (option == nullptr) break;
            std::string value;
            if (equals != std::string::npos) {
                value = argument.substr(equals + 1);
                if (!option->TakesValue) {
                    fault =
                        "option '--" + std::string(option->Name) + "' doesn't allow an argument";
                }
            } else if (option->TakesValue) {
                value = next("--" + std::string(option->Name));
            }
            if (fault.empty()) reader.Take(*option, value);
        } else {
            for (std::size_t at = 1; at < argument.size() && fault.empty(); ++at) {
                const KnownOption* option = LetterOption(argument[at], fault);
                if (option == nullptr) break;
                std::string value;
                if (option->TakesValue) {
                    value = at + 1 < argument.size() ? argument.substr(at + 1)
                                                     : next(std::string("-") + argument[at]);
                    at = argument.size();
                }
                if (fault.empty()) reader.Take(*option, value);
            }
        }
    }
    reader.Finish();
    return options;
}

const char* const SolveFieldUsage =
    "usage: solve-field [options] FILE...\n"
    "FILE is an image, or a FITS table of stars.\n"
    "  -3, --ra, -4, --dec, -5, --radius   centre and radius of the search, degrees\n"
    "  -L, --scale-low, -H, --scale-high, -u, --scale-units dw|aw|app|focalmm\n"
    "  -8, --parity pos|neg   -l, --cpulimit SECONDS   -C, --cancel FILE\n"
    "  -o, --out BASE   -D, --dir FOLDER   -W, --wcs FILE   -S, --solved FILE   -N, --new-fits "
    "FILE\n"
    "  --crpix-center   -t, --tweak-order N   -T, --no-tweak   -O, --overwrite   -J, "
    "--skip-solved\n"
    "  -w, --width, -e, --height, -X, --x-column, -Y, --y-column, -s, --sort-column,\n"
    "  -a, --sort-ascending   of a table of stars\n"
    "Solves as Vestrel does; other options of solve-field are taken and do nothing.\n";

std::string SolveFieldOutputPath(const SolveFieldOptions& options, const std::string& input,
                                 const std::string& named, const std::string& extension) {
    if (named == "none") return {};
    if (!named.empty()) return named;
    const std::filesystem::path folder = PathFromText(options.Folder);
    // A base name may contain dots.
    if (!options.Base.empty()) return TextFromPath(folder / PathFromText(options.Base + extension));
    std::filesystem::path path = PathFromText(input).replace_extension(extension);
    return TextFromPath(options.Folder.empty() ? path : folder / path.filename());
}

}  // namespace vestrel
