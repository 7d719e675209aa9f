// The order of block ranges.
#include "agent/BlockRange.h"

namespace agent {

bool operator<(BlockRange const& left, BlockRange const& right) {
    if (left.first != right.first) {
        return left.first < right.first;
    }
    return left.count < right.count;
}

} // namespace agent
