#include "tests/starSources.h"

#include <cmath>
#include <cstdint>
#include <numbers>

namespace vestrel {

namespace {

constexpr double radiansPerDegree = std::numbers::pi / 180;

}  // namespace

std::string AstapFile(const std::vector<SkyStar>& stars, int recordBytes) {
    std::string file(109, ' ');
    file += static_cast<char>(recordBytes);
    int block = INT32_MIN;
    const auto put = [&file](int value) { file += static_cast<char>(value & 255); };
    const auto end = [&] {
        if (recordBytes == 6) put(12);
    };
    for (const auto& [ra, dec, mag] : stars) {
        const int ra24 = static_cast<int>(std::lround(ra / (2 * std::numbers::pi) * 16777215));
        const int dec24 = static_cast<int>(std::lround(dec / (90 * radiansPerDegree) * 8388607));
        const int tenths = static_cast<int>(std::lround(mag * 10));
        const int high = dec24 >> 16;
        if (tenths * 1000 + high != block) {
            block = tenths * 1000 + high;
            for (int i = 0; i < 3; ++i) put(255);
            put(high + 128);
            put(tenths + 16);
            end();
        }
        for (const int value : {ra24, ra24 >> 8, ra24 >> 16, dec24, dec24 >> 8}) put(value);
        end();
    }
    return file;
}

std::string KStarsFile(const std::vector<MovingStar>& stars, bool deep, bool blueOnly) {
    std::string file = "Stars for a test";
    file.resize(124);
    file += "SK\x01";
    std::size_t recordBytes = 0;
    std::string fields;
    std::uint16_t count = 0;
    const auto field = [&](std::string name, int size, int type, std::int32_t factor) {
        name.resize(10);
        fields += name + static_cast<char>(size) + static_cast<char>(type) + LittleEndian(factor);
        recordBytes += static_cast<std::size_t>(size);
        ++count;
    };
    const int motionFactor = deep ? 1 : 10;
    field("RA", 4, 5, 1000000);
    field("Dec", 4, 5, 100000);
    field("dRA", deep ? 2 : 4, deep ? 3 : 5, motionFactor);
    field("dDec", deep ? 2 : 4, deep ? 3 : 5, motionFactor);
    if (deep) {
        field("B", 2, 3, 1000);
        field("V", 2, 3, 1000);
    } else {
        field("parallax", 4, 5, 10);
        field("HD", 4, 5, 10);
        field("mag", 2, 3, 100);
        field("bv_index", 2, 3, 100);
        field("spec_type", 2, 7, 0);
        field("flags", 1, 0, 0);
        field("unused", 1, 0, 100);
    }
    file += LittleEndian(count) + fields;
    constexpr std::uint32_t parts = 2;
    const auto all = static_cast<std::uint32_t>(stars.size());
    const auto start = static_cast<std::uint32_t>(file.size() + 4 + 12 * parts + 5);
    file += LittleEndian(parts);
    file += LittleEndian(std::uint32_t{0}) + LittleEndian(start) + LittleEndian(all / 2);
    file += LittleEndian(std::uint32_t{1}) +
            LittleEndian(start + all / 2 * static_cast<std::uint32_t>(recordBytes)) +
            LittleEndian(all - all / 2);
    file += std::string(5, ' ');
    const auto whole = [](double value) { return static_cast<std::int32_t>(std::lround(value)); };
    for (const auto& [star, motionRa, motionDec] : stars) {
        file += LittleEndian(whole(star.Ra / radiansPerDegree / 15 * 1e6)) +
                LittleEndian(whole(star.Dec / radiansPerDegree * 1e5));
        const auto ra = whole(motionRa * motionFactor);
        const auto dec = whole(motionDec * motionFactor);
        if (deep) {
            constexpr std::int16_t none = 30000;
            const auto visual = static_cast<std::int16_t>(whole(star.Mag * 1000));
            file += LittleEndian(static_cast<std::int16_t>(ra)) +
                    LittleEndian(static_cast<std::int16_t>(dec)) +
                    LittleEndian(blueOnly ? visual : none) + LittleEndian(blueOnly ? none : visual);
        } else {
            file += LittleEndian(ra) + LittleEndian(dec) + std::string(8, ' ') +
                    LittleEndian(static_cast<std::int16_t>(whole(star.Mag * 100))) +
                    std::string(6, ' ');
        }
    }
    return file;
}

}  // namespace vestrel
