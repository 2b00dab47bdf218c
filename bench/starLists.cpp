#include "bench/starLists.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <utility>

#include "astro/libMath.h"
#include "bench/silentPort.h"
#include "catalog/libCatalogRegion.h"
#include "matching/libAlign.h"
#include "platform/libPlatform.h"
#include "program/mImageData.h"
#include "program/mPlateMatch.h"
#include "tools/libFrameRenderer.h"

namespace vestrel {

namespace {

double Normal(Generator& random) {
    return std::normal_distribution<double>(0, 1)(random);
}
SkyPosition Anywhere(Generator& random) {
    return {Uniform(random, 0, 2 * Pi), std::asin(Uniform(random, -1, 1))};
}

/// A frame without stars: 500 to 4000 pixels wide, for a search of `from` to `to` degrees.
Case EmptyCase(Generator& random, double from, double to) {
    Case list;
    list.Width = static_cast<int>(500 * std::pow(8, Uniform(random, 0, 1)));
    list.Height = static_cast<int>(list.Width * Uniform(random, 0.6, 1));
    list.FieldWidth = from * std::pow(to / from, Uniform(random, 0, 1)) * Pi / 180;
    list.FieldHeight = list.FieldWidth * list.Height / list.Width;
    list.Start = Anywhere(random);
    return list;
}

void AddStar(Case& list, double x, double y) {
    if (x < 0 || y < 0 || x > list.Width - 1 || y > list.Height - 1) return;
    // Stars are added brightest first.
    const double flux = 1e6 / (list.Stars.Count() + 1);
    list.Stars.Add({static_cast<float>(x), static_cast<float>(y), static_cast<float>(flux)});
}

void AddStarAnywhere(Case& list, Generator& random) {
    AddStar(list, Uniform(random, 0, list.Width), Uniform(random, 0, list.Height));
}

void AddStarsAnywhere(Case& list, Generator& random, int fewest, int most) {
    const int count = static_cast<int>(Uniform(random, fewest, most + 1));
    for (int i = 0; i < count; ++i) AddStarAnywhere(list, random);
}

}  // namespace

double Uniform(Generator& random, double from, double to) {
    return std::uniform_real_distribution<double>(from, to)(random);
}

double Separation(SkyPosition a, SkyPosition b) {
    const double cosine = std::sin(a.Dec) * std::sin(b.Dec) +
                          std::cos(a.Dec) * std::cos(b.Dec) * std::cos(a.Ra - b.Ra);
    return std::acos(std::clamp(cosine, -1.0, 1.0));
}

Case FewCase(Generator& random) {
    Case list = EmptyCase(random, 0.7, 20);
    AddStarsAnywhere(list, random, 5, 15);
    return list;
}

Case RandomCase(Generator& random) {
    Case list = EmptyCase(random, 0.7, 20);
    AddStarsAnywhere(list, random, 12, 100);
    return list;
}

Case CoarseCase(Generator& random) {
    Case list = EmptyCase(random, 5, 20);
    list.Width = 512;
    list.Height = static_cast<int>(list.Width * list.FieldHeight / list.FieldWidth);
    AddStarsAnywhere(list, random, 25, 30);
    return list;
}

Case ClumpedCase(Generator& random) {
    Case list = EmptyCase(random, 0.7, 20);
    const int clumps = static_cast<int>(Uniform(random, 1, 6));
    std::vector<std::array<double, 3>> places;
    for (int c = 0; c < clumps; ++c) {
        places.push_back({Uniform(random, 0, list.Width), Uniform(random, 0, list.Height),
                          list.Width * Uniform(random, 0.01, 0.12)});
    }
    for (int i = 0; i < 100; ++i) {
        const auto& [x, y, spread] = places[static_cast<std::size_t>(i % clumps)];
        if (Uniform(random, 0, 1) < 0.2) {
            AddStarAnywhere(list, random);
        } else {
            AddStar(list, x + spread * Normal(random), y + spread * Normal(random));
        }
    }
    return list;
}

Case LinedCase(Generator& random) {
    Case list = EmptyCase(random, 0.7, 20);
    const int lines = static_cast<int>(Uniform(random, 1, 5));
    std::vector<std::array<double, 4>> places;
    for (int l = 0; l < lines; ++l) {
        places.push_back({Uniform(random, 0, list.Width), Uniform(random, 0, list.Height),
                          Uniform(random, 0, list.Width), Uniform(random, 0, list.Height)});
    }
    for (int i = 0; i < 90; ++i) {
        const auto& [x0, y0, x1, y1] = places[static_cast<std::size_t>(i % lines)];
        const double along = Uniform(random, 0, 1);
        if (Uniform(random, 0, 1) < 0.2) {
            AddStarAnywhere(list, random);
        } else {
            AddStar(list, x0 + along * (x1 - x0) + Normal(random),
                    y0 + along * (y1 - y0) + Normal(random));
        }
    }
    return list;
}

Case LatticeCase(Generator& random) {
    Case list = EmptyCase(random, 0.7, 20);
    const double columns = Uniform(random, 5, 16);
    const double rows = Uniform(random, 5, 12);
    const double turn = Uniform(random, 0, 0.3);
    std::vector<std::pair<double, double>> lights;
    for (int c = 0; c < columns; ++c) {
        for (int r = 0; r < rows; ++r) {
            const double x = list.Width * (c + 0.5) / columns + Normal(random);
            const double y = list.Height * (r + 0.5) / rows + Normal(random);
            if (Uniform(random, 0, 1) < 0.7) lights.emplace_back(x + turn * y, y - turn * x);
        }
    }
    std::shuffle(lights.begin(), lights.end(), random);
    for (const auto& [x, y] : lights) {
        if (list.Stars.Count() < 100) AddStar(list, x, y);
    }
    return list;
}

Case SkyCase(const std::filesystem::path& catalog, Generator& random, double from, double to,
             const Exposure& exposure) {
    Case list = EmptyCase(random, from, to);
    FrameGeometry geometry;
    geometry.Width = list.Width;
    geometry.Height = list.Height;
    geometry.Centre = list.Start;
    geometry.RadiansPerPixel = 2 * std::tan(list.FieldWidth / 2) / list.Width;
    geometry.UpPositionAngle = Uniform(random, 0, 2 * Pi);
    geometry.Mirrored = Uniform(random, 0, 1) < 0.5;
    const double half = std::hypot(list.FieldWidth, list.FieldHeight) / 2;
    std::vector<FrameStar> stars =
        CatalogFrameStars(catalog, geometry, MagnitudeLimitFor(half) + 0.5);
    std::erase_if(stars, [&](const FrameStar& star) {
        return star.Place.X < 0 || star.Place.Y < 0 || star.Place.X > list.Width - 1 ||
               star.Place.Y > list.Height - 1 || Uniform(random, 0, 1) < exposure.Lost;
    });
    stars.resize(std::min(stars.size(), exposure.TrueStars));
    if (stars.empty()) return list;
    const int added =
        static_cast<int>(static_cast<double>(stars.size()) * exposure.False / (1 - exposure.False));
    for (const FrameStar& star : RandomFrameStars(geometry, added, stars.front().Sky.Mag,
                                                  stars.back().Sky.Mag + 0.5, random())) {
        stars.push_back(star);
    }
    struct Seen {
        double X, Y, Magnitude;
    };
    std::vector<Seen> seen;
    const double middleX = (list.Width - 1) / 2.0;
    const double middleY = (list.Height - 1) / 2.0;
    const double corner = std::hypot(middleX, middleY);
    const double tilt = exposure.Distortion * Uniform(random, -0.3, 0.3);
    for (const FrameStar& star : stars) {
        const double u = (star.Place.X - middleX) / corner;
        const double v = (star.Place.Y - middleY) / corner;
        const double r2 = u * u + v * v;
        seen.push_back({star.Place.X + exposure.Distortion * r2 * u + tilt * (r2 + 2 * u * u) +
                            exposure.Noise * Normal(random),
                        star.Place.Y + exposure.Distortion * r2 * v + tilt * 2 * u * v +
                            exposure.Noise * Normal(random),
                        star.Sky.Mag + 0.3 * Normal(random)});
    }
    std::sort(seen.begin(), seen.end(),
              [](const Seen& a, const Seen& b) { return a.Magnitude < b.Magnitude; });
    seen.resize(std::min<std::size_t>(seen.size(), 100));
    for (const Seen& star : seen) AddStar(list, star.X, star.Y);
    list.Truth = list.Start;
    Projection plane;
    plane.SetProjectionCentre(*list.Truth, 1);
    list.Start = plane.PlaneToSky(list.FieldWidth * Uniform(random, -0.25, 0.25),
                                  list.FieldHeight * Uniform(random, -0.25, 0.25));
    const double told = Uniform(random, 0.96, 1.04);
    list.FieldWidth *= told;
    list.FieldHeight *= told;
    return list;
}

Case Elsewhere(Case list, Generator& random) {
    const SkyPosition from = list.Truth.value_or(list.Start);
    do list.Start = Anywhere(random);
    while (Separation(list.Start, from) < 0.2 + 4 * (list.FieldWidth + list.FieldHeight));
    list.Truth.reset();
    return list;
}

std::vector<Picture> ReadPictures(const std::filesystem::path& table, bool sky, Generator& random) {
    std::ifstream file(table);
    std::string line;
    std::vector<std::string> names;
    std::vector<Picture> pictures;
    while (std::getline(file, line)) {
        std::vector<std::string> fields;
        std::istringstream text(line);
        for (std::string field; std::getline(text, field, '\t');) fields.push_back(field);
        if (names.empty()) {
            names = fields;
            continue;
        }
        const auto value = [&](const char* name) {
            const auto at = std::find(names.begin(), names.end(), name) - names.begin();
            return static_cast<std::size_t>(at) < fields.size()
                       ? std::atof(fields[static_cast<std::size_t>(at)].c_str())
                       : 0;
        };
        const auto seen = [&](const Picture& picture) { return picture.File == fields[0]; };
        if (std::any_of(pictures.begin(), pictures.end(), seen)) continue;
        const auto state = std::make_unique<ProgramState>();
        SilentPort port;
        if (!OpenImage(*state, port, TextFromPath(table.parent_path() / fields[0])) ||
            !FindPlateStars(*state, port)) {
            continue;
        }
        Picture picture;
        picture.File = fields[0];
        Case& list = picture.List;
        list.Stars = state->PlateStars;
        list.Width = state->Image.Width;
        list.Height = state->Image.Height;
        if (sky) {
            list.FieldWidth = value("width_arcmin") / 60 * Pi / 180;
            list.FieldHeight = value("height_arcmin") / 60 * Pi / 180;
            list.Start = {value("ra_deg") * Pi / 180, value("dec_deg") * Pi / 180};
            list.Truth = list.Start;
        } else {
            list.FieldWidth = std::pow(20 / 0.7, Uniform(random, 0, 1)) * 0.7 * Pi / 180;
            list.FieldHeight = list.FieldWidth * list.Height / list.Width;
            list.Start = Anywhere(random);
        }
        pictures.push_back(std::move(picture));
    }
    return pictures;
}

}  // namespace vestrel
