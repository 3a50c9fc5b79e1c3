// Scanline polygon fill with an active edge list: each row looks only at the edges that
// reach it, which gives the same crossings as walking every edge on every row.
#include "core/polygon_fill.h"

#include <algorithm>

namespace {

// An edge with its upper end first: y1 < y2.
struct edge {
    int x1, y1, x2, y2;
};

std::vector<edge> polygon_edges(const std::vector<polygon_point>& corners)
{
    std::vector<edge> edges;
    size_t n = corners.size();
    for (size_t i = 0; i < n; i++) {
        const polygon_point& a = corners[i == 0 ? n - 1 : i - 1];
        const polygon_point& b = corners[i];
        if (a.y < b.y)
            edges.push_back({a.x, a.y, b.x, b.y});
        else if (a.y > b.y)
            edges.push_back({b.x, b.y, a.x, a.y});
    }
    std::sort(edges.begin(), edges.end(), [](const edge& a, const edge& b) { return a.y1 < b.y1; });
    return edges;
}

// The crossing of row y, held within -1..width: clamping keeps the order of the crossings,
// and the spans are cut to the picture afterwards anyway.
int crossing(const edge& e, int y, int width)
{
    // Differences of two ints need 33 bits and their product 66: 128-bit arithmetic is exact.
    __int128 x =
        (__int128)((long long)y - e.y1) * ((long long)e.x2 - e.x1) / ((long long)e.y2 - e.y1) +
        e.x1;
    return x < -1 ? -1 : x > width ? width : (int)x;
}

} // namespace

void polygon_fill_spans(const std::vector<polygon_point>& corners, int width, int height,
                        const std::function<void(int y, int from, int to)>& span)
{
    if (corners.size() < 2 || width <= 0 || height <= 0)
        return;
    auto [low, high] = std::minmax_element(corners.begin(), corners.end(),
                                           [](auto& a, auto& b) { return a.y < b.y; });
    int min_y = low->y, max_y = high->y;
    std::vector<edge> edges = polygon_edges(corners);
    std::vector<edge> active;
    std::vector<int> xs;
    size_t next = 0;
    for (int y = std::max(min_y, 0); y <= std::min(max_y, height - 1); y++) {
        while (next < edges.size() && edges[next].y1 <= y)
            active.push_back(edges[next++]);
        std::erase_if(active, [y](const edge& e) { return e.y2 < y; });
        xs.clear();
        for (const edge& e : active)
            if ((y >= e.y1 && y < e.y2) || (y == max_y && y > e.y1 && y <= e.y2))
                xs.push_back(crossing(e, y, width));
        std::sort(xs.begin(), xs.end());
        for (size_t i = 0; i + 1 < xs.size(); i += 2) {
            int from = std::max(xs[i], 0), to = std::min(xs[i + 1], width - 1);
            if (from <= to)
                span(y, from, to);
        }
    }
}
