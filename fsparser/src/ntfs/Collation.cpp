// The order of names and security identifiers.
#include "agent/core/fs/NTFSParser.h"

#include <algorithm>
#include <stdexcept>

namespace agent::core::fs {

namespace {

int compare(std::uint64_t left, std::uint64_t right) {
    if (left == right) {
        return 0;
    }
    return left < right ? -1 : 1;
}

} // namespace

int NTFSParser::collate_unicode_names(wchar_t const* name1, unsigned int length1, unsigned short const* name2,
                                      unsigned int length2, bool ignoreCase, unsigned short const* table,
                                      unsigned int tableLength) const {
    unsigned int const common = std::min(length1, length2);
    if (common == 0) {
        return compare(length1, length2);
    }
    if (table == nullptr) {
        throw std::invalid_argument("Upcase file is not read.");
    }
    auto const unit1 = [name1](unsigned int i) { return static_cast<std::uint16_t>(name1[i]); };
    auto const upper = [table, tableLength](std::uint16_t unit) { return unit < tableLength ? table[unit] : unit; };
    unsigned int start = 0;
    while (!ignoreCase && start < common && unit1(start) == name2[start]) {
        ++start;
    }
    for (unsigned int i = start; i < common; ++i) {
        if (int const order = compare(upper(unit1(i)), upper(name2[i])); order != 0) {
            return order;
        }
    }
    if (length1 != length2 || ignoreCase || start == common) {
        return compare(length1, length2);
    }
    return compare(unit1(start), name2[start]); // equal but for case: the exact units decide
}

} // namespace agent::core::fs
