// What the quad tables and the cell lists rest on: checked pages of a file, cells of the sphere.
#include <gtest/gtest.h>

#include <cmath>
#include <numbers>

#include "astro/libPolynomial.h"
#include "matching/libCheckedPages.h"
#include "matching/libSkyCells.h"
#include "tests/testSupport.h"

namespace vestrel {
namespace {

/// A paged part between other bytes of a file.
struct MadePart {
    std::string File;
    std::string Content;
    PagedPart Part;
};

MadePart PartOf(Random& random, std::size_t length, std::size_t before) {
    MadePart made;
    made.File = std::string(before, 'b');
    for (std::size_t i = 0; i < length; ++i) {
        made.Content += static_cast<char>(random.Whole(0, 255));
    }
    std::string sums;
    for (std::size_t at = 0; at < length; at += PageBytes) {
        const std::uint64_t sum =
            FastChecksum(made.Content.data() + at, std::min(PageBytes, length - at));
        sums.append(reinterpret_cast<const char*>(&sum), sizeof sum);
    }
    made.Part = {before, length, FastChecksum(sums.data(), sums.size())};
    made.File += made.Content + sums + "after";
    return made;
}

TEST(CheckedPages, GiveEveryByteAndNoneThatWasChanged) {
    const TemporaryFolder folder;
    Random random(4);
    for (const std::size_t length : {1U, 100U, 8191U, 8192U, 8193U, 40000U}) {
        const MadePart made = PartOf(random, length, 1000);
        WriteFile(folder / "part", made.File);
        CheckedPages pages(OpenFile(folder / "part", "rb"), made.Part);
        EXPECT_EQ(made.Part.Stored(), made.File.size() - 1005);
        for (int i = 0; i < 100; ++i) {
            const auto from =
                static_cast<std::size_t>(random.Whole(0, static_cast<int>(length) - 1));
            const auto most = static_cast<int>(length - from);
            std::string bytes(static_cast<std::size_t>(random.Whole(0, most)), '?');
            pages.Copy(from, bytes.data(), bytes.size());
            ASSERT_EQ(bytes, made.Content.substr(from, bytes.size()));
            std::size_t there = 0;
            const auto* place = reinterpret_cast<const char*>(pages.Bytes(from, there));
            ASSERT_EQ(there, std::min(length, (from / PageBytes + 1) * PageBytes) - from);
            ASSERT_EQ(std::string_view(place, there),
                      std::string_view(made.Content).substr(from, there));
        }
        EXPECT_LE(pages.BytesRead(), made.Part.Stored()) << "no page is read twice";
        char beyond[2];
        EXPECT_THROW(pages.Copy(length - 1, beyond, 2), DamagedFile);
        EXPECT_THROW(pages.Copy(length, beyond, 1), DamagedFile);

        // One bit changed anywhere in the part or its checksums.
        for (int i = 0; i < 60; ++i) {
            const auto last = static_cast<int>(1000 + made.Part.Stored()) - 1;
            const auto at = static_cast<std::size_t>(random.Whole(1000, last));
            std::string damaged = made.File;
            damaged[at] = static_cast<char>(damaged[at] ^ 1 << random.Whole(0, 7));
            WriteFile(folder / "damaged", damaged);
            const auto readAll = [&] {
                CheckedPages some(OpenFile(folder / "damaged", "rb"), made.Part);
                std::string all(length, '?');
                some.Copy(0, all.data(), all.size());
            };
            ASSERT_THROW(readAll(), DamagedFile) << at << " of " << length;
        }
        WriteFile(folder / "cut", made.File.substr(0, 1000 + length / 2));
        EXPECT_THROW(CheckedPages(OpenFile(folder / "cut", "rb"), made.Part), DamagedFile);
    }
}

TEST(PagePool, PartsThatShareItKeepTheirBytesWithinItsLimitAndGiveTheirPlacesBack) {
    const TemporaryFolder folder;
    Random random(40);
    std::vector<MadePart> made;
    for (const std::size_t length : {60000U, 100000U, 8192U}) {
        made.push_back(PartOf(random, length, length % 100));
        WriteFile(folder / std::to_string(length), made.back().File);
    }
    // All pages of all parts are 22.
    for (const std::size_t most : {1U, 2U, 7U, 22U}) {
        const auto pool = std::make_shared<PagePool>(most);
        std::vector<CheckedPages> parts;
        const auto open = [&](std::size_t i) {
            const std::string name = std::to_string(made[i].Part.Length);
            return CheckedPages(OpenFile(folder / name, "rb"), made[i].Part, pool);
        };
        for (std::size_t i = 0; i < made.size(); ++i) parts.push_back(open(i));
        for (int turn = 0; turn < 2000; ++turn) {
            const auto i = static_cast<std::size_t>(random.Whole(0, 2));
            const auto length = static_cast<int>(made[i].Content.size());
            const auto from = static_cast<std::size_t>(random.Whole(0, length - 1));
            const auto some = std::min<std::size_t>(static_cast<std::size_t>(length) - from, 300);
            std::string bytes(some, '?');
            parts[i].Copy(from, bytes.data(), some);
            ASSERT_EQ(bytes, made[i].Content.substr(from, some)) << "of another page";
            ASSERT_LE(pool->Held(), most);
            // A part that is opened anew, moved or dropped must not leave its pages to others.
            if (turn % 100 == 50) parts[i] = open(i);
            if (turn % 300 == 150) std::swap(parts[0], parts[1]), std::swap(made[0], made[1]);
            if (turn == 1000) parts.pop_back(), parts.push_back(open(2));
            // With room for all, no page is read twice, whichever part asks.
            if (most == 22 && turn > 1000) {
                ASSERT_LE(parts[2].BytesRead(), made[2].Part.Stored());
            }
        }
    }
}

TEST(CheckedPages, TellNearlyEqualBytesApart) {
    std::string bytes(100, '\0');
    std::vector<std::uint64_t> sums;
    for (std::size_t length = 0; length <= bytes.size(); ++length) {
        sums.push_back(FastChecksum(bytes.data(), length));
    }
    for (std::size_t at = 0; at < bytes.size(); ++at) {
        bytes[at] = 1;
        sums.push_back(FastChecksum(bytes.data(), bytes.size()));
        if (at + 8 < bytes.size()) {  // equal words in another order
            std::swap(bytes[at], bytes[at + 8]);
            bytes[at] = 2;
            sums.push_back(FastChecksum(bytes.data(), bytes.size()));
            bytes[at + 8] = 0;
        }
        bytes[at] = 0;
    }
    std::sort(sums.begin(), sums.end());
    EXPECT_EQ(std::adjacent_find(sums.begin(), sums.end()), sums.end());
}

double Separated(SkyPosition a, SkyPosition b) {
    const double x = std::cos(a.Dec) * std::cos(a.Ra) - std::cos(b.Dec) * std::cos(b.Ra);
    const double y = std::cos(a.Dec) * std::sin(a.Ra) - std::cos(b.Dec) * std::sin(b.Ra);
    const double z = std::sin(a.Dec) - std::sin(b.Dec);
    return 2 * std::asin(std::min(std::sqrt(x * x + y * y + z * z) / 2, 1.0));
}

TEST(SkyCells, OfACircleHoldEveryPositionInIt) {
    constexpr double pi = std::numbers::pi;
    Random random(12);
    const auto anywhere = [&] {
        return SkyPosition{random.Between(0, 2 * pi), std::asin(random.Between(-1, 1))};
    };
    for (const double size : {4.0, 0.7, 0.1, 0.02}) {
        const SkyCells cells(size);
        std::vector<SkyPosition> positions = {
            {0, pi / 2}, {1, -pi / 2}, {0, 0}, {2 * pi - 1e-12, 0}};
        for (int i = 0; i < 3000; ++i) positions.push_back(anywhere());
        for (const SkyPosition& position : positions)
            ASSERT_LT(cells.CellOf(position), cells.Count());
        double touched = 0;
        for (int trial = 0; trial < 200; ++trial) {
            SkyPosition centre = anywhere();
            if (trial % 10 == 0) centre.Dec = pi / 2 - random.Between(0, 0.05);
            if (trial % 10 == 1) centre.Ra = random.Between(0, 1e-3);
            const double radius = std::pow(10, random.Between(-3, 0.1));
            std::vector<int> visits(cells.Count());
            cells.Around(centre, radius, [&](std::uint32_t first, std::uint32_t count) {
                ASSERT_LE(first + count, cells.Count());
                for (std::uint32_t cell = first; cell < first + count; ++cell) ++visits[cell];
            });
            ASSERT_LE(*std::max_element(visits.begin(), visits.end()), 1) << "a cell came twice";
            for (const SkyPosition& position : positions) {
                if (Separated(position, centre) < radius) {
                    ASSERT_EQ(visits[cells.CellOf(position)], 1);
                }
            }
            if (radius < 0.1 && trial % 10 > 1) {
                touched += static_cast<double>(std::count(visits.begin(), visits.end(), 1)) /
                           cells.Count() / 150;
            }
        }
        if (size < 0.2) {
            EXPECT_LT(touched, 0.05) << "circles touch nearly all cells";
        }
    }
}

// The trace of the matrix that takes values to fitted values is the number of coefficients.
TEST(PolynomialFit, RecoversItsPolynomialsAndItsLeveragesSumUpToTheTerms) {
    Random random(31);
    for (int order = 0; order <= Polynomial::MostOrder; ++order) {
        Polynomial truth[2];
        for (Polynomial& polynomial : truth) {
            polynomial.Order = order;
            for (std::size_t term = 0; term < PolynomialTerms(order); ++term) {
                polynomial.Coefficients[term] = random.Between(-1, 1);
            }
        }
        PolynomialFit fit(order, 0.5);
        std::vector<std::pair<double, double>> points;
        for (int i = 0; i < 120; ++i) {
            const double x = random.Between(-1, 1);
            const double y = random.Between(-1, 1);
            points.emplace_back(x, y);
            fit.Add(x, y, truth[0](x, y), truth[1](x, y));
        }
        ASSERT_TRUE(fit.Solve());
        double leverages = 0;
        for (const auto& [x, y] : points) {
            leverages += fit.Leverage(x, y);
            for (int which = 0; which < 2; ++which) {
                EXPECT_NEAR(fit.Fitted(which)(x, y), truth[which](x, y), 1e-9);
            }
        }
        EXPECT_NEAR(leverages, static_cast<double>(PolynomialTerms(order)), 1e-8);
        EXPECT_GT(fit.Leverage(3, 3), order == 0 ? 0 : 10 * fit.Leverage(0, 0));
        // By hand: the variance of the value at the origin is that of the constant.
        EXPECT_NEAR(fit.Covariance(0, 0), fit.Leverage(0, 0), 1e-12);
        if (order > 0) {
            const double both =
                fit.Covariance(0, 0) + 2 * 0.1 * fit.Covariance(0, 1) + 0.01 * fit.Covariance(1, 1);
            if (order == 1) {
                EXPECT_NEAR(fit.Leverage(0.1, 0), both, 1e-12);
            }
            PolynomialFit line(order, 0.5);
            for (const auto& [x, y] : points) line.Add(x, 2 * x, 1, 1);
            EXPECT_FALSE(line.Solve()) << "points on a line determine no plane";
        }
    }
}

}  // namespace
}  // namespace vestrel
