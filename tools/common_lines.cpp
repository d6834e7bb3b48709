// SPDX-License-Identifier: MIT
// Owns the comparison of two lists of lines. Time grows with the lines and with the pairs of equal
// ones, n log n where no line comes twice, and not with the square of what differs: 2,000 rules of
// which all are new cost as little as 2,000 of which one is.

#include "common_lines.h"

#include <algorithm>
#include <string_view>
#include <unordered_map>

namespace tool {
namespace {

using std::size_t;
using lines = std::vector<std::string>;
using pairs = std::vector<std::pair<size_t, size_t>>;

// The equal lines at the start and at the end of both lists. They are paired without a search, for
// a thousand times the same line would have a million pairs.
struct equal_ends {
    size_t head = 0;
    size_t tail = 0;
};

equal_ends ends_of(const lines &before, const lines &after)
{
    equal_ends e;
    const size_t most = std::min(before.size(), after.size());
    while (e.head < most && before[e.head] == after[e.head]) ++e.head;
    while (e.head + e.tail < most &&
           before[before.size() - 1 - e.tail] == after[after.size() - 1 - e.tail])
        ++e.tail;
    return e;
}

// A pair, and the one in front of it in the longest sequence that ends with it
struct link {
    size_t before;
    size_t after;
    size_t previous;  // in the list of links; no_link: there is none
};
constexpr size_t no_link = static_cast<size_t>(-1);

pairs longest(const lines &before, const lines &after, const equal_ends &e)
{
    std::unordered_map<std::string_view, std::vector<size_t>> places;
    for (size_t j = after.size() - e.tail; j-- > e.head;) places[after[j]].push_back(j);
    std::vector<link> links;
    // Element k is the link at the end of a sequence of k + 1 pairs: the one that leaves most of
    // `after` to pair. Their places in `after` ascend.
    std::vector<size_t> last;
    for (size_t i = e.head; i < before.size() - e.tail; ++i) {
        const auto same = places.find(before[i]);
        if (same == places.end()) continue;
        // From the last place to the first: in the other order line i would pair with itself twice.
        for (const size_t j : same->second) {
            const auto at =
                std::lower_bound(last.begin(), last.end(), j,
                                 [&](size_t of, size_t place) { return links[of].after < place; });
            links.push_back({i, j, at == last.begin() ? no_link : *(at - 1)});
            if (at == last.end())
                last.push_back(links.size() - 1);
            else
                *at = links.size() - 1;
        }
    }
    pairs found;
    for (size_t of = last.empty() ? no_link : last.back(); of != no_link; of = links[of].previous)
        found.emplace_back(links[of].before, links[of].after);
    std::reverse(found.begin(), found.end());
    return found;
}

}  // namespace

pairs common_lines(const lines &before, const lines &after)
{
    const equal_ends e = ends_of(before, after);
    pairs all;
    for (size_t i = 0; i < e.head; ++i) all.emplace_back(i, i);
    const pairs middle = longest(before, after, e);
    all.insert(all.end(), middle.begin(), middle.end());
    for (size_t left = e.tail; left > 0; --left)
        all.emplace_back(before.size() - left, after.size() - left);
    return all;
}

}  // namespace tool
