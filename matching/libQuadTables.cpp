#include "matching/libQuadTables.h"

#include <algorithm>
#include <cmath>
#include <span>

#include "astro/libMath.h"
#include "matching/libShapeFilter.h"

namespace vestrel {

namespace {

double Wide(float value) {
    return static_cast<double>(value);
}

CatalogStar StarOf(const unsigned char* record) {
    return DecodeCatalogStar(
        std::span<const unsigned char, CatalogRecordBytes>(record, CatalogRecordBytes));
}

/// Adds a star to a list when it is bright and near enough.
class NearbyStars {
 public:
    NearbyStars(Projection& projection, double radius, double magLimit, PlateStarList& list)
        : projection_(projection),
          limit_(radius * ArcsecondsPerRadian),
          magLimit_(magLimit),
          list_(list) {}

    void Consider(const CatalogStar& star) {
        const double magnitude = star.Mag / 100.0;
        if (!(magnitude <= magLimit_)) return;
        double xi = 0;
        double eta = 0;
        const double cosine = projection_.SkyToPlane(PositionOf(star), xi, eta);
        constexpr std::int32_t mostStars = 1000;
        if (list_.Count() < mostStars && std::sqrt(xi * xi + eta * eta) <= limit_ && cosine >= 0) {
            list_.Add({static_cast<float>(xi), static_cast<float>(eta),
                       static_cast<float>(magnitude), Wide(star.Ra), Wide(star.Dec)});
        }
    }

 private:
    Projection& projection_;
    double limit_;
    double magLimit_;
    PlateStarList& list_;
};

}  // namespace

QuadTables::QuadTables(FileHandle file, const QuadBand& band, std::shared_ptr<PagePool> pool)
    : band_(band),
      layout_(LayoutOf(band)),
      pages_(std::move(file), band.Part, std::move(pool)),
      cells_(std::in_place, band.CellSize) {}

QuadTables::Run QuadTables::RunOf(std::uint64_t starts, std::uint32_t cell, std::uint32_t cells,
                                  std::uint32_t most) {
    Run run;
    pages_.Copy(starts + std::uint64_t{cell} * 4, &run.Begin, 4);
    pages_.Copy(starts + (std::uint64_t{cell} + cells) * 4, &run.End, 4);
    if (run.Begin > run.End || run.End > most) throw DamagedFile();
    return run;
}

CatalogStar QuadTables::ReadStar(std::uint32_t place) {
    if (place >= band_.StarCount) throw DamagedFile();
    std::array<unsigned char, CatalogRecordBytes> record{};
    pages_.Copy(layout_.Stars + std::uint64_t{place} * CatalogRecordBytes, record.data(),
                record.size());
    const CatalogStar star = StarOf(record.data());
    if (!std::isfinite(star.Ra) || !std::isfinite(star.Dec)) throw DamagedFile();
    return star;
}

CatalogQuad QuadTables::ReadQuad(std::uint32_t place) {
    std::array<unsigned char, 16> bytes{};
    pages_.Copy(layout_.QuadStars + std::uint64_t{place} * layout_.QuadStarBytes, bytes.data(),
                layout_.QuadStarBytes);
    BitReader bits(bytes.data());
    const std::uint32_t first = bits.Take(band_.PlaceBits);
    CatalogQuad quad;
    quad.Stars[0] = ReadStar(first);
    for (std::size_t i = 1; i < quad.Stars.size(); ++i) {
        quad.Stars[i] = ReadStar(first + bits.Take(band_.OffsetBits));
    }
    std::sort(quad.Stars.begin(), quad.Stars.end(), ComesBefore);
    for (std::size_t i = 0; i < quad.At.size(); ++i) {
        quad.At[i] = DirectionOf(PositionOf(quad.Stars[i]));
    }
    quad.Shape = QuadOfDirections(quad.At);
    quad.Place = static_cast<std::int32_t>(place) + 1;
    return quad;
}

std::vector<CatalogQuad> QuadTables::QuadsLike(const Quad& shape, double tolerance) {
    std::vector<CatalogQuad> found;
    if (band_.QuadCount == 0) return found;
    const ShapeFilter filter(shape, tolerance);
    const auto step = [&](float ratio, double by) { return ShapeStep(Wide(ratio) + by); };
    const auto lookThrough = [&](const std::array<std::uint32_t, 3>& steps) {
        const Run run =
            RunOf(layout_.QuadStarts, ShapeCell(steps[0], steps[1], steps[2]), 1, band_.QuadCount);
        for (std::uint32_t place = run.Begin; place < run.End;) {
            std::size_t length = 0;
            const unsigned char* bytes =
                pages_.Bytes(layout_.Shapes + std::uint64_t{place} * 4, length);
            const std::uint32_t end =
                std::min(run.End, place + static_cast<std::uint32_t>(length / 4));
            passing_.clear();
            filter.Find(steps, bytes, end - place, place, passing_);
            place = end;
            for (const std::uint32_t candidate : passing_) {
                if (candidate + 1 == band_.LastQuad) continue;
                const CatalogQuad quad = ReadQuad(candidate);
                const double difference = Wide(quad.Shape.QuadKey) - Wide(shape.QuadKey);
                if (QuadDistance(quad.Shape, shape) < tolerance &&
                    std::fabs(difference) < 2 * tolerance) {
                    found.push_back(quad);
                }
            }
        }
    };
    for (std::uint32_t a = step(shape.Ratio1, -tolerance); a <= step(shape.Ratio1, tolerance);
         ++a) {
        for (std::uint32_t b = step(shape.Ratio3, -tolerance);
             b <= std::min(a, step(shape.Ratio3, tolerance)); ++b) {
            for (std::uint32_t c = step(shape.Ratio5, -tolerance);
                 c <= std::min(b, step(shape.Ratio5, tolerance)); ++c) {
                lookThrough({a, b, c});
            }
        }
    }
    std::sort(found.begin(), found.end(), [](const CatalogQuad& a, const CatalogQuad& b) {
        if (a.Shape.QuadKey != b.Shape.QuadKey) return a.Shape.QuadKey < b.Shape.QuadKey;
        return std::lexicographical_compare(a.Stars.begin(), a.Stars.end(), b.Stars.begin(),
                                            b.Stars.end(), ComesBefore);
    });
    return found;
}

std::vector<CatalogStar> QuadTables::StarsAround(SkyPosition centre, double reach) {
    std::vector<CatalogStar> stars;
    if (band_.StarCount == 0) return stars;
    constexpr double rounding = 1e-6;  // of the dot products
    const double cosineReach = std::cos(std::min(reach, Pi)) - rounding;
    const Direction middle = DirectionOf(centre);
    std::vector<unsigned char> records;
    cells_->Around(centre, reach, [&](std::uint32_t first, std::uint32_t count) {
        const Run run = RunOf(layout_.StarStarts, first, count, band_.StarCount);
        records.resize(std::size_t{run.End - run.Begin} * CatalogRecordBytes);
        pages_.Copy(layout_.Stars + std::uint64_t{run.Begin} * CatalogRecordBytes, records.data(),
                    records.size());
        for (std::size_t at = 0; at < records.size(); at += CatalogRecordBytes) {
            const CatalogStar star = StarOf(&records[at]);
            if (Dot(middle, DirectionOf(PositionOf(star))) >= cosineReach) stars.push_back(star);
        }
    });
    std::sort(stars.begin(), stars.end(), ComesBefore);
    return stars;
}

void QuadTables::VisitStarsAround(SkyPosition centre, double reach,
                                  const std::function<bool(const CatalogStar&)>& visit) {
    if (band_.StarCount == 0) return;
    constexpr double rounding = 1e-6;  // of the dot products
    const double cosineReach = std::cos(std::min(reach, Pi)) - rounding;
    const Direction middle = DirectionOf(centre);
    // A heap whose first cell has the brightest star.
    const auto isFainter = [](const CellStars& a, const CellStars& b) {
        return ComesBefore(b.Next, a.Next);
    };
    std::vector<CellStars>& cells = visitedCells_;
    cells.clear();
    cells_->Around(centre, reach, [&](std::uint32_t first, std::uint32_t count) {
        for (std::uint32_t cell = first; cell < first + count; ++cell) {
            Run run = RunOf(layout_.StarStarts, cell, 1, band_.StarCount);
            if (run.Begin == run.End) continue;
            const CatalogStar star = ReadStar(run.Begin++);
            cells.push_back({run, star});
        }
    });
    std::make_heap(cells.begin(), cells.end(), isFainter);
    while (!cells.empty()) {
        std::pop_heap(cells.begin(), cells.end(), isFainter);
        CellStars& cell = cells.back();
        const CatalogStar star = cell.Next;
        if (cell.Rest.Begin < cell.Rest.End) {
            cell.Next = ReadStar(cell.Rest.Begin++);
            std::push_heap(cells.begin(), cells.end(), isFainter);
        } else {
            cells.pop_back();
        }
        if (Dot(middle, DirectionOf(PositionOf(star))) >= cosineReach && !visit(star)) return;
    }
}

void QuadTables::Check() {
    std::size_t length = 0;
    for (std::uint64_t at = 0; at < layout_.End; at += length) pages_.Bytes(at, length);
    const std::uint32_t cells = cells_->Count();
    const auto holdsAll = [&](std::uint64_t starts, std::uint32_t count, std::uint32_t all) {
        std::uint32_t end = 0;
        for (std::uint32_t cell = 0; cell < count; ++cell) {
            const Run run = RunOf(starts, cell, 1, all);
            if (run.Begin != end) throw DamagedFile();
            end = run.End;
        }
        if (end != all) throw DamagedFile();
    };
    holdsAll(layout_.StarStarts, cells, band_.StarCount);
    holdsAll(layout_.QuadStarts, ShapeCells, band_.QuadCount);
    for (std::uint32_t place = 0; place < band_.QuadCount; ++place) ReadQuad(place);
}

PlateStarList NearbyCatalogStars(QuadTables& tables, Projection& projection, SkyPosition centre,
                                 double radius, double magLimit) {
    projection.SetProjectionCentre(centre, ArcsecondsPerRadian);
    PlateStarList list;
    // On the orthographic plane a radius is the sine of an angle; the margin outweighs rounding.
    const double reach = radius < 0.99 ? std::asin(std::max(radius, 0.0)) + 1e-4 : Pi;
    NearbyStars nearby(projection, radius, magLimit, list);
    for (const CatalogStar& star : tables.StarsAround(centre, reach)) {
        nearby.Consider(star);
    }
    CombSort(list, list.Count(), [](const PlateStar& earlier, const PlateStar& later) {
        return earlier.Flux > later.Flux;
    });
    return list;
}

}  // namespace vestrel
