#include "image/libFitsKeywords.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <utility>
#include <variant>

#include "astro/libMath.h"
#include "astro/libStrings.h"
#include "image/libFitsCards.h"

namespace vestrel {

namespace {

/// Where a keyword's value goes. A flag is "T" or "F". A `Negated` value is stored with its sign
/// changed. A `Quiet` value is ignored when it is not numeric.
struct Negated {
    std::int16_t ImageHeader::*Field;
};
struct Rounded {
    std::int16_t ImageHeader::*Field;
};
struct Quiet {
    double ImageHeader::*Field;
};
struct TransformCell {
    int Row;
    int Column;
};
struct HistoryText {};
using Target = std::variant<std::int16_t ImageHeader::*, std::int32_t ImageHeader::*,
                            double ImageHeader::*, std::string ImageHeader::*, bool ImageHeader::*,
                            Negated, Rounded, Quiet, TransformCell, HistoryText>;
struct KeywordTarget {
    std::string_view Keyword;
    Target Where;
};

const KeywordTarget* FindKeyword(std::string_view keyword) {
    using H = ImageHeader;
    static const KeywordTarget table[] = {
        {"NAXIS", &H::NAxis},
        {"NAXIS1", &H::NAxis1},
        {"NAXIS2", &H::NAxis2},
        {"BITPIX", &H::BitPix},
        {"BZERO", &H::BZero},
        {"BSCALE", &H::BScale},
        {"SIMPLE", &H::Simple},
        {"PEDESTAL", Rounded{&H::Pedestal}},
        {"BIAS", Negated{&H::Pedestal}},
        {"DATAMAX", &H::DataMax},
        {"OBJECT", &H::Object},
        {"TELESCOP", &H::Telescope},
        {"INSTRUME", &H::Instrument},
        {"OBSERVER", &H::Observer},
        {"DATE-OBS", &H::DateObs},
        {"HISTORY", HistoryText{}},
        {"EXPTIME", &H::ExposureTime},
        {"CCD-TEMP", &H::CcdTemperature},
        {"XPIXSZ", &H::XPixelSize},
        {"YPIXSZ", &H::YPixelSize},
        {"XBINNING", &H::XBinning},
        {"YBINNING", &H::YBinning},
        {"XORGSUBF", &H::XSubframeOrigin},
        {"YORGSUBF", &H::YSubframeOrigin},
        {"EGAIN", &H::ElectronGain},
        {"FOCALLEN", &H::FocalLength},
        {"APTDIA", &H::ApertureDiameter},
        {"APTAREA", &H::ApertureArea},
        {"CBLACK", &H::BlackLevel},
        {"CWHITE", &H::WhiteLevel},
        {"SWCREATE", &H::SoftwareCreate},
        {"SWMODIFY", &H::SoftwareModify},
        {"SBSTDVER", &H::SbigStandardVersion},
        {"FILTER", &H::Filter},
        {"OBJCTRA", &H::ObjectRA},
        {"OBJCTDEC", &H::ObjectDec},
        {"IMAGESZX", Quiet{&H::ImageSizeX}},
        {"IMAGESZY", Quiet{&H::ImageSizeY}},
        {"NH_PM", &H::PlateMatched},
        {"NH_RAREF", &H::RaRef},
        {"NH_DEREF", &H::DecRef},
        {"NH_PS", &H::PlateScale},
        {"NH_A", TransformCell{0, 0}},
        {"NH_B", TransformCell{0, 1}},
        {"NH_U0", TransformCell{0, 2}},
        {"NH_C", TransformCell{1, 0}},
        {"NH_D", TransformCell{1, 1}},
        {"NH_V0", TransformCell{1, 2}},
    };
    const auto* const found =
        std::find_if(std::begin(table), std::end(table),
                     [keyword](const KeywordTarget& entry) { return entry.Keyword == keyword; });
    return found == std::end(table) ? nullptr : found;
}

/// A card's keyword and value, both trimmed; the value ends before the first "/".
struct SplitCard {
    std::string Keyword;
    std::string_view Value;
};

SplitCard SplitHeaderCard(std::string_view card) {
    card = card.substr(0, FitsCardLength);
    const std::size_t equals = card.find('=');
    // Without "=" the keyword has 8 columns, and the value starts in column 10.
    const bool assigned = equals != std::string_view::npos;
    const std::size_t keywordLength = assigned ? equals : 8;
    const std::size_t valueStart = std::min(assigned ? equals + 1 : 9, card.size());
    const std::string_view value = card.substr(valueStart);
    return {UpperCase(Trim(card.substr(0, keywordLength))), Trim(value.substr(0, value.find('/')))};
}

/// Stores a card's value in its field.
struct StoreValue {
    ImageHeader& Header;
    std::string_view Keyword;
    std::string_view Value;
    std::string& Error;

    /// The value as a number; an error is set when it is not one.
    std::optional<double> Number() const {
        const auto number = ParseFitsNumber(Value);
        if (!number) Error = "Non-numeric " + std::string(Keyword) + " parameter";
        if (number && !std::isfinite(*number)) throw std::range_error("number too large");
        return number;
    }
    template <typename Integer>
    void Whole(Integer ImageHeader::*field, double sign) const {
        const auto number = Number();
        if (!number) return;
        bool fits = false;
        if constexpr (sizeof(Integer) == 2) {
            fits = RoundToInt16(sign * *number, Header.*field);
        } else {
            fits = RoundToInt32(sign * *number, Header.*field);
        }
        if (!fits) throw std::range_error("integer too large");
    }

    void operator()(std::int16_t ImageHeader::*field) const { Whole(field, 1); }
    void operator()(std::int32_t ImageHeader::*field) const { Whole(field, 1); }
    void operator()(Rounded rounded) const { Whole(rounded.Field, 1); }
    void operator()(Negated negated) const { Whole(negated.Field, -1); }
    void operator()(double ImageHeader::*field) const {
        if (const auto number = Number()) Header.*field = *number;
    }
    void operator()(Quiet quiet) const {
        (*this)(quiet.Field);
        Error.clear();
    }
    void operator()(TransformCell cell) const {
        if (const auto number = Number()) Header.PlateTransform[cell.Row][cell.Column] = *number;
    }
    void operator()(std::string ImageHeader::*field) const { Header.*field = Value; }
    void operator()(HistoryText) const { Header.History.append("|").append(Value); }
    void operator()(bool ImageHeader::*field) const {
        if (Value == "T") {
            Header.*field = true;
        } else if (Value == "F") {
            Header.*field = false;
        } else {
            Error = "Nonvalid " + std::string(Keyword) + " parameter";
        }
    }
};

}  // namespace

std::string ParseHeaderCard(std::string_view card, ImageHeader& header, std::string& error) {
    error.clear();
    SplitCard split = SplitHeaderCard(card);
    if (const KeywordTarget* target = FindKeyword(split.Keyword)) {
        std::visit(StoreValue{header, split.Keyword, split.Value, error}, target->Where);
    }
    return std::move(split.Keyword);
}

}  // namespace vestrel
