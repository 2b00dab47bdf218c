// Numbers, texts, angles and the projection.

#include <gtest/gtest.h>

#include "astro/libConversions.h"
#include "astro/libMath.h"

namespace vestrel {

TEST(Sexagesimal, TwentyFourHoursIsStillARightAscension) {
    EXPECT_EQ(ParseRA("24 00 00"), TwoPi);
    EXPECT_EQ(ParseRA("24 00 01"), InvalidAngle);
}

}  // namespace vestrel
