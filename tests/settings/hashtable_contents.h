// Test and fuzz helper: an LHashTable's pairs in iteration order (equal keys in the order
// they were attached), copied out as std::strings so that tables and models compare directly.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "settings/lhashtable.h"

using HashTablePairs = std::vector<std::pair<std::string, std::string>>;

inline HashTablePairs Contents(const LHashTable& table) {
    HashTablePairs out;
    for (LHashTable::ConstIterator it(table); it; ++it) {
        out.emplace_back(it.GetParm(), it.GetData());
    }
    return out;
}
