#include "catalogtool/libFastStars.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>

#include "astro/libMath.h"

namespace vestrel {

namespace {

constexpr double arcsecond = RadiansPerDegree / 3600;

/// J2000 position at epoch 2000 in degrees, V magnitude, milliarcseconds per year.
struct FastStar {
    double Ra, Dec, Mag, MotionRa, MotionDec;
};

// Motions of the Hipparcos Catalogue (ESA 1997), from Debian's kstars-data; those in right
// ascension include the cosine of the declination. Positions of 1991.25 were moved to 2000. They
// lie within 1" of those of the Tycho-2 index or of the list of bright stars, except for three
// stars that neither has. Sorted from south to north.
constexpr std::array fastStars = {
    // clang-format off
    FastStar{84.2912, -80.4691, 5.65, 312, 1050},
    FastStar{6.4378, -77.2543, 2.82, 2220, 324},
    FastStar{336.1537, -72.2554, 5.29, 1303, -677},
    FastStar{301.3865, -67.3209, 6.08, 845, -673},
    FastStar{302.1817, -66.1821, 3.55, 1210, -1130},
    FastStar{5.0178, -64.8748, 4.23, 1708, 1165},
    FastStar{49.4424, -62.5753, 5.53, 1338, 649},
    FastStar{49.5534, -62.5064, 5.24, 1331, 647},
    FastStar{219.8962, -60.8372, 1.35, -3600, 952},
    FastStar{219.9021, -60.8340, -0.01, -3678, 482},
    FastStar{10.1070, -59.4546, 5.90, 896, 450},
    FastStar{243.4523, -57.5705, 7.53, -854, -1411},
    FastStar{330.8402, -56.7860, 4.72, 3963, -2528},
    FastStar{32.6081, -50.8237, 6.12, 2093, 654},
    FastStar{230.4506, -48.3176, 5.66, -1622, -277},
    FastStar{259.7660, -46.6362, 5.47, 1035, 109},
    FastStar{314.4170, -44.1294, 6.52, -518, -976},
    FastStar{49.9819, -43.0698, 4.26, 3038, 726},
    FastStar{176.6295, -40.5003, 4.89, -1532, 403},
    FastStar{319.3136, -38.8674, 6.69, -3259, -1147},
    FastStar{302.7997, -36.1012, 5.32, 457, -1575},
    FastStar{346.4668, -35.8531, 7.35, 6767, 1327},
    FastStar{259.7382, -34.9898, 5.91, 1149, -91},
    FastStar{116.3959, -34.1724, 5.36, -221, 1723},
    FastStar{173.6229, -32.8313, 5.96, -669, 826},
    FastStar{128.2146, -31.5008, 6.38, -1111, 762},
    FastStar{179.4842, -27.7071, 6.98, -1062, -625},
    FastStar{303.8225, -27.0330, 5.73, 1241, -182},
    FastStar{258.8374, -26.6028, 4.33, -474, -1144},
    FastStar{259.0557, -26.5462, 6.33, -480, -1123},
    FastStar{9.3363, -24.7673, 5.60, 1399, -8},
    FastStar{222.9186, -24.3041, 7.81, -944, -429},
    FastStar{224.3666, -21.4155, 5.75, 1022, -1737},
    FastStar{199.6013, -18.3112, 4.74, -1070, -1064},
    FastStar{101.2871, -16.7161, -1.44, -546, -1223},
    FastStar{26.0170, -15.9375, 3.49, -1722, 854},
    FastStar{124.5998, -12.6322, 5.95, 280, -990},
    FastStar{235.7629, -10.9335, 7.21, -1121, -308},
    FastStar{183.7940, -10.3124, 6.11, 32, -1012},
    FastStar{63.8180, -7.6529, 4.43, -2239, -3420},
    FastStar{75.2042, -5.7537, 6.23, 548, -1115},
    FastStar{256.2641, -5.0665, 7.75, -935, -1140},
    FastStar{82.8641, -3.6772, 7.98, 744, -2093},
    FastStar{228.4621, -1.3514, 6.58, -1261, -504},
    FastStar{253.2450, -0.0264, 6.66, -727, -1488},
    FastStar{261.4385, 2.1114, 7.55, -585, -1190},
    FastStar{271.3640, 2.4998, 4.22, 276, -1092},
    FastStar{247.6186, 4.1782, 7.28, -431, -1398},
    FastStar{114.8255, 5.2250, 0.40, -717, -1035},
    FastStar{12.0957, 5.2806, 5.75, 759, -1137},
    FastStar{39.0204, 6.8869, 5.79, 1806, 1442},
    FastStar{239.1133, 15.6616, 3.85, 311, -1282},
    FastStar{213.9153, 19.1824, 0.16, -1097, -1996},
    FastStar{300.9672, 23.3407, 7.28, -1007, -913},
    FastStar{0.5423, 27.0823, 5.80, 779, -919},
    FastStar{197.9683, 27.8782, 4.25, -806, 894},
    FastStar{120.1339, 29.2123, 6.99, -168, -1170},
    FastStar{260.1649, 32.4677, 5.39, 136, -1044},
    FastStar{34.2635, 34.2242, 4.87, 1152, -253},
    FastStar{165.8341, 35.9699, 7.49, -580, -4767},
    FastStar{178.2449, 37.7187, 6.43, 4006, -5814},
    FastStar{316.7303, 38.7421, 6.06, 4108, 3153},
    FastStar{316.7248, 38.7494, 5.20, 4155, 3259},
    FastStar{56.7588, 41.4273, 7.67, 599, -1240},
    FastStar{152.8423, 49.4542, 6.60, -1358, -502},
    FastStar{47.2668, 49.6133, 4.05, 1271, -88},
    FastStar{143.2143, 51.6773, 3.18, -949, -538},
    FastStar{138.6029, 52.6864, 7.70, -1551, -656},
    FastStar{138.5949, 52.6866, 7.64, -1564, -571},
    FastStar{223.7960, 53.6804, 7.74, -970, 487},
    FastStar{17.0683, 54.9203, 5.17, 3421, -1599},
    FastStar{348.3207, 57.1684, 5.57, 2074, 295},
    FastStar{12.2762, 57.8152, 3.46, 1080, -558},
    FastStar{352.8425, 59.1655, 6.76, 1106, 116},
    FastStar{46.0402, 61.7058, 6.64, 726, -690},
    FastStar{293.0900, 69.6612, 4.67, 598, -1740},
    // clang-format on
};

}  // namespace

SkyStar MovedStar(const SkyStar& star, const ProperMotion& motion, double years) {
    const double east = motion.Ra * arcsecond / 1000 * years;
    const double north = motion.Dec * arcsecond / 1000 * years;
    const double cosDec = std::cos(star.Dec);
    const double sinDec = std::sin(star.Dec);
    // Computed on the tangent plane at the star, which avoids the poles and a division by the
    // cosine.
    const double outward = cosDec - north * sinDec;
    SkyStar moved = star;
    // Nearly all stars move so little that the first terms of both series have errors below 1e-13.
    constexpr double little = 1e-5;
    const bool isLittle = std::fabs(north) + std::fabs(east) < little * cosDec;
    if (isLittle) {
        const double aside = east / outward;
        moved.Ra += aside;
        moved.Dec += north - aside * aside / 2 * sinDec * cosDec;
    } else {
        moved.Ra += std::atan2(east, outward);
        moved.Dec = std::atan2(sinDec + north * cosDec, std::hypot(outward, east));
    }
    if (moved.Ra < 0) moved.Ra += 2 * std::numbers::pi;
    if (moved.Ra >= 2 * std::numbers::pi) moved.Ra -= 2 * std::numbers::pi;
    return moved;
}

std::optional<SkyStar> FastStarAt(const SkyStar& star, double epoch) {
    constexpr double near = 3 * arcsecond;
    constexpr double farthest = 100 / 3600.0;  // degrees; none moved as far from 1991 to 2000
    const double dec = star.Dec / RadiansPerDegree;
    const auto* known =
        std::lower_bound(fastStars.begin(), fastStars.end(), dec - farthest,
                         [](const FastStar& fast, double limit) { return fast.Dec < limit; });
    for (; known != fastStars.end() && known->Dec < dec + farthest; ++known) {
        if (std::fabs(known->Mag - star.Mag) >= 1) continue;
        const SkyStar at2000{known->Ra * RadiansPerDegree, known->Dec * RadiansPerDegree, star.Mag};
        const ProperMotion motion{known->MotionRa, known->MotionDec};
        for (const double years : {0.0, 1991.25 - 2000}) {
            const SkyStar place = MovedStar(at2000, motion, years);
            const double east =
                std::remainder(star.Ra - place.Ra, 2 * std::numbers::pi) * std::cos(place.Dec);
            if (std::hypot(east, star.Dec - place.Dec) < near) {
                return MovedStar(at2000, motion, epoch - 2000);
            }
        }
    }
    return std::nullopt;
}

}  // namespace vestrel
