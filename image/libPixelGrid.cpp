#include "image/libPixelGrid.h"

#include <algorithm>

namespace vestrel {

PixelGrid PixelGrid::Narrow(std::int32_t width, std::int32_t height, std::int32_t least) {
    assert(least <= 0 && least >= -PixelRow<std::uint16_t>::MostRank);
    PixelGrid grid;
    grid.narrow_ = Grid<std::uint16_t>(width, height);
    grid.least_ = least;
    return grid;
}

std::span<const std::int32_t> PixelGrid::Row(std::int32_t y,
                                             std::vector<std::int32_t>& buffer) const {
    if (!IsNarrow()) return wide_.Row(y);
    const auto cells = narrow_.Row(y);
    const PixelRow<std::uint16_t> row{cells.data(), least_};
    buffer.resize(cells.size());
    for (std::size_t x = 0; x < buffer.size(); ++x) buffer[x] = row[static_cast<std::ptrdiff_t>(x)];
    return buffer;
}

bool PixelGrid::Fits(std::span<const std::int32_t> values) const {
    if (!IsNarrow()) return true;
    std::uint32_t most = 0;  // distance from `least_`; below it, a huge one
    for (const std::int32_t value : values) {
        most =
            std::max(most, static_cast<std::uint32_t>(value) - static_cast<std::uint32_t>(least_));
    }
    return most <= PixelRow<std::uint16_t>::MostRank;
}

void PixelGrid::Store(std::int32_t x, std::int32_t y, std::span<const std::int32_t> values) {
    assert(Fits(values));
    ForgetGreatest();
    if (!IsNarrow()) {
        std::copy(values.begin(), values.end(), &wide_(x, y));
        return;
    }
    std::uint16_t* cell = &narrow_(x, y);
    for (const std::int32_t value : values) *cell++ = static_cast<std::uint16_t>(value);
}

void PixelGrid::Widen(std::int32_t rows) {
    const auto rowCount = static_cast<std::int32_t>(narrow_.RowCount());
    Grid<std::int32_t> wide(static_cast<std::int32_t>(narrow_.Row(0).size()) - 1, rowCount - 1);
    for (std::int32_t y = 0; y < std::min(rows, rowCount); ++y) {
        const PixelRow<std::uint16_t> row{narrow_.Row(y).data(), least_};
        std::ptrdiff_t x = 0;
        for (std::int32_t& value : wide.Row(y)) value = row[x++];
    }
    *this = PixelGrid(std::move(wide));
}

}  // namespace vestrel
