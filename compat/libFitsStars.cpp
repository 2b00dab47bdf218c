#include "compat/libFitsStars.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <string_view>

#include "astro/libStrings.h"
#include "image/libFitsCards.h"

namespace vestrel {

namespace {

/// More stars than any list for a solve has; the limit stops forged tables.
constexpr std::size_t mostStars = 1'000'000;

/// A header, and where the data after it begin.
struct Header {
    std::vector<std::string> Cards;  ///< without END
    std::size_t DataStart = 0;

    std::string Text(std::string_view keyword) const {
        for (const std::string& card : Cards) {
            if (KeywordOfCard(card) != keyword || card[8] != '=') continue;
            std::string_view value = ValueOfCard(card);
            if (value.starts_with('\'')) {
                value.remove_prefix(1);
                value = value.substr(0, value.find('\''));
            }
            return std::string(Trim(value));
        }
        return {};
    }
    std::optional<double> Number(std::string_view keyword) const {
        const auto number = ParseFitsNumber(Text(keyword));
        return number && std::isfinite(*number) ? number : std::nullopt;
    }
    /// A whole number from 0 on that can be a size.
    std::optional<std::size_t> Count(std::string_view keyword) const {
        constexpr double largest = 1e12;
        const auto number = Number(keyword);
        if (!number || *number < 0 || *number > largest || *number != std::floor(*number)) {
            return std::nullopt;
        }
        return static_cast<std::size_t>(*number);
    }
};

std::optional<Header> ReadHeader(std::span<const unsigned char> bytes, std::size_t start) {
    Header header;
    for (std::size_t at = start; at + FitsCardLength <= bytes.size(); at += FitsCardLength) {
        std::string card(FitsCardLength, ' ');
        std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(at), FitsCardLength, card.begin());
        if (KeywordOfCard(card) == "END") {
            const std::size_t length = at + FitsCardLength - start;
            header.DataStart = start + WholeFitsBlocks(length);
            return header;
        }
        header.Cards.push_back(std::move(card));
    }
    return std::nullopt;
}

/// The primary header and that of the first extension, when it is a binary table.
struct TableHeaders {
    Header Primary;
    Header Table;
};
std::optional<TableHeaders> ReadTableHeaders(std::span<const unsigned char> bytes) {
    auto primary = ReadHeader(bytes, 0);
    if (!primary || primary->Cards.empty() || !primary->Cards.front().starts_with("SIMPLE  =") ||
        primary->Count("NAXIS") != 0) {
        return std::nullopt;
    }
    auto table = ReadHeader(bytes, primary->DataStart);
    if (!table || table->Text("XTENSION") != "BINTABLE") return std::nullopt;
    return TableHeaders{std::move(*primary), std::move(*table)};
}

struct Column {
    std::string Name;  ///< in capitals
    char Type = 0;
    std::size_t Offset = 0;  ///< in a row
    double Scale = 1;
    double Zero = 0;
};

std::size_t BytesOf(char type) {
    switch (type) {
        case 'L':
        case 'B':
        case 'A':
        case 'X':
            return 1;
        case 'I':
            return 2;
        case 'J':
        case 'E':
            return 4;
        case 'K':
        case 'D':
        case 'C':
        case 'P':
            return 8;
        case 'M':
        case 'Q':
            return 16;
        default:
            return 0;
    }
}

/// The columns of a table; nothing when a format is not valid.
std::optional<std::vector<Column>> ReadColumns(const Header& table) {
    constexpr std::size_t most = 999;
    const auto count = table.Count("TFIELDS");
    if (!count || *count > most) return std::nullopt;
    std::vector<Column> columns;
    std::size_t offset = 0;
    for (std::size_t i = 1; i <= *count; ++i) {
        const std::string number = std::to_string(i);
        const std::string format = table.Text("TFORM" + number);
        const std::size_t letter = format.find_first_not_of("0123456789");
        constexpr std::size_t mostDigits = 9;
        if (letter > mostDigits) return std::nullopt;  // also when there is none
        const std::size_t repeat =
            letter == 0 ? 1 : static_cast<std::size_t>(std::stoul(format.substr(0, letter)));
        const char type = format[letter];
        const std::size_t bytes = type == 'X' ? (repeat + 7) / 8 : repeat * BytesOf(type);
        if (BytesOf(type) == 0) return std::nullopt;
        Column column{UpperCase(table.Text("TTYPE" + number)), repeat > 0 ? type : '\0', offset,
                      table.Number("TSCAL" + number).value_or(1),
                      table.Number("TZERO" + number).value_or(0)};
        columns.push_back(std::move(column));
        offset += bytes;
    }
    return columns;
}

double NumberAt(const Column& column, const unsigned char* row) {
    const unsigned char* at = row + column.Offset;
    std::uint64_t bits = 0;
    for (std::size_t i = 0; i < BytesOf(column.Type); ++i) bits = bits << 8 | at[i];
    double value = std::nan("");
    switch (column.Type) {
        case 'B':
            value = static_cast<double>(bits);
            break;
        case 'I':
            value = static_cast<std::int16_t>(bits);
            break;
        case 'J':
            value = static_cast<std::int32_t>(bits);
            break;
        case 'K':
            value = static_cast<double>(static_cast<std::int64_t>(bits));
            break;
        case 'E':
            value = double{std::bit_cast<float>(static_cast<std::uint32_t>(bits))};
            break;
        case 'D':
            value = std::bit_cast<double>(bits);
            break;
        default:
            break;
    }
    return value * column.Scale + column.Zero;
}

const Column* ColumnOf(const std::vector<Column>& columns, const std::string& wanted,
                       std::initializer_list<std::string_view> usual) {
    const auto find = [&](std::string_view name) -> const Column* {
        const auto found = std::find_if(columns.begin(), columns.end(),
                                        [&](const Column& column) { return column.Name == name; });
        return found == columns.end() ? nullptr : &*found;
    };
    if (!wanted.empty()) return find(UpperCase(wanted));
    for (const std::string_view name : usual) {
        if (const Column* column = find(name)) return column;
    }
    return nullptr;
}

}  // namespace

bool HoldsStarTable(std::span<const unsigned char> bytes) {
    return ReadTableHeaders(bytes).has_value();
}

std::optional<FitsStars> ReadFitsStars(std::span<const unsigned char> bytes,
                                       const StarColumns& columns, std::string& fault) {
    const auto headers = ReadTableHeaders(bytes);
    fault = "This is no FITS table.";
    if (!headers) return std::nullopt;
    const Header& table = headers->Table;
    const auto rowBytes = table.Count("NAXIS1");
    const auto rows = table.Count("NAXIS2");
    const auto all = ReadColumns(table);
    fault = "The table's header is damaged.";
    if (!rowBytes || !rows || *rowBytes == 0 || !all) return std::nullopt;
    const Column* const x = ColumnOf(*all, columns.X, {"X", "X_IMAGE", "XIMAGE"});
    const Column* const y = ColumnOf(*all, columns.Y, {"Y", "Y_IMAGE", "YIMAGE"});
    // A list without the column to sort by is already in order.
    const Column* const sort =
        ColumnOf(*all, columns.Sort,
                 columns.Sort.empty() ? std::initializer_list<std::string_view>{"FLUX"}
                                      : std::initializer_list<std::string_view>{});
    fault = "The table has no columns for X and Y.";
    if (x == nullptr || y == nullptr) return std::nullopt;
    fault = "The table ends before its rows do.";
    for (const Column* column : {x, y, sort}) {
        if (column != nullptr && column->Offset + BytesOf(column->Type) > *rowBytes) {
            return std::nullopt;
        }
    }
    if (headers->Table.DataStart > bytes.size() ||
        *rows > (bytes.size() - headers->Table.DataStart) / *rowBytes) {
        return std::nullopt;
    }
    FitsStars result;
    const unsigned char* row = bytes.data() + headers->Table.DataStart;
    for (std::size_t i = 0; i < std::min(*rows, mostStars); ++i, row += *rowBytes) {
        ListedStar star{NumberAt(*x, row), NumberAt(*y, row), -static_cast<double>(i)};
        if (sort != nullptr) star.Rank = NumberAt(*sort, row) * (columns.Ascending ? -1 : 1);
        if (!std::isfinite(star.X) || !std::isfinite(star.Y) || !std::isfinite(star.Rank)) continue;
        result.Width = std::max(result.Width, std::ceil(star.X));
        result.Height = std::max(result.Height, std::ceil(star.Y));
        result.Stars.push_back(star);
    }
    for (const Header* header : {&headers->Primary, &table}) {
        result.Cards.insert(result.Cards.end(), header->Cards.begin(), header->Cards.end());
        result.Width = header->Number("IMAGEW").value_or(result.Width);
        result.Height = header->Number("IMAGEH").value_or(result.Height);
    }
    fault.clear();
    return result;
}

}  // namespace vestrel
