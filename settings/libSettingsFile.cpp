#include "settings/libSettingsFile.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <type_traits>

#include "astro/libStrings.h"

namespace vestrel {

namespace {

constexpr std::size_t folderBytes = 255;

/// Calls `visit` with each number of the record, in file order.
template <typename Parameters, typename Visit>
void ForEachNumber(Parameters& p, Visit visit) {
    visit(p.MaxStarSize);
    visit(p.MatchTolerance);
    visit(p.MatchDivisor);
    visit(p.DetectionThreshold);
    visit(p.EdgeExclusion);
    visit(p.MaxGeometricError);
    visit(p.MinStarSize);
    visit(p.MaxStars);
    visit(p.MaxError);
    visit(p.BackgroundRadius);
    visit(p.ApertureRadius);
    visit(p.FieldWidth);
    visit(p.FieldHeight);
    visit(p.SizeUnit);
}

/// The unsigned integer with a number's bits.
template <typename Number>
auto Bits(Number value) {
    if constexpr (std::is_same_v<Number, double>) {
        return std::bit_cast<std::uint64_t>(value);
    } else {
        return static_cast<std::make_unsigned_t<Number>>(value);
    }
}

template <typename Number>
void PutNumber(unsigned char*& out, Number value) {
    const auto bits = Bits(value);
    for (std::size_t i = 0; i < sizeof bits; ++i) {
        *out++ = static_cast<unsigned char>(bits >> (8 * i));
    }
}

template <typename Number>
void TakeNumber(const unsigned char*& in, Number& value) {
    decltype(Bits(value)) bits = 0;
    for (std::size_t i = 0; i < sizeof bits; ++i) {
        bits = static_cast<decltype(bits)>(bits | static_cast<decltype(bits)>(*in++) << (8 * i));
    }
    value = std::bit_cast<Number>(bits);
}

/// Blank-padded; a longer text is cut before the UTF-8 character that no longer fits.
void PutFolder(unsigned char*& out, const std::string& folder) {
    std::size_t length = folder.size();
    if (length > folderBytes) {
        length = folderBytes;
        while (length > 0 && (static_cast<unsigned char>(folder[length]) & 0xC0) == 0x80) --length;
    }
    std::fill_n(out, folderBytes, static_cast<unsigned char>(' '));
    std::copy_n(folder.begin(), length, out);
    out += folderBytes;
}

std::string TakeFolder(const unsigned char*& in) {
    const std::string_view text(reinterpret_cast<const char*>(in), folderBytes);
    in += folderBytes;
    // A zero byte cannot be part of a path, so the text ends there.
    return std::string(Trim(text.substr(0, text.find('\0'))));
}

}  // namespace

std::array<unsigned char, SettingsFileBytes> EncodeSettings(const SolveParameters& parameters) {
    std::array<unsigned char, SettingsFileBytes> bytes{};
    unsigned char* out = bytes.data();
    PutNumber(out, SettingsStamp);
    ForEachNumber(parameters, [&out](auto value) { PutNumber(out, value); });
    PutFolder(out, parameters.LastOpenFolder);
    PutFolder(out, parameters.LastSaveFolder);
    return bytes;
}

SettingsRead DecodeSettings(std::span<const unsigned char> bytes, SolveParameters& parameters) {
    constexpr std::size_t shortestStamped = 5;
    if (bytes.size() < shortestStamped) return SettingsRead::Absent;
    const unsigned char* in = bytes.data();
    std::int32_t stamp = 0;
    TakeNumber(in, stamp);
    if (stamp != SettingsStamp || bytes.size() < SettingsFileBytes) return SettingsRead::OutOfDate;

    SolveParameters read;
    bool finite = true;
    ForEachNumber(read, [&](auto& value) {
        TakeNumber(in, value);
        finite = finite && std::isfinite(static_cast<double>(value));
    });
    read.LastOpenFolder = TakeFolder(in);
    read.LastSaveFolder = TakeFolder(in);
    if (!finite) return SettingsRead::OutOfDate;
    parameters = std::move(read);
    return SettingsRead::Good;
}

}  // namespace vestrel
