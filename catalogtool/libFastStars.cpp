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

// Motions over a century (Tycho-2, from Debian's stellarium-data), as those of the Hipparcos
// Catalogue (ESA 1997, from kstars-data) bear the orbits of some double stars: those of Hipparcos
// are taken where both agree within 0.015" a year, and for 61 Cygni. Gaia's for five stars that
// Tycho-2 measured badly (Barnard's, Kapteyn's and Luyten's, GX And, Wolf 1061). Motions in right
// ascension include the cosine of the declination. Positions are those of the Tycho-2 index, where
// it has the star, carried from 1991.25 to 2000 when it is one of those listed for 1991.25. Sorted
// from south to north.
constexpr std::array fastStars = {
    // clang-format off
    FastStar{84.2912, -80.4691, 5.65, 312, 1050},
    FastStar{6.43783, -77.25425, 2.82, 2220, 324},
    FastStar{260.55270, -75.34814, 7.00, -957, -253},
    FastStar{336.15372, -72.25541, 5.29, 1303, -677},
    FastStar{301.38654, -67.32089, 6.08, 845, -673},
    FastStar{302.18170, -66.18207, 3.55, 1210, -1130},
    FastStar{5.01776, -64.87479, 4.23, 1708, 1165},
    FastStar{8.76173, -63.69512, 8.55, 882, -535},
    FastStar{49.44234, -62.57532, 5.53, 1338, 649},
    FastStar{49.5534, -62.5064, 5.24, 1331, 647},
    FastStar{14.33226, -62.24561, 9.50, 1027, 128},
    FastStar{219.89617, -60.83715, 1.35, -3600, 952},
    FastStar{219.90207, -60.83398, -0.01, -3678, 482},
    FastStar{78.27200, -59.64563, 9.40, 937, 515},
    FastStar{10.10695, -59.45460, 5.90, 896, 450},
    FastStar{326.64908, -57.70339, 9.55, 90, -906},
    FastStar{243.45232, -57.57050, 7.53, -854, -1411},
    FastStar{266.64258, -57.31905, 10.75, -1119, -1353},
    FastStar{330.84024, -56.78597, 4.72, 3963, -2528},
    FastStar{189.46762, -52.00146, 10.65, -1024, 31},
    FastStar{32.60827, -50.82368, 6.12, 2150, 673},
    FastStar{335.64941, -50.80747, 8.75, 162, -1056},
    FastStar{230.45062, -48.31763, 5.66, -1622, -277},
    FastStar{262.16644, -46.89519, 9.35, 573, -880},
    FastStar{259.76605, -46.63615, 5.47, 1054, 144},
    FastStar{15.91183, -45.79207, 11.60, -290, -1728},
    FastStar{77.91920, -45.01852, 8.85, 6491, -5709},
    FastStar{264.26526, -44.31921, 10.90, -709, -937},
    FastStar{314.41696, -44.12937, 6.52, -518, -976},
    FastStar{190.19287, -43.56638, 12.20, -782, 693},
    FastStar{49.98188, -43.06978, 4.26, 3038, 726},
    FastStar{20.39414, -41.65641, 10.15, 1240, -456},
    FastStar{327.29939, -41.55901, 11.50, 925, -468},
    FastStar{333.66107, -41.38166, 6.20, 571, -790},
    FastStar{233.05389, -41.27559, 9.30, -1176, -1029},
    FastStar{176.62947, -40.50035, 4.89, -1532, 403},
    FastStar{319.3136, -38.8674, 6.69, -3259, -1147},
    FastStar{245.01462, -37.52899, 10.55, -740, 997},
    FastStar{1.35180, -37.35737, 8.55, 5636, -2338},
    FastStar{58.33206, -37.06642, 12.10, -412, -1083},
    FastStar{302.79974, -36.10120, 5.32, 457, -1575},
    FastStar{346.4668, -35.8531, 7.35, 6767, 1327},
    FastStar{259.7382, -34.9898, 5.91, 1130, -77},
    FastStar{116.39577, -34.17245, 5.36, -274, 1687},
    FastStar{173.62286, -32.83134, 5.96, -669, 826},
    FastStar{33.47343, -32.04124, 10.30, 759, -533},
    FastStar{128.21457, -31.50085, 6.38, -1111, 762},
    FastStar{90.08134, -31.02878, 7.85, -413, 988},
    FastStar{150.29469, -30.39014, 11.40, -1097, 646},
    FastStar{14.61639, -27.85703, 11.75, 1297, -298},
    FastStar{179.48421, -27.70704, 6.98, -1080, -622},
    FastStar{303.82248, -27.03297, 5.73, 1241, -182},
    FastStar{258.8374, -26.6028, 4.33, -474, -1144},
    FastStar{259.05566, -26.54615, 6.33, -480, -1123},
    FastStar{222.38235, -26.11183, 12.30, -1416, -270},
    FastStar{222.38587, -26.10570, 11.80, -1390, 136},
    FastStar{9.33625, -24.76729, 5.60, 1399, -8},
    FastStar{167.38058, -24.59865, 10.40, -797, -446},
    FastStar{222.91861, -24.30413, 7.81, -944, -429},
    FastStar{345.06717, -22.52435, 7.85, -902, 58},
    FastStar{207.43669, -22.11109, 8.15, -1750, -495},
    FastStar{23.10918, -21.90513, 11.15, -589, -888},
    FastStar{144.00684, -21.66079, 10.90, 138, -989},
    FastStar{224.36667, -21.41550, 5.75, 1022, -1737},
    FastStar{224.36053, -21.41155, 8.15, 962, -1678},
    FastStar{305.89935, -21.37062, 8.65, 539, -1057},
    FastStar{235.52726, -19.47176, 11.80, -2005, -1035},
    FastStar{318.39203, -19.32954, 11.70, -244, -1093},
    FastStar{161.41289, -19.11438, 11.00, -1869, -608},
    FastStar{199.6013, -18.3112, 4.74, -1070, -1064},
    FastStar{186.21878, -18.24228, 11.25, 1096, -2308},
    FastStar{77.14603, -18.17202, 10.25, 503, -1399},
    FastStar{31.27018, -17.61462, 10.15, 1304, -170},
    FastStar{18.12766, -16.99898, 12.10, 1209, 641},
    FastStar{316.22241, -16.95886, 11.45, -917, -2038},
    FastStar{101.2871, -16.7161, -1.44, -546, -1223},
    FastStar{227.55403, -16.46292, 9.40, -999, -3545},
    FastStar{227.55453, -16.37940, 9.05, -999, -3542},
    FastStar{26.0170, -15.9375, 3.49, -1722, 854},
    FastStar{167.88806, -14.99138, 9.05, 717, -597},
    FastStar{343.31973, -14.26370, 10.15, 960, -674},
    FastStar{176.67881, -14.01439, 11.65, 715, -788},
    FastStar{317.32260, -13.30251, 10.85, 715, -1994},
    FastStar{247.57523, -12.66261, 10.05, -94, -1184},
    FastStar{124.59978, -12.63217, 5.95, 280, -990},
    FastStar{322.51147, -12.51007, 9.10, 1020, -259},
    FastStar{147.79018, -12.32987, 10.00, 1139, -1458},
    FastStar{219.24907, -12.30534, 6.20, -874, 366},
    FastStar{167.79459, -10.95088, 9.20, -941, 593},
    FastStar{235.76291, -10.93349, 7.21, -1121, -308},
    FastStar{314.19415, -10.44858, 11.35, -42, -1131},
    FastStar{183.79399, -10.31241, 6.11, 32, -1012},
    FastStar{322.82755, -9.79068, 11.95, 1166, -62},
    FastStar{53.23269, -9.45826, 3.70, -976, 18},
    FastStar{172.00199, -9.18237, 12.40, 537, -852},
    FastStar{217.69882, -8.64634, 9.40, -1269, -241},
    FastStar{202.55687, -8.57486, 12.30, -1109, -474},
    FastStar{253.86986, -8.33638, 9.70, -810, -894},
    FastStar{63.8180, -7.6529, 4.43, -2239, -3420},
    FastStar{6.95805, -6.48608, 11.55, 282, -927},
    FastStar{75.20417, -5.75368, 6.23, 548, -1115},
    FastStar{256.26416, -5.06651, 7.75, -916, -1139},
    FastStar{332.41812, -4.64073, 10.40, 1136, -22},
    FastStar{82.86416, -3.67722, 7.98, 765, -2092},
    FastStar{97.34750, -2.81398, 11.10, 695, -619},
    FastStar{210.26328, -2.65488, 9.70, -825, 598},
    FastStar{228.46207, -1.35139, 6.58, -1261, -504},
    FastStar{33.66790, -1.20142, 9.05, 995, -80},
    FastStar{182.09250, -0.48263, 11.25, -961, -89},
    FastStar{253.24501, -0.02642, 6.66, -711, -1484},
    FastStar{157.23146, 0.84099, 9.65, -602, -734},
    FastStar{46.61140, 1.96517, 9.05, 390, -926},
    FastStar{261.43848, 2.11143, 7.55, -585, -1190},
    FastStar{271.36404, 2.49979, 4.22, 276, -1092},
    FastStar{288.06081, 2.88640, 11.05, 1789, -520},
    FastStar{33.08747, 3.57561, 10.00, -1761, -1852},
    FastStar{247.61858, 4.17822, 7.28, -431, -1398},
    FastStar{269.45209, 4.69328, 9.50, -802, 10362},
    FastStar{289.23026, 5.16889, 9.10, -577, -1335},
    FastStar{114.82549, 5.22499, 0.40, -717, -1035},
    FastStar{111.85209, 5.22580, 9.80, 571, -3691},
    FastStar{12.09574, 5.28063, 5.75, 759, -1137},
    FastStar{12.29126, 5.38861, 12.35, 1237, -2709},
    FastStar{30.71725, 5.70569, 12.25, 2326, -711},
    FastStar{284.50058, 5.90812, 9.20, -196, -1221},
    FastStar{39.0204, 6.8869, 5.79, 1806, 1442},
    FastStar{172.11562, 7.51729, 10.20, -275, -1217},
    FastStar{170.93573, 8.56350, 11.15, -1002, 195},
    FastStar{191.98594, 9.75140, 11.35, -1007, -460},
    FastStar{92.72831, 10.31803, 10.70, 52, -941},
    FastStar{202.49910, 10.37716, 9.05, 1128, -1074},
    FastStar{291.24249, 11.94441, 5.15, 721, 643},
    FastStar{206.43240, 14.89152, 8.45, 1778, -1456},
    FastStar{217.37378, 15.53264, 10.65, -1053, 1301},
    FastStar{239.1133, 15.6616, 3.85, 311, -1282},
    FastStar{344.14502, 16.55343, 8.65, -1034, -284},
    FastStar{350.40605, 17.29039, 11.70, -534, -1383},
    FastStar{322.40338, 17.64329, 10.30, 1009, 377},
    FastStar{317.99597, 17.72775, 7.35, -123, -899},
    FastStar{206.27118, 17.78544, 9.75, 456, -1833},
    FastStar{264.47229, 18.59171, 9.60, 927, 983},
    FastStar{70.73239, 18.95815, 9.95, 657, -1118},
    FastStar{213.91530, 19.18242, 0.16, -1097, -1996},
    FastStar{90.81194, 19.36075, 9.55, 672, -622},
    FastStar{4.06095, 19.86045, 11.75, 715, -758},
    FastStar{117.06830, 20.36818, 11.45, 1453, -988},
    FastStar{300.96719, 23.34068, 7.28, -1007, -913},
    FastStar{216.43115, 23.61708, 9.75, 794, -1118},
    FastStar{41.06463, 25.52337, 10.55, 863, -363},
    FastStar{0.54245, 27.08209, 5.80, 830, -989},
    FastStar{197.96831, 27.87818, 4.25, -806, 894},
    FastStar{120.13387, 29.21235, 6.99, -168, -1170},
    FastStar{356.29138, 29.56187, 8.40, 948, -4},
    FastStar{118.38799, 30.60507, 8.25, 704, -1831},
    FastStar{224.38454, 31.39579, 11.90, -689, -1166},
    FastStar{150.18453, 32.30937, 11.90, -1006, -664},
    FastStar{260.16486, 32.46775, 5.39, 136, -1044},
    FastStar{34.26347, 34.22424, 4.87, 1152, -253},
    FastStar{43.02974, 34.38934, 9.55, 996, -990},
    FastStar{127.09223, 35.01643, 11.50, -995, -323},
    FastStar{60.81249, 35.27329, 8.50, 1732, -1356},
    FastStar{165.83415, 35.96989, 7.49, -580, -4767},
    FastStar{264.90363, 37.18375, 8.35, -498, -820},
    FastStar{52.22142, 37.38245, 11.10, 1121, -1066},
    FastStar{178.2449, 37.7187, 6.43, 4006, -5814},
    FastStar{107.50765, 38.52946, 11.65, -442, -946},
    FastStar{316.73029, 38.74202, 6.06, 4108, 3153},
    FastStar{316.7248, 38.7494, 5.20, 4155, 3259},
    FastStar{56.75880, 41.42724, 7.67, 599, -1240},
    FastStar{258.22952, 42.33179, 10.05, -1021, -339},
    FastStar{166.36905, 43.52677, 8.80, -4418, 943},
    FastStar{4.59536, 44.02295, 8.05, 2892, 412},
    FastStar{258.03259, 45.66607, 10.00, 253, -1572},
    FastStar{246.03885, 48.35291, 10.25, 1146, -452},
    FastStar{152.84227, 49.45424, 6.60, -1358, -502},
    FastStar{47.26675, 49.61328, 4.05, 1271, -88},
    FastStar{176.64647, 50.88186, 9.90, -870, -544},
    FastStar{143.2143, 51.6773, 3.18, -949, -538},
    FastStar{138.60286, 52.68636, 7.70, -1551, -656},
    FastStar{138.59489, 52.68661, 7.64, -1564, -571},
    FastStar{75.84956, 53.12846, 9.95, 1304, -1539},
    FastStar{223.79602, 53.68035, 7.74, -970, 487},
    FastStar{17.06819, 54.92029, 5.17, 3421, -1599},
    FastStar{348.32074, 57.16836, 5.57, 2074, 295},
    FastStar{12.2762, 57.8152, 3.46, 1080, -558},
    FastStar{12.87433, 58.30202, 10.65, 1568, 404},
    FastStar{352.84253, 59.16552, 6.76, 1106, 116},
    FastStar{103.51775, 60.87175, 11.00, 518, -998},
    FastStar{46.04016, 61.70583, 6.64, 726, -690},
    FastStar{16.78415, 63.94133, 9.00, 1548, 317},
    FastStar{170.02011, 65.84649, 9.30, -2950, 186},
    FastStar{52.82251, 66.73029, 9.90, 1193, -1066},
    FastStar{8.12273, 67.23560, 10.45, 1741, -247},
    FastStar{175.08463, 67.25900, 12.20, 265, -3157},
    FastStar{129.10606, 67.29507, 9.25, -1064, 49},
    FastStar{264.10794, 68.33914, 9.15, -320, -1270},
    FastStar{293.08997, 69.66119, 4.67, 598, -1740},
    FastStar{223.03127, 71.66246, 10.85, -867, -408},
    FastStar{15.63432, 71.67981, 9.95, 1745, -381},
    FastStar{235.31931, 75.99277, 12.20, 808, -740},
    FastStar{146.70206, 76.04393, 10.60, 87, -998},
    FastStar{139.37706, 77.24463, 10.90, -1071, 5},
    FastStar{92.58269, 82.10677, 10.45, 50, -1335},
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
