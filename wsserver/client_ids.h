#pragma once

#include <limits>
#include <map>

struct lws;

/// The client id behind `last`: the next number; after the largest int it goes on at 1, passing over ids in use.
/// Fewer ids than ints are in use, so there always is one.
inline int nextClientId(int last, const std::map<int, lws*>& inUse) {
    do {
        last = last == std::numeric_limits<int>::max() ? 1 : last + 1;
    } while (inUse.find(last) != inUse.end());
    return last;
}
