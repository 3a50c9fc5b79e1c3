// Scanline spans of filled polygons: the integer crossing rule, concave shapes and clipping.
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "core/polygon_fill.h"

namespace {

// The spans as "y:from-to" items, in the order reported.
std::string spans(const std::vector<polygon_point>& corners, int width = 100, int height = 100)
{
    std::string out;
    polygon_fill_spans(corners, width, height, [&](int y, int from, int to) {
        out += (out.empty() ? "" : " ") + std::to_string(y) + ":" + std::to_string(from) + "-" +
               std::to_string(to);
    });
    return out;
}

TEST(PolygonFill, EdgesAndLastRowAreInclusive)
{
    EXPECT_EQ(spans({{0, 0}, {4, 0}, {4, 3}, {0, 3}}), "0:0-4 1:0-4 2:0-4 3:0-4");
    // A vertex shared by two edges is counted once: the apex row has one single-pixel span.
    EXPECT_EQ(spans({{3, 0}, {6, 3}, {0, 3}}), "0:3-3 1:2-4 2:1-5 3:0-6");
}

TEST(PolygonFill, CrossingsTruncateTowardsZero)
{
    EXPECT_EQ(spans({{0, 0}, {5, 3}, {0, 3}}), "0:0-0 1:0-1 2:0-3 3:0-5");
    // -5/3 truncates to -1 and -10/3 to -3, not to -2 and -4 as flooring would.
    EXPECT_EQ(spans({{10, 0}, {5, 3}, {10, 3}}), "0:10-10 1:9-10 2:7-10 3:5-10");
}

TEST(PolygonFill, ConcaveShapeSplitsRows)
{
    EXPECT_EQ(spans({{0, 0}, {3, 3}, {6, 0}, {6, 5}, {0, 5}}),
              "0:0-0 0:6-6 1:0-1 1:5-6 2:0-2 2:4-6 3:0-6 4:0-6 5:0-6");
}

TEST(PolygonFill, DegenerateCornerLists)
{
    EXPECT_EQ(spans({}), "");
    EXPECT_EQ(spans({{2, 2}}), "");
    // Two corners make two edges over the same segment: a one-pixel-wide line.
    EXPECT_EQ(spans({{1, 1}, {4, 3}}), "1:1-1 2:2-2 3:4-4");
}

TEST(PolygonFill, ClipsToThePictureWithoutOverflow)
{
    // Corners two billion pixels out, whose slopes overflow in the product, show through
    // gif_template in tests/images/gif_template_test.py (test_polygon_far_outside).
    EXPECT_EQ(spans({{-5, 1}, {20, 1}, {20, 2}, {-5, 2}}, 10, 10), "1:0-9 2:0-9");
    EXPECT_EQ(spans({{0, 0}, {4, 0}, {4, 3}}, 0, 0), "");
}

} // namespace
