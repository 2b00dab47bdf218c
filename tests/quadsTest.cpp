// Quads: their shape, the tables, the file and the search, compared with plain procedures on a sky
// made here.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <complex>
#include <cstring>
#include <map>
#include <numbers>
#include <numeric>
#include <set>
#include <span>
#include <system_error>
#include <thread>
#include <tuple>

#include "astro/libMath.h"
#include "catalogtool/libQuadBuilder.h"
#include "catalogtool/libSkyFrames.h"
#include "matching/libBandLookups.h"
#include "matching/libQuadFile.h"
#include "matching/libQuadLookup.h"
#include "matching/libShapeFilter.h"
#include "program/mMORA.h"
#include "tests/testSupport.h"
#include "tests/vectorsForNow.h"
#include "tools/libFrameRenderer.h"

namespace vestrel {
namespace {

constexpr double degree = std::numbers::pi / 180;

using Four32 = std::array<std::uint32_t, 4>;

PlateStar At(double x, double y) {
    return {static_cast<float>(x), static_cast<float>(y)};
}

/// Random stars in a frame of 500 x 400 pixels, brightest first.
PlateStarList Scattered(int count, Random& random) {
    PlateStarList list;
    for (int i = 0; i < count; ++i) {
        PlateStar star = At(random.Between(0, 499), random.Between(0, 399));
        star.Flux = static_cast<float>(1000 - i);
        list.Add(star);
    }
    return list;
}

/// A range of field sizes, degrees.
QuadBand BandOf(double smallest, double largest) {
    QuadBand band;
    band.SmallestDiagonal = smallest * degree;
    band.LargestDiagonal = largest * degree;
    return band;
}

TEST(QuadShape, IsTheSameForAnyPlacementMirroringAndOrder) {
    Random random(1);
    for (int trial = 0; trial < 200; ++trial) {
        std::vector<std::pair<double, double>> places;
        for (int i = 0; i < 4; ++i) {
            places.emplace_back(random.Between(0, 1000), random.Between(0, 1000));
        }
        const auto shapeOf = [&](double turn, double scale, double mirror) {
            std::vector<PlateStar> stars;
            for (const auto& [x, y] : places) {
                stars.push_back(At(scale * (x * std::cos(turn) - y * std::sin(turn)) * mirror + 70,
                                   scale * (x * std::sin(turn) + y * std::cos(turn)) - 30));
            }
            return QuadDescriptor(stars[0], stars[1], stars[2], stars[3]);
        };
        const Quad shape = shapeOf(0, 1, 1);
        std::shuffle(places.begin(), places.end(), random.Engine());
        const Quad other = shapeOf(random.Between(0, 6), random.Between(0.3, 3), -1);
        EXPECT_LT(QuadDistance(shape, other), 1e-4);
        EXPECT_NEAR(shape.QuadKey, other.QuadKey, 2e-4);
        EXPECT_TRUE(1 >= shape.Ratio1 && shape.Ratio1 >= shape.Ratio2 &&
                    shape.Ratio2 >= shape.Ratio3 && shape.Ratio3 >= shape.Ratio4 &&
                    shape.Ratio4 >= shape.Ratio5);
    }
    // Sides 3, 4, 5 and a star in the right angle: 5 4 4 3 3 0.
    const Quad known = QuadDescriptor(At(0, 0), At(3, 0), At(0, 4), At(0, 0));
    EXPECT_FLOAT_EQ(known.QuadKey, 0.8F + 0.8F + 0.6F + 0.6F);
    EXPECT_TRUE(std::isnan(QuadDescriptor(At(1, 1), At(1, 1), At(1, 1), At(1, 1)).QuadKey));
}

TEST(QuadShape, OfSixDistancesInAnyOrderIsThatOfTheSortedOnes) {
    // Equal distances and zeros occur when stars lie on a grid or at one place.
    for (const std::array<double, 6>& sorted : {std::array<double, 6>{6, 5, 4, 3, 2, 1},
                                                {5, 5, 4, 4, 3, 3},
                                                {7, 7, 7, 7, 1, 1},
                                                {3, 2, 2, 2, 0, 0},
                                                {1, 0, 0, 0, 0, 0}}) {
        std::array<double, 6> d = sorted;
        std::sort(d.begin(), d.end());
        do {
            const Quad quad = QuadFromDistances(d[0], d[1], d[2], d[3], d[4], d[5]);
            const std::array<float, 5> ratios = {quad.Ratio1, quad.Ratio2, quad.Ratio3, quad.Ratio4,
                                                 quad.Ratio5};
            for (std::size_t i = 0; i < ratios.size(); ++i) {
                ASSERT_EQ(ratios[i], static_cast<float>(sorted[i + 1] / sorted[0]));
            }
        } while (std::next_permutation(d.begin(), d.end()));
    }
}

TEST(BitFields, NumbersOfAnyWidthComeBackAndTouchNothingElse) {
    Random random(8);
    for (int trial = 0; trial < 300; ++trial) {
        std::vector<std::pair<std::uint32_t, unsigned int>> numbers;
        std::size_t bits = 0;
        for (int i = random.Whole(0, 30); i > 0; --i) {
            const auto width = static_cast<unsigned int>(random.Whole(0, 32));
            const auto all = (std::uint64_t{1} << width) - 1;
            const auto value = static_cast<std::uint32_t>(random.Engine()() & all);
            numbers.emplace_back(i % 5 == 0 ? static_cast<std::uint32_t>(all) : value, width);
            bits += width;
        }
        std::vector<unsigned char> bytes((bits + 7) / 8 + 1, 0xA5);
        BitWriter writer(bytes.data());
        for (const auto& [value, width] : numbers) writer.Put(value, width);
        writer.End();
        EXPECT_EQ(bytes.back(), 0xA5);
        BitReader reader(bytes.data());
        for (const auto& [value, width] : numbers) ASSERT_EQ(reader.Take(width), value);
    }
}

TEST(PackedQuads, AreThoseAddedInOrderEachOnceWhateverTheOrderTheyCameIn) {
    // As many stars as need 3, 12 and 21 bits.
    for (const std::uint32_t starCount : {4U, 3000U, 2'000'000U}) {
        Random random(starCount % 97);
        std::map<std::pair<std::uint32_t, Four32>, QuadEntry> plain;
        std::vector<QuadEntry> added;
        for (int i = 0; i < 30000; ++i) {
            QuadEntry entry;
            std::uint32_t mixed = 0;
            for (auto& star : entry.Stars) {
                star = static_cast<std::uint32_t>(random.Engine()() % starCount);
            }
            std::sort(entry.Stars.begin(), entry.Stars.end());
            for (const std::uint32_t star : entry.Stars) mixed = mixed * 2654435761U + star;
            // The same stars have the same shape. One cell is crowded, so that its group needs
            // several pieces of memory.
            entry.Cell = mixed % 3 == 0 ? 700 : mixed % ShapeCells;
            entry.Shape = ~mixed;
            entry.Key = static_cast<float>(mixed % 10);
            plain.insert({{entry.Cell, entry.Stars}, entry});
            added.push_back(entry);
            if (i % 4 == 0) added.push_back(entry);
        }
        // Stars get their numbers in the table in another order.
        std::vector<std::uint32_t> numbers(starCount);
        std::iota(numbers.begin(), numbers.end(), 0);
        std::shuffle(numbers.begin(), numbers.end(), random.Engine());
        std::shuffle(added.begin(), added.end(), random.Engine());
        // With few stars in memory alone, with many mostly in the file.
        const TemporaryFolder folder;
        const std::size_t inMemory = starCount < 3000 ? 1000 : starCount % 7;
        PackedQuads packed(starCount, folder / "overflow", inMemory);
        const std::span<const QuadEntry> all(added);
        packed.Add(all.first(added.size() / 2));
        packed.Add(all.subspan(added.size() / 2));
        EXPECT_EQ(std::filesystem::is_empty(folder.Path), starCount < 3000);
        packed.Finish(numbers);

        ASSERT_EQ(packed.Count(), plain.size());
        auto expected = plain.begin();
        std::uint32_t place = 0;
        std::uint32_t farthest = 0;
        std::tuple<float, Four32> greatest{-1, {}};
        std::uint32_t last = 0;
        packed.ForEach([&](const QuadEntry& entry) {
            const QuadEntry& wanted = expected->second;
            ASSERT_EQ(entry.Cell, wanted.Cell);
            ASSERT_EQ(entry.Shape, wanted.Shape);
            Four32 stars{};
            for (std::size_t k = 0; k < 4; ++k) stars[k] = numbers[wanted.Stars[k]];
            std::sort(stars.begin(), stars.end());
            ASSERT_EQ(entry.Stars, stars);
            ASSERT_LE(packed.Starts()[entry.Cell], place);
            ASSERT_GT(packed.Starts()[entry.Cell + 1], place);
            farthest = std::max(farthest, stars[3] - stars[0]);
            ++place;
            if (std::tuple(wanted.Key, wanted.Stars) > greatest) {
                greatest = {wanted.Key, wanted.Stars};
                last = place;
            }
            ++expected;
        });
        EXPECT_EQ(packed.Last(), last);
        EXPECT_EQ(packed.Farthest(), farthest);
    }
    const TemporaryFolder folder;
    PackedQuads lost(4, folder / "no such folder" / "overflow", 0);
    const std::vector<QuadEntry> many(5000);
    EXPECT_THROW(lost.Add(many), std::system_error);
    // Other threads add some before they learn of it.
    for (int i = 0; i < 5; ++i) EXPECT_THROW(lost.Add(many), std::system_error);
    EXPECT_NO_THROW(PackedQuads(4).Add(many));
    PackedQuads none(0);
    none.Finish({});
    EXPECT_EQ(none.Count(), 0U);
    EXPECT_EQ(none.Last(), 0U);
}

/// Writes a list as the only band of a file and opens it.
QuadTables Stored(const std::filesystem::path& path, const QuadList& list) {
    QuadFileWriter writer(path, 1);
    writer.Add(0, 1, list);
    writer.Commit();
    std::vector<QuadBand> bands;
    std::string fault;
    FileHandle file = OpenQuadFile(path);
    EXPECT_TRUE(ReadQuadBands(file.get(), bands, fault)) << fault;
    return {std::move(file), bands.at(0)};
}

/// Stars all over the sky, or within a degree of a place.
QuadList StarsOf(int count, bool everywhere, Random& random) {
    QuadList list;
    for (int i = 0; i < count; ++i) {
        const double ra =
            everywhere ? random.Between(0, 2 * std::numbers::pi) : random.Between(-degree, degree);
        const double dec = everywhere ? std::asin(random.Between(-1, 1)) : random.Between(1, 1.02);
        list.Stars.push_back({static_cast<float>(ra < 0 ? ra + 2 * std::numbers::pi : ra),
                              static_cast<float>(dec),
                              static_cast<std::int16_t>(random.Whole(-100, 1200))});
    }
    std::sort(list.Stars.begin(), list.Stars.end(), ComesBefore);
    return list;
}

using Four = std::array<std::int32_t, 4>;

std::array<CatalogStar, 4> StarsOfQuad(const QuadList& list, const Four& quad) {
    std::array<CatalogStar, 4> stars;
    for (std::size_t k = 0; k < 4; ++k) stars[k] = list.Stars[static_cast<std::size_t>(quad[k])];
    return stars;
}

TEST(QuadLookUp, GivesWhatAScanOfAllQuadsGivesInTheOrderOfKeysButTheLast) {
    const TemporaryFolder folder;
    Random random(2);
    QuadList list = StarsOf(60, false, random);
    for (int i = 0; i < 60000; ++i) {
        Four quad{};
        for (std::int32_t& star : quad) star = random.Whole(0, 59);
        std::sort(quad.begin(), quad.end());
        if (std::adjacent_find(quad.begin(), quad.end()) == quad.end()) list.Quads.push_back(quad);
    }
    std::sort(list.Quads.begin(), list.Quads.end());
    list.Quads.erase(std::unique(list.Quads.begin(), list.Quads.end()), list.Quads.end());
    QuadTables tables = Stored(folder / "quads", list);
    ASSERT_EQ(tables.QuadCount(), list.Quads.size());
    tables.Check();

    std::vector<CatalogQuad> all;
    for (const Four& quad : list.Quads) {
        const auto stars = StarsOfQuad(list, quad);
        all.push_back({stars, QuadOfStars(stars)});
    }
    // The order of the list decides between equal keys.
    std::stable_sort(all.begin(), all.end(), [](const CatalogQuad& a, const CatalogQuad& b) {
        return a.Shape.QuadKey < b.Shape.QuadKey;
    });
    const CatalogQuad last = all.back();
    all.pop_back();
    std::size_t most = 0;
    for (int trial = 0; trial < 200; ++trial) {
        // Shapes of the table, most of them a little off.
        Quad shape = all[static_cast<std::size_t>(random.Whole(0, 9999))].Shape;
        if (trial % 20 == 0) shape = last.Shape;
        for (float* ratio :
             {&shape.Ratio1, &shape.Ratio2, &shape.Ratio3, &shape.Ratio4, &shape.Ratio5}) {
            *ratio += static_cast<float>(random.Normal(trial % 5 * 0.002));
        }
        shape.QuadKey = shape.Ratio1 + shape.Ratio2 + shape.Ratio3 + shape.Ratio4 + shape.Ratio5;
        std::vector<CatalogQuad> expected;
        for (const CatalogQuad& quad : all) {
            const double difference =
                static_cast<double>(quad.Shape.QuadKey) - static_cast<double>(shape.QuadKey);
            if (QuadDistance(quad.Shape, shape) < 0.01 && std::fabs(difference) < 0.02) {
                expected.push_back(quad);
            }
        }
        const std::vector<CatalogQuad> found = tables.QuadsLike(shape, 0.01);
        ASSERT_EQ(found.size(), expected.size());
        for (std::size_t i = 0; i < found.size(); ++i) {
            EXPECT_EQ(std::memcmp(&found[i].Shape, &expected[i].Shape, sizeof(Quad)), 0);
            for (std::size_t k = 0; k < 4; ++k) {
                EXPECT_EQ(found[i].Stars[k].Ra, expected[i].Stars[k].Ra);
                EXPECT_EQ(found[i].Stars[k].Mag, expected[i].Stars[k].Mag);
            }
        }
        most = std::max(most, found.size());
    }
    EXPECT_GT(most, 2U);
}

/// A shape near enough to `shape`, as a table packs it: its cell and the rest.
struct PackedShape {
    std::array<std::uint32_t, 3> Cell{};
    std::uint32_t Rest = 0;
};
PackedShape Packed(const Quad& shape) {
    const auto fine = [](float ratio) {
        return static_cast<std::uint32_t>(std::clamp(ratio * 1024.0F, 0.0F, 1023.0F));
    };
    const std::uint32_t r1 = fine(shape.Ratio1);
    const std::uint32_t r3 = fine(shape.Ratio3);
    const std::uint32_t r5 = fine(shape.Ratio5);
    return {{r1 / 16, r3 / 16, r5 / 16},
            (r1 & 15) | (r3 & 15) << 4 | (r5 & 15) << 8 | fine(shape.Ratio2) << 12 |
                fine(shape.Ratio4) << 22};
}

TEST(ShapeFilter, ComparesManyAsOneByOneAndLosesNoShapeThatIsNear) {
    Random random(14);
    int near = 0;
    int passed = 0;
    int all = 0;
    for (int trial = 0; trial < 3000; ++trial) {
        Quad wanted;
        for (float* ratio :
             {&wanted.Ratio1, &wanted.Ratio2, &wanted.Ratio3, &wanted.Ratio4, &wanted.Ratio5}) {
            *ratio = static_cast<float>(random.Between(0, 1));
        }
        const double tolerance = trial % 2 == 0 ? 0.002 : 0.01;
        // Shapes at the edge of the tolerance; they are compared in the cell of the first.
        std::vector<Quad> shapes(static_cast<std::size_t>(random.Whole(1, 70)), wanted);
        for (Quad& shape : shapes) {
            for (float* ratio :
                 {&shape.Ratio1, &shape.Ratio2, &shape.Ratio3, &shape.Ratio4, &shape.Ratio5}) {
                const double off = random.Normal(tolerance * random.Between(0.2, 1));
                *ratio = static_cast<float>(std::clamp(*ratio + off, 0.0, 1.0));
            }
        }
        const PackedShape first = Packed(shapes.front());
        std::vector<std::uint32_t> packed;
        for (const Quad& shape : shapes) packed.push_back(Packed(shape).Rest);
        std::vector<std::vector<std::uint32_t>> found;
        for (const bool plain : {true, false}) {
            const VectorsForNow now(plain);
            const ShapeFilter own(wanted, tolerance);
            std::vector<std::uint32_t> together;
            std::vector<std::uint32_t> single;
            const auto* bytes = reinterpret_cast<const unsigned char*>(packed.data());
            own.Find(first.Cell, bytes, packed.size(), 100, together);
            for (std::size_t i = 0; i < packed.size(); ++i) {
                own.Find(first.Cell, bytes + 4 * i, 1, 100 + static_cast<std::uint32_t>(i), single);
            }
            ASSERT_EQ(together, single);
            found.push_back(together);
        }
        ASSERT_EQ(found[0], found[1]) << "the vectors of the processor change what passes";
        for (std::size_t i = 0; i < shapes.size(); ++i) {
            const bool passes = std::count(found[0].begin(), found[0].end(), 100 + i) > 0;
            const bool sameCell = Packed(shapes[i]).Cell == first.Cell;
            all += sameCell;
            passed += sameCell && passes;
            if (sameCell && QuadDistance(shapes[i], wanted) < tolerance) {
                ++near;
                ASSERT_TRUE(passes);
            }
        }
    }
    EXPECT_GT(near, 1000);
    EXPECT_LT(passed, all) << "nothing is left out";
}

TEST(QuadStars, AroundAPlaceAreThoseOfAScanOfTheWholeTable) {
    const TemporaryFolder folder;
    Random random(3);
    const QuadList sky = StarsOf(20000, true, random);
    QuadTables tables = Stored(folder / "quads", sky);
    for (int trial = 0; trial < 120; ++trial) {
        // At a pole, beside a star, or anywhere.
        const CatalogStar& near = sky.Stars[static_cast<std::size_t>(random.Whole(0, 19999))];
        double ra = random.Between(-0.1, 2 * std::numbers::pi);
        double dec = trial % 4 == 0 ? std::numbers::pi / 2 - random.Between(0, 0.02)
                                    : std::asin(random.Between(-1, 1));
        if (trial % 3 == 0) {
            ra = near.Ra;
            dec = near.Dec + random.Between(-1e-3, 1e-3);
        }
        const double radius = trial % 10 == 0  ? random.Between(0.9, 1.2)
                              : trial % 3 == 0 ? random.Between(0, 1e-3)
                                               : random.Between(0, 0.2);
        const double limit = random.Between(0, 12);
        Projection projection;
        const PlateStarList list = NearbyCatalogStars(tables, projection, {ra, dec}, radius, limit);
        // Cell by cell, merged by brightness: the same stars in the same order.
        const std::vector<CatalogStar> around = tables.StarsAround({ra, dec}, radius);
        const std::size_t wanted = trial % 2 == 0 ? around.size() : (around.size() + 1) / 2;
        std::size_t visited = 0;
        tables.VisitStarsAround({ra, dec}, radius, [&](const CatalogStar& star) {
            EXPECT_TRUE(visited < wanted && star.Ra == around[visited].Ra &&
                        star.Dec == around[visited].Dec && star.Mag == around[visited].Mag);
            return ++visited < wanted;
        });
        if (wanted > 0) {
            EXPECT_EQ(visited, wanted);
        }

        PlateStarList plain;
        Projection plane;
        plane.SetProjectionCentre({ra, dec}, 206264.8062);
        for (std::size_t i = 0; i < sky.Stars.size() && plain.Count() < 1000; ++i) {
            const CatalogStar& star = sky.Stars[i];
            double xi = 0;
            double eta = 0;
            const double cosine = plane.SkyToPlane(PositionOf(star), xi, eta);
            if (star.Mag / 100.0 <= limit && cosine >= 0 &&
                std::sqrt(xi * xi + eta * eta) <= radius * 206264.8062) {
                plain.Add({static_cast<float>(xi), static_cast<float>(eta),
                           static_cast<float>(star.Mag / 100.0), star.Ra, star.Dec});
            }
        }
        PlainCombSort(plain, plain.Count(), &PlateStar::Flux);
        ASSERT_EQ(list.Count(), plain.Count());
        for (int i = 1; i <= plain.Count(); ++i) {
            EXPECT_EQ(list[i].X, plain[i].X);
            EXPECT_EQ(list[i].Y, plain[i].Y);
            EXPECT_EQ(list[i].Ra, plain[i].Ra);
        }
    }
}

TEST(SkyFrames, CoverTheSkyEvenlyAndLackNoStarInsideThem) {
    Random random(21);
    const QuadList sky = StarsOf(9000, true, random);
    // So wide that frames have fewer stars than the plan takes of each.
    const QuadPlan plan = PlansFor(10, 18).front();
    const SkyFrames frames(sky.Stars, plan);
    std::vector<Direction> directions;
    for (const CatalogStar& star : sky.Stars) directions.push_back(DirectionOf(PositionOf(star)));
    std::vector<int> shown(sky.Stars.size());
    const auto isLeft = [](const Direction& a, const Direction& b, const Direction& at) {
        return a[0] * (b[1] * at[2] - b[2] * at[1]) + a[1] * (b[2] * at[0] - b[0] * at[2]) +
                   a[2] * (b[0] * at[1] - b[1] * at[0]) >
               0;
    };
    std::int64_t count = 0;
    for (std::int64_t begin = 0; begin < frames.Count(); begin += 1000) {
        frames.ForEach(begin, std::min(begin + 1000, frames.Count()), [&](const auto& stars) {
            std::set<std::uint32_t> listed;
            for (const StarInFrame& star : stars) {
                ASSERT_TRUE(listed.empty() || star.Star > *listed.rbegin());
                listed.insert(star.Star);
                ++shown[star.Star];
                EXPECT_EQ(star.At, directions[star.Star]);
            }
            ASSERT_LT(stars.size(), static_cast<std::size_t>(plan.StarsPerFrame));
            // A star inside a triangle of the frame's stars is inside the frame.
            if (++count % 64 != 0 || stars.size() < 3) return;
            Direction a = stars[0].At;
            const Direction b = stars[1].At;
            Direction c = stars[2].At;
            if (!isLeft(a, b, c)) std::swap(a, c);
            for (std::uint32_t i = 0; i < directions.size(); ++i) {
                const Direction& at = directions[i];
                if (isLeft(a, b, at) && isLeft(b, c, at) && isLeft(c, a, at)) {
                    ASSERT_TRUE(listed.contains(i)) << count;
                }
            }
        });
    }
    EXPECT_EQ(count, frames.Count());
    // How often a star is shown does not depend on where it is, at a pole or anywhere else.
    for (const double dec : {-80.0, -40.0, 0.0, 40.0, 80.0}) {
        double stars = 0;
        double sum = 0;
        for (std::size_t i = 0; i < shown.size(); ++i) {
            const double away = std::fabs(static_cast<double>(sky.Stars[i].Dec) / degree - dec);
            if (away > 10) continue;
            ++stars;
            sum += shown[i];
            EXPECT_GE(shown[i], plan.FramesPerField / 3) << dec;
            EXPECT_LE(shown[i], plan.FramesPerField * 2) << dec;
        }
        EXPECT_NEAR(sum / stars, plan.FramesPerField, 0.1 * plan.FramesPerField) << dec;
    }
}

/// Stars of a patch of sky 9° wide, and the tables for fields of about 3° made from them.
class QuadSkyTest : public testing::Test {
 protected:
    static constexpr int frameWidth = 1200;
    static constexpr int frameHeight = 900;
    static constexpr double fieldWidth = 2.4 * degree;
    static constexpr double fieldHeight = 1.8 * degree;

    static std::vector<QuadPlan> Plans() { return PlansFor(2.5, 3.5); }
    static const QuadSky& Sky() {
        static const QuadSky made = [] {
            FrameGeometry patch = Frame();
            patch.Width = patch.Height = static_cast<int>(9 * degree / patch.RadiansPerPixel);
            std::vector<CatalogStar> stars;
            for (const FrameStar& star : RandomFrameStars(patch, 2000, 4, 12, 5)) {
                stars.push_back(*StoredStar(star.Sky));
            }
            QuadSky sky(Plans());
            sky.Add(stars);
            sky.Finish();
            return sky;
        }();
        return made;
    }
    static const QuadList& List() {
        static const QuadList list = [] {
            QuadDraft draft = BuildQuads(Sky(), Plans().front());
            QuadList made;
            std::vector<std::uint32_t> numbers;
            for (std::size_t i = 0; i < draft.Stars.size(); ++i) {
                numbers.push_back(static_cast<std::uint32_t>(made.Stars.size()));
                if (draft.InTable[i]) made.Stars.push_back(draft.Stars[i]);
            }
            draft.Quads.Finish(numbers);
            draft.Quads.ForEach([&](const QuadEntry& quad) {
                Four& stars = made.Quads.emplace_back();
                for (std::size_t k = 0; k < 4; ++k) stars[k] = static_cast<int>(quad.Stars[k]);
            });
            return made;
        }();
        return list;
    }
    static FrameGeometry Frame(double up = 0, bool mirrored = false) {
        return {130 * degree, 62 * degree, fieldWidth / frameWidth, frameWidth, frameHeight,
                up,           mirrored};
    }

    QuadSkyTest() {
        State.Image.Width = frameWidth;
        State.Image.Height = frameHeight;
        State.Quads.Tables = Stored(folder_ / "quads", List());
    }

    /// The plate stars of a frame: the brightest catalog stars in it, off by a tenth of a pixel.
    void TakeFrame(const FrameGeometry& geometry) {
        State.PlateStars.Clear();
        Random random(9);
        for (const CatalogStar& star : Sky().Stars()) {
            const auto place = SkyToFrame(geometry, PositionOf(star));
            if (!place || place->X < 0 || place->Y < 0 || place->X > frameWidth - 1 ||
                place->Y > frameHeight - 1 || State.PlateStars.Count() > 59) {
                continue;
            }
            State.PlateStars.Add(At(place->X + random.Normal(0.1), place->Y + random.Normal(0.1)));
        }
        State.QuadMatch = {};
    }

    bool Search(const QuadJudge& judge = {}) {
        return SearchQuads(State, Port, State.PlateStars, fieldWidth, fieldHeight, 2, judge);
    }

    /// Distance of the found centre from the frame's, pixels.
    double CentreError() const {
        const auto place = SkyToFrame(Frame(), State.QuadMatch.Centre);
        return place ? std::hypot(place->X - (frameWidth - 1) / 2.0,
                                  place->Y - (frameHeight - 1) / 2.0)
                     : INFINITY;
    }

    TemporaryFolder folder_;
    ProgramState State;
    RecordingPort Port{State};
};

TEST_F(QuadSkyTest, SearchFindsTheFrameHoweverItLies) {
    for (const bool mirrored : {false, true}) {
        for (const double up : {0.0, 1.0, 3.0, 5.5}) {
            TakeFrame(Frame(up, mirrored));
            ASSERT_TRUE(Search());
            EXPECT_LT(CentreError(), 1);
            EXPECT_LT(State.QuadMatch.Confidence.Log10FalseAlarm, -10);
            EXPECT_LT(State.QuadMatch.FitError, 1);
            // With rows counted upward an ordinary frame has a positive stretch.
            EXPECT_EQ(State.QuadMatch.Geometry.Stretch > 0, !mirrored);
        }
    }
    const std::vector<std::string>& said = State.QuadMatch.Messages;
    const auto has = [&](const char* start) {
        return std::any_of(said.begin(), said.end(),
                           [&](const std::string& line) { return line.starts_with(start); });
    };
    for (const char* start :
         {"Matched Quad = ", "Quad Star 1: 0", "MORA found 4-star solution. FitError=0.",
          "Geometry: ", "NumMatch=", "NumMatch = ", "Plate Center = 08h"}) {
        EXPECT_TRUE(has(start)) << start;
    }
}

/// Counts what a lookup produces until a plate lies within two pixels of a frame's centre.
struct LookupOutcome {
    bool Found = false;
    int Shown = 0;
    int Searched = 0;
};

TEST_F(QuadSkyTest, LookupFindsTheFrameAmongFalseAndLostBrightStarsAndNothingInRandomOnes) {
    const QuadBand band = BandOf(Plans().front().SmallestDiagonal, Plans().front().LargestDiagonal);
    const auto lookUp = [&](const PlateStarList& stars) {
        const ImageStars image(stars, frameWidth, frameHeight);
        QuadLookup lookup(State.Quads.Tables, image, band);
        const ImageQuads quads(stars, std::hypot(frameWidth, frameHeight), LeadingStars());
        LookupOutcome outcome;
        const auto accept = [&](const CentredPlate& plate) {
            ++outcome.Shown;
            State.QuadMatch.Centre = plate.Centre;
            outcome.Found = CentreError() < 2;
            return outcome.Found;
        };
        EXPECT_EQ(lookup.Search(quads.For(band), accept, [] { return false; }), outcome.Found);
        outcome.Searched = lookup.Counts().Searched;
        return outcome;
    };
    Random random(31);
    const auto anywhere = [&random] {
        return At(random.Between(0, frameWidth), random.Between(0, frameHeight));
    };
    for (const bool mirrored : {false, true}) {
        for (const double up : {0.5, 2.5, 4.5}) {
            TakeFrame(Frame(up, mirrored));
            // Half of the first twelve are false, and every fifth true one is lost.
            PlateStarList stars;
            int number = 0;
            for (const PlateStar& star : State.PlateStars) {
                if (++number <= 6) stars.Add(anywhere());
                if (number % 5 != 0) stars.Add(star);
            }
            EXPECT_TRUE(lookUp(stars).Found) << up << mirrored;
        }
    }
    LookupOutcome all;
    for (int trial = 0; trial < 12; ++trial) {
        PlateStarList stars;
        for (int i = 0; i < 60; ++i) stars.Add(anywhere());
        const LookupOutcome outcome = lookUp(stars);
        all.Shown += outcome.Shown;
        all.Searched += outcome.Searched;
    }
    EXPECT_LE(all.Shown, 12);
    EXPECT_GT(all.Searched, 3000);
}

TEST_F(QuadSkyTest, BandsLookedUpTogetherGiveWhatEachGivesAloneOnAnyNumberOfThreads) {
    // The frame at its own size and as if it were larger and smaller; one table is damaged.
    const std::array<QuadBand, 4> bands = {BandOf(2.5, 3.5), BandOf(3.5, 5), BandOf(1.75, 2.5),
                                           BandOf(2.5, 3.5)};
    TakeFrame(Frame(1));
    const ImageStars image(State.PlateStars, frameWidth, frameHeight);
    const ImageQuads quads(State.PlateStars, std::hypot(frameWidth, frameHeight), {});
    const auto pathOf = [&](std::size_t i) { return folder_ / ("band" + std::to_string(i)); };
    std::vector<QuadTables> tables;
    for (std::size_t i = 0; i < bands.size(); ++i) tables.push_back(Stored(pathOf(i), List()));
    std::filesystem::resize_file(pathOf(3), 9000);
    const auto same = [](const BandLookup::Confirmed& a, const BandLookup::Confirmed& b) {
        return std::memcmp(&a.Plate, &b.Plate, sizeof a.Plate) == 0 &&
               std::memcmp(&a.Counts, &b.Counts, sizeof a.Counts) == 0;
    };
    std::vector<std::vector<BandLookup::Confirmed>> alone(bands.size());
    for (std::size_t i = 0; i < 3; ++i) {
        QuadLookup lookup(tables[i], image, bands[i]);
        const auto keep = [&](const CentredPlate& plate) {
            alone[i].push_back({plate, lookup.Counts()});
            return false;
        };
        EXPECT_FALSE(lookup.Search(quads.For(bands[i]), keep, [] { return false; }));
        alone[i].push_back({{}, lookup.Counts()});
    }
    EXPECT_GT(alone[0].size(), 1U) << "the frame is found";
    for (const int threads : {1, 2, 4}) {
        const ThreadsForNow now(threads);
        const auto lookUp = [&](const std::function<bool()>& mustEnd) {
            std::vector<BandLookup> lookups;
            for (std::size_t i = 0; i < bands.size(); ++i) {
                lookups.push_back(
                    {&tables[i], i % 3, bands[i], quads.For(bands[i]), {}, {}, false});
            }
            LookUpTogether(lookups, image, mustEnd);
            return lookups;
        };
        const auto caller = std::this_thread::get_id();
        std::vector<BandLookup> together = lookUp([&] {
            EXPECT_EQ(std::this_thread::get_id(), caller) << "it may touch windows";
            return false;
        });
        for (std::size_t i = 0; i < 3; ++i) {
            EXPECT_FALSE(together[i].Damaged);
            together[i].Plates.push_back({{}, together[i].Counts});
            EXPECT_TRUE(std::equal(together[i].Plates.begin(), together[i].Plates.end(),
                                   alone[i].begin(), alone[i].end(), same))
                << threads << " threads, band " << i;
        }
        EXPECT_TRUE(together[3].Damaged);
        // The caller ends all searches, those on other threads too.
        std::int32_t searched = 0;
        for (const BandLookup& band : lookUp([] { return true; })) searched += band.Counts.Searched;
        EXPECT_LT(searched, together[0].Counts.Searched + together[1].Counts.Searched +
                                together[2].Counts.Searched);
    }
}

/// The quads of an image for one band, as plainly as they can be said.
std::vector<ImageQuad> PlainQuads(const PlateStarList& stars, double diagonal, LeadingStars leading,
                                  const QuadBand& band) {
    const auto distance = [&](int a, int b) {
        return std::hypot(static_cast<double>(stars[a].X) - static_cast<double>(stars[b].X),
                          static_cast<double>(stars[a].Y) - static_cast<double>(stars[b].Y));
    };
    const double reach = 1.5 * degree / band.SmallestDiagonal * diagonal;
    std::set<ImageQuad> quads;
    const int n = stars.Count();
    const bool narrow = band.LargestDiagonal < 3.5 * degree + 1e-6;
    if (!narrow) {
        for (int s = 3 * leading.LookedUp + 1; s <= std::min(3 * leading.First, n); ++s) {
            std::vector<int> near;
            for (int j = 1; j <= n && near.size() < 7; ++j) {
                if (j != s && distance(s, j) < reach) near.push_back(j);
            }
            for (int a : near) {
                for (int b : near) {
                    for (int c : near) {
                        ImageQuad quad{s, a, b, c};
                        std::sort(quad.begin(), quad.end());
                        if (a < b && b < c) quads.insert(quad);
                    }
                }
            }
        }
    }
    for (int c = 3; narrow && c <= std::min(leading.First, n); ++c) {
        if (c <= leading.LookedUp) continue;
        for (int b = 2; b < c; ++b) {
            for (int a = 1; a < b; ++a) {
                // The two stars farthest apart, of equal ones the first.
                int one = a;
                int other = b;
                if (distance(b, c) > distance(one, other)) one = b, other = c;
                if (distance(c, a) > distance(one, other)) one = c, other = a;
                if (distance(one, other) > reach) continue;
                int between = 0;
                for (int d = b + 1; d <= n && between < 3; ++d) {
                    const double x = (static_cast<double>(stars[one].X) + stars[other].X) / 2;
                    const double y = (static_cast<double>(stars[one].Y) + stars[other].Y) / 2;
                    if (d == c ||
                        std::hypot(stars[d].X - x, stars[d].Y - y) > distance(one, other) / 2) {
                        continue;
                    }
                    ++between;
                    ImageQuad quad{a, b, c, d};
                    std::sort(quad.begin(), quad.end());
                    quads.insert(quad);
                }
            }
        }
    }
    std::vector<ImageQuad> ordered(quads.begin(), quads.end());
    std::stable_sort(ordered.begin(), ordered.end(), [](const ImageQuad& a, const ImageQuad& b) {
        return a[0] + a[1] + a[2] + a[3] < b[0] + b[1] + b[2] + b[3];
    });
    return ordered;
}

TEST(ImageQuads, FormedOnceAreThoseOfEveryBandInTheirOrder) {
    Random random(77);
    const double diagonal = std::hypot(500, 400);
    std::size_t narrowOnes = 0;
    std::size_t leftOut = 0;
    for (const int count : {0, 3, 4, 5, 9, 40, 150}) {
        const PlateStarList stars = Scattered(count, random);
        for (const LeadingStars leading : {LeadingStars{10, 0}, {20, 10}, {20, 0}, {3, 2}}) {
            const ImageQuads quads(stars, diagonal, leading);
            std::size_t most = 0;
            for (const double size : {0.2, 0.9, 1.25, 1.75, 2.5, 3.5, 5.0, 7.1, 18.0}) {
                const QuadBand band = BandOf(size, size * 1.4);
                const std::vector<ImageQuad> some = quads.For(band);
                ASSERT_EQ(some, PlainQuads(stars, diagonal, leading, band)) << count << " " << size;
                if (!IsNarrowBand(band)) continue;
                narrowOnes += some.size();
                most = std::max(most, some.size());
                leftOut += most - some.size();
            }
        }
    }
    EXPECT_GT(narrowOnes, 10000U);
    EXPECT_GT(leftOut, 1000U) << "large fields have fewer";
}

TEST_F(QuadSkyTest, LookupOfMoreStarsLeavesOutWhatWasLookedUpBefore) {
    TakeFrame(Frame());
    const double diagonal = std::hypot(frameWidth, frameHeight);
    for (const double size : {1.0, 2.0}) {  // triples, and neighbours
        const auto set = [&](const LeadingStars& leading) {
            const auto quads =
                ImageQuads(State.PlateStars, diagonal, leading).For(BandOf(2.5 * size, 3.5 * size));
            return std::set<ImageQuad>(quads.begin(), quads.end());
        };
        std::set<ImageQuad> both = set({6, 0});
        EXPECT_GT(both.size(), 20U);
        EXPECT_LT(both.size(), set({16, 0}).size());
        both.merge(set({16, 6}));
        EXPECT_EQ(both, set({16, 0}));
    }
}

TEST_F(QuadSkyTest, RandomStarsAreNeverSure) {
    Random random(12);
    int candidates = 0;
    for (int trial = 0; trial < 600; ++trial) {
        State.PlateStars.Clear();
        for (int i = 0; i < 60; ++i) {
            // The stars of every second list crowd around one place, like false stars in a nebula.
            State.PlateStars.Add(
                trial % 2 == 0 ? At(random.Between(0, frameWidth), random.Between(0, frameHeight))
                               : At(700 + random.Normal(50), 300 + random.Normal(50)));
        }
        State.QuadMatch = {};
        EXPECT_FALSE(Search([](const QuadSearch& search) { return IsSure(search); }));
        candidates += State.QuadMatch.Candidates;
    }
    EXPECT_GT(candidates, 50);
}

TEST_F(QuadSkyTest, TheLastQuadOfTheTableIsNotUsed) {
    TakeFrame(Frame());
    const auto solves = [&](const std::vector<Four>& quads) {
        State.Quads.Tables = {};  // Windows replaces no file that is open
        State.Quads.Tables = Stored(folder_ / "some", {List().Stars, quads});
        State.QuadMatch = {};
        return Search([](const QuadSearch& search) { return IsSure(search); });
    };
    EXPECT_FALSE(solves({}));
    // Bisection finds a single quad that solves the frame; the table holds it and a last one.
    std::vector<Four> some = List().Quads;
    std::sort(some.begin(), some.end(), [](const Four& a, const Four& b) {
        const auto key = [](const Four& quad) {
            return QuadOfStars(StarsOfQuad(List(), quad)).QuadKey;
        };
        return key(a) < key(b);
    });
    const Four least = some.front();
    const Four greatest = some.back();
    while (some.size() > 1) {
        const auto middle = some.begin() + static_cast<std::ptrdiff_t>(some.size() / 2);
        std::vector<Four> half(some.begin(), middle);
        half.push_back(greatest);
        some = solves(half) ? std::vector<Four>(some.begin(), middle)
                            : std::vector<Four>(middle, some.end());
    }
    ASSERT_TRUE(solves({some[0], greatest}));
    EXPECT_FALSE(solves({some[0]}));
    EXPECT_FALSE(solves({some[0], least}));
}

TEST_F(QuadSkyTest, TablesDoNotDependOnThreadsAndSurviveTheirFileOrAreRefused) {
    const std::filesystem::path path = folder_ / QuadFileName;
    std::string bytes;
    for (const int threads : {1, 3}) {
        const ThreadsForNow now(threads);
        std::filesystem::remove(path);
        QuadFileWriter writer(path, 2);
        writer.Add(0.01, 0.02, QuadList());
        writer.Add(0.04, 0.06, BuildQuads(Sky(), Plans().front()));
        EXPECT_FALSE(std::filesystem::exists(path));
        writer.Commit();
        if (bytes.empty()) bytes = ReadFile(path);
        EXPECT_TRUE(ReadFile(path) == bytes);
    }
    EXPECT_EQ(FaultOfQuadFile(path), "");
    State.Catalog.Folder = folder_.Path;
    EXPECT_TRUE(HaveQuadTables(State));
    EXPECT_FALSE(LoadQuadTables(State, 0.1, 0.1));
    EXPECT_NE(State.Quads.Fault.find("nothing for fields of this size"), std::string::npos);
    const auto finds = [&] {
        TakeFrame(Frame(4));
        const bool found = Search();
        EXPECT_EQ(found, State.Quads.Fault.empty()) << State.Quads.Fault;
        EXPECT_EQ(found, State.QuadMatch.Pairs.Count() > 0);
        return found;
    };
    ASSERT_TRUE(LoadQuadTables(State, 0.04, 0.03));
    EXPECT_TRUE(finds());
    EXPECT_LT(State.Quads.Tables.BytesRead(), bytes.size());

    // A full check finds any wrong byte. A search either does not read it or ends with an error.
    Random random(4);
    int refused = 0;
    for (int trial = 0; trial < 600; ++trial) {
        std::string damaged = bytes;
        const int at = random.Whole(0, trial % 2 == 0 ? 151 : static_cast<int>(bytes.size()) - 1);
        damaged[static_cast<std::size_t>(at)] ^= static_cast<char>(1 << random.Whole(0, 7));
        if (trial % 5 == 0) damaged = bytes.substr(0, static_cast<std::size_t>(at));
        WriteFile(path, damaged);
        EXPECT_NE(FaultOfQuadFile(path), "") << "byte " << at;
        if (!LoadQuadTables(State, 0.04, 0.03) || !finds()) ++refused;
    }
    EXPECT_GT(refused, 30);

    // One that is cut short or changed while it is open is noticed too.
    for (const bool cut : {true, false}) {
        WriteFile(path, bytes);
        ASSERT_TRUE(LoadQuadTables(State, 0.04, 0.03));
        std::filesystem::resize_file(path, bytes.size() / 2);
        if (!cut) WriteFile(path, std::string(bytes.size(), 'x'));
        EXPECT_FALSE(finds());
    }
    // Tables in the format of older versions.
    bytes[8] = 1;
    WriteFile(path, bytes);
    EXPECT_FALSE(LoadQuadTables(State, 0.04, 0.03));
    EXPECT_NE(State.Quads.Fault.find("another version: vestrel-catalog quads makes it anew"),
              std::string::npos);
}

/// The plate without mirroring that takes two stars onto two others.
PlateConstants PlateThrough(const PlateStar& from1, const PlateStar& from2, const PlateStar& to1,
                            const PlateStar& to2) {
    const auto complex = [](const PlateStar& s) { return std::complex<double>(s.X, s.Y); };
    const auto turn = (complex(to2) - complex(to1)) / (complex(from2) - complex(from1));
    const auto shift = complex(to1) - turn * complex(from1);
    return {turn.real(), -turn.imag(), shift.real(), turn.imag(), turn.real(), shift.imag()};
}

/// Evidence for the plate through two pairs of lists whose n-th stars belong together.
MatchEvidence Through(std::int32_t first, std::int32_t second, const PlateStarList& catalog,
                      const PlateStarList& image) {
    const PlateConstants plate =
        PlateThrough(catalog[first], catalog[second], image[first], image[second]);
    return EvidenceOf(plate, catalog, image, 500, 400);
}

TEST(Confidence, ChanceGivesALikelihoodRatioNoMoreOftenThanItsInverse) {
    Random random(6);
    constexpr int trials = 2000;
    double matched = 0;
    double expected = 0;
    std::array<int, 3> above{};
    for (int trial = 0; trial < trials; ++trial) {
        PlateStarList catalog = Scattered(40, random);
        PlateStarList image = Scattered(40, random);
        // A third of the images is clumped, and half of these have a clumped catalog too.
        for (int i = 3; trial % 3 == 0 && i <= 25; ++i) {
            image[i] = At(random.Between(200, 260), random.Between(150, 210));
            if (trial % 2 == 0) catalog[i] = At(random.Between(200, 260), random.Between(150, 210));
        }
        catalog[1] = image[1] = At(230, 180);
        catalog[2] = image[2] = At(random.Between(0, 499), random.Between(0, 399));
        MatchEvidence evidence = Through(1, 2, catalog, image);
        evidence.Seed = {{0, 0}, {1, 1}};
        const MatchConfidence confidence = ConfidenceOf(evidence);
        if (trial % 3 != 0) {
            matched += confidence.Matched - 2;
            expected += confidence.ExpectedByChance - 2;
        }
        for (std::size_t k = 0; k < above.size(); ++k) {
            if (confidence.Log10LikelihoodRatio >= 0.5 * static_cast<double>(k + 1)) ++above[k];
        }
        EXPECT_FALSE(IsSure(confidence));
    }
    for (std::size_t k = 0; k < above.size(); ++k) {
        const double bound = std::pow(10, -0.5 * static_cast<double>(k + 1)) * trials;
        EXPECT_LT(above[k], bound + 3 * std::sqrt(bound)) << k;
    }
    EXPECT_GT(above[0], 0);
    // The plate is refined with stars matched by chance, and then matches a few more.
    EXPECT_GT(matched / expected, 0.9);
    EXPECT_LT(matched / expected, 1.3);
}

TEST(Confidence, IsTheSameInAMirror) {
    Random random(8);
    constexpr float stretch = 0.97F;  // of the columns, more than any lens has
    for (int trial = 0; trial < 10; ++trial) {
        const PlateStarList catalog = Scattered(40, random);
        PlateStarList image = catalog;
        for (PlateStar& star : image) {
            star.X = stretch * star.X + static_cast<float>(random.Between(-0.5, 0.5));
        }
        const double a = double{stretch};
        const MatchConfidence seen =
            ConfidenceOf(EvidenceOf({a, 0, 0, 0, 1, 0}, catalog, image, 500, 400));
        EXPECT_GE(seen.Matched, 20);

        for (PlateStar& star : image) star.X = 499 - star.X;
        const MatchConfidence mirrored =
            ConfidenceOf(EvidenceOf({-a, 0, 499, 0, 1, 0}, catalog, image, 500, 400));
        EXPECT_EQ(mirrored.Matched, seen.Matched);
        EXPECT_NEAR(mirrored.Log10FalseAlarm, seen.Log10FalseAlarm, 0.01);
    }
}

TEST(Confidence, OfARightPlateIsSureFromFewStarsAndPaysForWhatWasTried) {
    Random random(7);
    for (int trial = 0; trial < 40; ++trial) {
        PlateStarList catalog = Scattered(40, random);
        PlateStarList image = catalog;
        for (PlateStar& star : image) {
            star.X += static_cast<float>(random.Between(-0.5, 0.5));
            star.Y += static_cast<float>(random.Between(-0.5, 0.5));
        }
        // Every second star is in one list only: the other list has a star elsewhere instead.
        for (std::size_t i = 2; i <= 40; i += 2) image[i] = Scattered(1, random)[1];
        const auto judge = [&](double tried) {
            MatchEvidence evidence = Through(1, 9, catalog, image);
            evidence.Trials = tried;
            return ConfidenceOf(evidence);
        };
        const MatchConfidence once = judge(1);
        EXPECT_TRUE(IsSure(once)) << once.Log10FalseAlarm;
        EXPECT_GE(once.Matched, 16);
        EXPECT_LE(once.Matched, 26);
        // A search with more trials selects better seeds, never ones that cost less.
        const MatchConfidence often = judge(1e6);
        EXPECT_NEAR(often.Log10Trials - once.Log10Trials,
                    Log10TrialsCharge(1e6) - Log10TrialsCharge(1), 1e-9);
        EXPECT_GE(often.Log10LikelihoodRatio, once.Log10LikelihoodRatio);
        for (const MatchConfidence& judged : {once, often}) {
            EXPECT_NEAR(judged.Log10FalseAlarm, judged.Log10Trials - judged.Log10LikelihoodRatio,
                        1e-9);
        }

        // Two pairs agree with any plate, and three are not enough for a match.
        catalog.Resize(3);
        image = catalog;
        const PlateStarList others = Scattered(20, random);
        for (const PlateStar& star : others) image.Add(star);
        EXPECT_FALSE(IsSure(ConfidenceOf(Through(1, 2, catalog, image))));
    }
    double inverses = 0;
    for (int n = 1; n < 1000000; ++n) inverses += std::pow(10, -Log10TrialsCharge(n));
    EXPECT_LT(inverses, 1);
    EXPECT_GT(inverses, 0.5);
}

}  // namespace
}  // namespace vestrel
