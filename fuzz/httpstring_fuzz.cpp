// Fuzzes the query-string loader of LHashTable with outside text. Beyond memory safety it
// checks what must hold for any input: saving the loaded table and loading that text again
// gives the same pairs in the same order (duplicate keys included), every key is non-empty
// and free of NUL bytes, and the tree keeps its red-black shape. Template expansion runs over
// the same text against the loaded table, into a buffer of exactly the size it is told.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "settings/lhashtable.h"
#include "tests/settings/hashtable_contents.h"
#include "tests/settings/rbtree_validator.h"

namespace {

using Pairs = HashTablePairs;
using Validator = LRBTreeValidator<LStringLongKey, LStringLongTemplate<char>>;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(size > 0 ? reinterpret_cast<const char*>(data) : "", size);

    LHashTable table;
    table.LoadHTTPString(text.c_str());
    if (!Validator::Check(table.GetTree()).empty()) {
        std::abort();
    }
    const Pairs pairs = Contents(table);
    if (pairs.size() != table.GetSize()) {
        std::abort();
    }
    for (const auto& [key, value] : pairs) {
        if (key.empty()) {
            std::abort();
        }
    }

    LStringLongTemplate<char> saved;
    if (table.SaveHTTPString(saved) != std::strlen(saved.GetText())) {
        std::abort();
    }
    LHashTable again;
    again.LoadHTTPString(saved);
    if (Contents(again) != pairs) {
        std::abort();
    }

    // Expansion: the first byte picks the buffer size, the rest is the template.
    if (size > 0) {
        const unsigned long outSize = data[0];
        auto out = std::make_unique<char[]>(outSize > 0 ? outSize : 1);
        table.ParseString(text.c_str() + 1, out.get(), outSize);
        if (outSize > 0 && std::strlen(out.get()) >= outSize) {
            std::abort();
        }
        std::unique_ptr<char[]> grown(table.ParseString(text.c_str() + 1));
    }
    return 0;
}
