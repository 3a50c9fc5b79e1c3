// The horizontal spans that fill a polygon, by the classic integer scanline rule.
#ifndef TESSEL_CORE_POLYGON_FILL_H
#define TESSEL_CORE_POLYGON_FILL_H

#include <functional>
#include <vector>

struct polygon_point {
    int x;
    int y;
};

// Calls span(y, from, to) for the pixels from..to (inclusive) of each row that the polygon
// with these corners fills, rows in ascending order, spans of a row left to right.
//
// The rule: corner i joins corner i-1, and the last corner joins the first; horizontal edges
// are skipped. Row y, for every y from the least to the greatest corner y, takes from each
// edge whose upper end is y1 and lower end y2 (y1 < y2) the crossing
// (y - y1) * (x2 - x1) / (y2 - y1) + x1, with the division truncating towards zero, when
// y1 <= y < y2, or on the greatest row when y1 < y <= y2. The crossings are sorted and joined
// in pairs, the first to the second, the third to the fourth; an unpaired last one is left.
//
// Only rows 0..height-1 and columns 0..width-1 are reported: the spans are cut to them and
// rows outside cost nothing, so corners far outside the picture are harmless. Any int
// coordinates are exact (no overflow). No corners, or one, fill nothing.
// Ownership: borrows corners.
void polygon_fill_spans(const std::vector<polygon_point>& corners, int width, int height,
                        const std::function<void(int y, int from, int to)>& span);

#endif
