// The XML reader and writer. The reader is deliberately lenient: it takes whatever text it
// is given, records the first mistake with its line and column, and builds as much of the
// tree as the text allows. Nothing here recurses on the document's depth except the deep
// copy and the writer, which only ever see trees that a parse has already built in memory.
#include "settings/lxml.h"

#include <strings.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "debug/lmemory.h"
#include "file/lfile.h"
#include "file/lfile_text.h"
#include "thread/lprocess_interface.h"

namespace {

constexpr unsigned long kNameSize = 260;
constexpr unsigned long kCancelInterval = 512;
// An entity name and its ';' must come within this many characters.
constexpr int kEntityLimit = 23;

constexpr const char kSemicolonMessage[] =
    "Strings starting with an ampersand (&) must end with a semicolon (;). Either replace "
    "the '&' with '&amp;' or add a ';' at the end of the control string.";
constexpr const char kEofMessage[] =
    "(EOF) Element <%s> should be terminated with </%s>. Check you have terminated your "
    "element properly.";

using Loader = LXMLLoaderTemplate<char>;

bool IsNameStop(char c) {
    return c == '/' || c == '=' || c == '>' || c == ' ' || c == '\t' || c == '\n';
}

// Which characters end a run of plain name or value characters, by quoting state: outside
// quotes the stops, both quotes, '&', line ends and the end; inside quotes only the closing
// quote, '&', line ends and the end. A plain character is one the cursor returns as it is
// and the readers store as it is, so a run can be taken in bulk.
enum : unsigned char { kRunBare = 1, kRunDouble = 2, kRunSingle = 4 };
constexpr std::array<unsigned char, 256> kRunEnds = [] {
    std::array<unsigned char, 256> table{};
    for (const unsigned char c : {'\0', '\r', '\n', '&'}) {
        table[c] = kRunBare | kRunDouble | kRunSingle;
    }
    for (const unsigned char c : {'/', '=', '>', ' ', '\t', '"', '\''}) {
        table[c] |= kRunBare;
    }
    table['"'] |= kRunDouble;
    table['\''] |= kRunSingle;
    return table;
}();

// Consumes the plain characters ahead for the quoting state; returns where they start and
// sets their number. Nothing here tests for cancelling: name and value reading never did.
// Every stop set holds NUL, so a character is only looked at once the one before it was
// plain, and the scan never passes the end of the text.
template <unsigned char Mask>
const char* TakeRunOf(Loader& loader, unsigned long& count) {
    const char* start = loader.m_pText + loader.m_nPosition;
    const auto* p = reinterpret_cast<const unsigned char*>(start);
    unsigned long n = 0;
    for (;; n += 4) {
        if ((kRunEnds[p[n]] & Mask) != 0) {
            break;
        }
        if ((kRunEnds[p[n + 1]] & Mask) != 0) {
            n += 1;
            break;
        }
        if ((kRunEnds[p[n + 2]] & Mask) != 0) {
            n += 2;
            break;
        }
        if ((kRunEnds[p[n + 3]] & Mask) != 0) {
            n += 3;
            break;
        }
    }
    loader.m_nPosition += n;
    loader.m_nColumn += static_cast<int>(n);
    count = n;
    return start;
}

#if defined(__SSE2__)
// Quoted runs (attribute values, the longest runs in a settings file) are scanned sixteen
// characters at a time for the five characters that end them. The loads are aligned, so none
// reaches into another page: bytes before the run or past the text's NUL may be read but never
// count, which is why the address checker is told to leave this function alone.
__attribute__((no_sanitize("address"))) const char* TakeQuotedRun(Loader& loader, char quote,
                                                                  unsigned long& count) {
    const char* start = loader.m_pText + loader.m_nPosition;
    const auto offset = reinterpret_cast<std::uintptr_t>(start) & 15;
    const auto* block = reinterpret_cast<const __m128i*>(start - offset);
    const __m128i quotes = _mm_set1_epi8(quote);
    const __m128i amp = _mm_set1_epi8('&');
    const __m128i cr = _mm_set1_epi8('\r');
    const __m128i lf = _mm_set1_epi8('\n');
    const __m128i zero = _mm_setzero_si128();
    unsigned long n = 0;
    unsigned mask = 0;
    for (;; ++block) {
        const __m128i v = *block;  // read here, in the function the checker leaves alone
        const __m128i hit =
            _mm_or_si128(_mm_or_si128(_mm_cmpeq_epi8(v, quotes), _mm_cmpeq_epi8(v, amp)),
                         _mm_or_si128(_mm_or_si128(_mm_cmpeq_epi8(v, cr), _mm_cmpeq_epi8(v, lf)),
                                      _mm_cmpeq_epi8(v, zero)));
        mask = static_cast<unsigned>(_mm_movemask_epi8(hit));
        if (n == 0) {
            mask >>= offset;  // the bytes before the run
            if (mask != 0) {
                break;
            }
            n = 16 - offset;
        } else if (mask != 0) {
            break;
        } else {
            n += 16;
        }
    }
    n += static_cast<unsigned long>(__builtin_ctz(mask));
    loader.m_nPosition += n;
    loader.m_nColumn += static_cast<int>(n);
    count = n;
    return start;
}
#endif

const char* TakeLongerRun(Loader& loader, char quote, unsigned long& count) {
    if (quote == 0) {
        return TakeRunOf<kRunBare>(loader, count);
    }
#if defined(__SSE2__)
    return TakeQuotedRun(loader, quote, count);
#else
    return quote == '"' ? TakeRunOf<kRunDouble>(loader, count)
                        : TakeRunOf<kRunSingle>(loader, count);
#endif
}

// Many runs are empty (a value's opening quote, the end of a tag), so that case is decided
// here without the scan.
inline const char* TakeRun(Loader& loader, char quote, unsigned long& count) {
    const char* start = loader.m_pText + loader.m_nPosition;
    const unsigned char mask = quote == 0 ? kRunBare : (quote == '"' ? kRunDouble : kRunSingle);
    if ((kRunEnds[static_cast<unsigned char>(*start)] & mask) != 0) {
        count = 0;
        return start;
    }
    return TakeLongerRun(loader, quote, count);
}

// Copies a run of characters; the short runs that make up most of a document are moved in
// two overlapping fixed-size steps instead of a call to memcpy.
inline void CopyRun(char* to, const char* from, unsigned long n) {
    if (n >= 8 && n <= 64) {
        if (n <= 16) {
            std::memcpy(to, from, 8);
            std::memcpy(to + n - 8, from + n - 8, 8);
        } else if (n <= 32) {
            std::memcpy(to, from, 16);
            std::memcpy(to + n - 16, from + n - 16, 16);
        } else {
            std::memcpy(to, from, 32);
            std::memcpy(to + n - 32, from + n - 32, 32);
        }
    } else if (n < 8) {
        if (n >= 4) {
            std::memcpy(to, from, 4);
            std::memcpy(to + n - 4, from + n - 4, 4);
        } else {
            for (unsigned long i = 0; i < n; ++i) {
                to[i] = from[i];
            }
        }
    } else {
        std::memcpy(to, from, n);
    }
}

// Code point 0 and values beyond the Unicode range have no UTF-8 form and give nothing.
template <typename Sink>
void PutUTF8(uint32_t cp, Sink&& put) {
    if (cp == 0 || cp > 0x10FFFF) {
        return;
    }
    if (cp < 0x80) {
        put(static_cast<char>(cp));
    } else if (cp < 0x800) {
        put(static_cast<char>(0xC0 | (cp >> 6)));
        put(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
        put(static_cast<char>(0xE0 | (cp >> 12)));
        put(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        put(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
        put(static_cast<char>(0xF0 | (cp >> 18)));
        put(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
        put(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        put(static_cast<char>(0x80 | (cp & 0x3F)));
    }
}

// Expands the entity after '&' through put, one character at a time.
template <typename Sink>
void XMLAmpChar(Loader& loader, Sink&& put) {
    // The named entities are matched where they stand (the text is one terminated buffer).
    // Each test stops at the first character that differs, so none looks past its end.
    const char* p = loader.m_pText + loader.m_nPosition;
    char named = 0;
    int length = 0;
    if (p[0] == 'a' && p[1] == 'm' && p[2] == 'p' && p[3] == ';') {
        named = '&';
        length = 4;
    } else if ((p[0] == 'l' || p[0] == 'g') && p[1] == 't' && p[2] == ';') {
        named = p[0] == 'l' ? '<' : '>';
        length = 3;
    } else if (p[0] == 'q' && p[1] == 'u' && p[2] == 'o' && p[3] == 't' && p[4] == ';') {
        named = '"';
        length = 5;
    } else if (p[0] == 'a' && p[1] == 'p' && p[2] == 'o' && p[3] == 's' && p[4] == ';') {
        named = '\'';
        length = 5;
    }
    if (length != 0) {
        loader.m_nPosition += static_cast<unsigned long>(length);
        loader.m_nColumn += length;
        put(named);
        return;
    }
    // Anything else is a character reference, or an entity this reader does not know.
    char entity[kEntityLimit + 1];
    int n = 0;
    for (;;) {
        const char c = loader.GetChar();
        if (c == ';') {
            break;
        }
        if (c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == 0 || n + 1 >= kEntityLimit) {
            loader.SetError("%s", kSemicolonMessage);
            return;
        }
        entity[n++] = c;
    }
    entity[n] = 0;
    if (entity[0] == '#') {
        uint32_t cp = 0;
        if (entity[1] == 'x') {
            for (const char* p = entity + 2; *p != 0; ++p) {
                if (const int d = LHexDigitValue(*p); d >= 0) {
                    cp = cp * 16 + static_cast<uint32_t>(d);
                }
            }
        } else {
            for (const char* p = entity + 1; *p != 0; ++p) {
                if (*p >= '0' && *p <= '9') {
                    cp = cp * 10 + static_cast<uint32_t>(*p - '0');
                }
            }
        }
        PutUTF8(cp, put);
        return;
    }
    put('&');
}

// Reads a tag or attribute name into a 260-byte buffer (259 characters kept) and returns
// the character that ended it. The three special openings stop as soon as they are
// complete, leaving the next character unread so that it becomes part of the node's text.
char XMLLoadTagSlowly(Loader& loader, char* out, unsigned long& length) {
    unsigned long& n = length;
    n = 0;
    char quote = 0;
    bool early = false;
    auto store = [&](char c) {
        if (n < kNameSize - 1) {
            out[n++] = c;
            if ((n == 3 && std::memcmp(out, "!--", 3) == 0) ||
                (n == 8 &&
                 (std::memcmp(out, "!DOCTYPE", 8) == 0 || std::memcmp(out, "![CDATA[", 8) == 0))) {
                early = true;
            }
        }
    };
    for (;;) {
        // Runs go in bulk once the early stops can no longer apply (they are decided when the
        // 3rd and 8th characters of a name beginning with '!' are stored).
        if (n >= 8 || (n > 0 ? out[0] != '!' : loader.PeekChar() != '!')) {
            unsigned long count = 0;
            const char* run = TakeRun(loader, quote, count);
            const unsigned long keep = std::min(count, kNameSize - 1 - n);
            CopyRun(out + n, run, keep);
            n += keep;
        }
        const char c = loader.GetChar();
        if (c == 0) {
            out[n] = 0;
            return 0;
        }
        if (quote != 0) {
            if (c == quote) {
                quote = 0;
                continue;
            }
        } else if (IsNameStop(c)) {
            out[n] = 0;
            return c;
        } else if (c == '"' || c == '\'') {
            quote = c;
            continue;
        }
        if (c == '&') {
            XMLAmpChar(loader, store);
        } else {
            store(c);
        }
        if (early) {
            out[n] = 0;
            return loader.PeekChar();
        }
    }
}

// Most names are a run of plain characters ended by a stop that is not a line end; they are
// taken here in one step, with the cursor moved as reading them one by one would move it.
// Anything else (a name starting with '!', quotes, entities, a line end, a name cut at 259
// characters) goes the long way.
inline char XMLLoadTag(Loader& loader, char* out, unsigned long& length) {
    const char* text = loader.m_pText + loader.m_nPosition;
    if (*text != '!') {
        const auto* p = reinterpret_cast<const unsigned char*>(text);
        unsigned long n = 0;
        while ((kRunEnds[p[n]] & kRunBare) == 0) {
            ++n;
        }
        const char c = text[n];
        if (n < kNameSize && (c == '/' || c == '=' || c == '>' || c == ' ' || c == '\t')) {
            CopyRun(out, text, n);
            out[n] = 0;
            length = n;
            loader.m_nPosition += n + 1;
            loader.m_nColumn += static_cast<int>(n + 1);
            return c;
        }
    }
    return XMLLoadTagSlowly(loader, out, length);
}

// The rest of an attribute value, from inside the quote given (0: outside quotes), by the
// name rules. Every character goes through the cursor one by one, apart from plain runs.
template <typename Text>
char XMLLoadAttributeFrom(Loader& loader, Text& out, char quote) {
    auto store = [&](char c) { out.push_back(c); };
    for (;;) {
        unsigned long count = 0;
        const char* run = TakeRun(loader, quote, count);
        out.append(run, count);
        const char c = loader.GetChar();
        if (c == 0) {
            return 0;
        }
        if (quote != 0) {
            if (c == quote) {
                quote = 0;
                continue;
            }
        } else if (IsNameStop(c)) {
            // "?>" closes a declaration: its '?' is not part of the last value.
            if (c == '>' && !out.empty() && out.back() == '?') {
                out.pop_back();
            }
            return c;
        } else if (c == '"' || c == '\'') {
            quote = c;
            continue;
        }
        if (c == '&') {
            XMLAmpChar(loader, store);
        } else {
            out.push_back(c);
        }
    }
}

// Reads an attribute value (unbounded) with the name rules, after one optional blank, into
// out (a std::string, or a text written in place in a load's arena). The usual value, one
// quoted text of plain runs and entities followed by a stop other than a line end, is read
// here with the cursor moved directly (none of its characters is a line end); anything else
// carries on in the general loop from where this stopped, in the same quoting state.
template <typename Text>
char XMLLoadAttribute(Loader& loader, Text& out) {
    if (loader.PeekChar() == ' ') {
        loader.GetChar();
    }
    const char quote = loader.PeekChar();
    if (quote != '"' && quote != '\'') {
        return XMLLoadAttributeFrom(loader, out, 0);
    }
    auto step = [&loader] {
        ++loader.m_nPosition;
        ++loader.m_nColumn;
    };
    auto store = [&](char c) { out.push_back(c); };
    step();  // the opening quote
    for (;;) {
        unsigned long count = 0;
        const char* run = TakeRun(loader, quote, count);
        out.append(run, count);
        const char c = loader.PeekChar();
        if (c == quote) {
            step();
            break;
        }
        if (c != '&') {
            return XMLLoadAttributeFrom(loader, out, quote);  // a line end or the end
        }
        step();
        XMLAmpChar(loader, store);
    }
    const char c = loader.PeekChar();
    if (c == '/' || c == '=' || c == '>' || c == ' ' || c == '\t') {
        step();
        if (c == '>' && !out.empty() && out.back() == '?') {
            out.pop_back();
        }
        return c;
    }
    return XMLLoadAttributeFrom(loader, out, 0);
}

// Leading characters 1..31 and trailing characters below 32 go; blanks stay, so that
// indentation made of tabs and line breaks vanishes while meaningful spaces are kept.
void TrimFormattingRange(const char* data, unsigned long& begin, unsigned long& end) {
    while (begin < end && data[begin] >= 1 && data[begin] <= 31) {
        ++begin;
    }
    while (end > begin && static_cast<unsigned char>(data[end - 1]) < 32) {
        --end;
    }
}

// The pending text of the element being read: starts at 32 bytes and grows to the larger of
// double its size and what is needed.
}  // namespace

// ---- Arena ----

// Bump allocation in heap blocks that grow from 4 KB to 1 MB. Nothing placed here is freed on
// its own. Every element placed here holds one reference, and the reader that fills the arena
// holds one while it reads; the arena frees its blocks and itself with the last reference.
// References may go from any thread, so the count is atomic; it moves once per load and once
// per freed run of elements, not once per element.
//
// The blocks come from the heap rather than from fresh mappings: memory the heap already holds
// is reused as it is, while a fresh mapping costs a page fault and the zeroing of every page
// the load then overwrites anyway.
class LXMLArena {
public:
    LXMLArena() = default;
    LXMLArena(const LXMLArena&) = delete;
    LXMLArena& operator=(const LXMLArena&) = delete;

    void* Allocate(std::size_t size, std::size_t alignment) {
        std::uintptr_t address = Align(m_pNext, alignment);
        if (m_pNext == nullptr || address + size > reinterpret_cast<std::uintptr_t>(m_pEnd)) {
            NewBlock(size + alignment);
            address = Align(m_pNext, alignment);
        }
        m_pNext = reinterpret_cast<char*>(address + size);
        return reinterpret_cast<void*>(address);
    }
    // A terminated copy of the text.
    char* CopyText(const char* text, unsigned long length) {
        char* copy = static_cast<char*>(Allocate(length + 1, 1));
        CopyRun(copy, text, length);
        copy[length] = 0;
        return copy;
    }

    // Text of a length not known in advance is written in place, at the free end of the
    // current block: Open gives room for at least `room` bytes there without taking them,
    // Reopen moves the `used` bytes written so far to a block with `room` more, and Close takes
    // everything up to `end`.
    char* Open(std::size_t room) {
        if (m_pNext == nullptr || static_cast<std::size_t>(m_pEnd - m_pNext) < room) {
            NewBlock(room);
        }
        return m_pNext;
    }
    char* Reopen(const char* start, std::size_t used, std::size_t room) {
        NewBlock(std::max(2 * used, used + room));
        std::memcpy(m_pNext, start, used);
        return m_pNext;
    }
    char* OpenEnd() const { return m_pEnd; }
    void Close(char* end) { m_pNext = end; }

    void AddReferences(unsigned long count) {
        m_nReferences.fetch_add(count, std::memory_order_relaxed);
    }
    void Release(unsigned long count) {
        if (m_nReferences.fetch_sub(count, std::memory_order_acq_rel) == count) {
            delete this;
        }
    }

private:
    struct Block {
        Block* pNext;
    };
    static constexpr std::size_t kFirstBlock = 4096;
    static constexpr std::size_t kLargestBlock = 1 << 20;

    static std::uintptr_t Align(const char* p, std::size_t alignment) {
        return (reinterpret_cast<std::uintptr_t>(p) + alignment - 1) & ~(alignment - 1);
    }

    ~LXMLArena() {
        while (m_pBlocks != nullptr) {
            Block* block = m_pBlocks;
            m_pBlocks = block->pNext;
            ::operator delete(block);
        }
    }
    void NewBlock(std::size_t needed) {
        const std::size_t size = std::max(m_nBlockSize, needed + sizeof(Block));
        auto* block = static_cast<Block*>(::operator new(size));
        m_nBlockSize = std::min(2 * m_nBlockSize, kLargestBlock);
        block->pNext = m_pBlocks;
        m_pBlocks = block;
        m_pNext = reinterpret_cast<char*>(block + 1);
        m_pEnd = reinterpret_cast<char*>(block) + size;
    }

    Block* m_pBlocks = nullptr;
    char* m_pNext = nullptr;
    char* m_pEnd = nullptr;
    std::size_t m_nBlockSize = kFirstBlock;
    std::atomic<unsigned long> m_nReferences{1};
};

// One load's placement of new elements, their texts and attribute pairs in a fresh arena.
// The references of the elements are added when the load ends (also when it ends by an
// exception): until then nothing can free them, as only the tree being built reaches them.
class LXMLReader {
public:
    LXMLReader() : m_pArena(new LXMLArena()) {}
    LXMLReader(const LXMLReader&) = delete;
    LXMLReader& operator=(const LXMLReader&) = delete;
    ~LXMLReader() {
        if (m_nElements != 0) {
            m_pArena->AddReferences(m_nElements);
        }
        m_pArena->Release(1);
    }

    // Room at the free end of the arena for a name of up to 259 characters and its NUL, read
    // in place; KeepName takes it, and a name not kept is written over by what comes next.
    char* OpenName() { return m_pArena->Open(kNameSize); }
    void KeepName(char* name, unsigned long length) { m_pArena->Close(name + length + 1); }

    // A named element, or a text node when name is null. The name is one just kept: placed
    // before the element, so that once placed the element counts as a reference to give back.
    LXMLElement* NewElement(const char* name, unsigned long length, bool preserve) {
        auto* element =
            ::new (m_pArena->Allocate(sizeof(LXMLElement), alignof(LXMLElement))) LXMLElement();
        element->m_pArena = m_pArena;
        ++m_nElements;
        element->bPreserveSpace = preserve;
        if (name != nullptr) {
            element->name.Borrow(name, length);
        }
        return element;
    }
    LXMLElement* NewText(const char* text, unsigned long length, bool preserve) {
        const char* copy = m_pArena->CopyText(text, length);
        LXMLElement* node = NewElement(nullptr, 0, preserve);
        node->text.Borrow(copy, length);
        return node;
    }
    // The key and the value are texts already kept in the arena. The pairs of one start tag
    // are gathered, then handed to the element's table as one array placed in the arena.
    void AddAttribute(const char* key, const char* value) { m_pairs.push_back({key, value}); }
    void SetAttributes(LHashTable& table) {
        if (m_pairs.empty()) {
            return;
        }
        // In key order; of a key given twice, the last value stays.
        auto less = [](const LHashTable::BorrowedPair& a, const LHashTable::BorrowedPair& b) {
            return std::strcmp(a.pKey, b.pKey) < 0;
        };
        std::size_t count = m_pairs.size();
        if (count > 1) {
            std::stable_sort(m_pairs.begin(), m_pairs.end(), less);
            count = 0;
            for (std::size_t i = 0; i < m_pairs.size(); ++i) {
                if (i + 1 < m_pairs.size() && !less(m_pairs[i], m_pairs[i + 1])) {
                    continue;  // the next one has the same key
                }
                m_pairs[count++] = m_pairs[i];
            }
        }
        using Pairs = LHashTable::BorrowedPairs;
        using Pair = LHashTable::BorrowedPair;
        static_assert(sizeof(Pairs) % alignof(Pair) == 0);
        void* memory = m_pArena->Allocate(sizeof(Pairs) + count * sizeof(Pair), alignof(Pairs));
        auto* pairs = ::new (memory) Pairs{count};
        auto* to = reinterpret_cast<Pair*>(pairs + 1);
        for (std::size_t i = 0; i < count; ++i) {
            ::new (to + i) Pair(m_pairs[i]);
        }
        m_pairs.clear();
        table.SetBorrowed(pairs);
    }

    // An attribute value written in place at the free end of the arena as it is read, with
    // the few members of std::string that XMLLoadAttribute uses.
    class Value {
    public:
        explicit Value(LXMLReader& reader)
            : m_rArena(*reader.m_pArena),
              m_pStart(m_rArena.Open(kValueRoom)),
              m_pEnd(m_pStart),
              m_pLimit(m_rArena.OpenEnd()) {}
        void append(const char* text, unsigned long count) {
            Room(count);
            CopyRun(m_pEnd, text, count);
            m_pEnd += count;
        }
        void push_back(char c) {
            Room(1);
            *m_pEnd++ = c;
        }
        bool empty() const { return m_pEnd == m_pStart; }
        char back() const { return m_pEnd[-1]; }
        void pop_back() { --m_pEnd; }
        unsigned long size() const { return static_cast<unsigned long>(m_pEnd - m_pStart); }
        // Terminates the text and takes it from the arena.
        char* Keep() {
            *m_pEnd = 0;  // Room always leaves one byte spare
            m_rArena.Close(m_pEnd + 1);
            return m_pStart;
        }

    private:
        static constexpr std::size_t kValueRoom = 128;
        void Room(unsigned long count) {
            if (static_cast<unsigned long>(m_pLimit - m_pEnd) <= count) {
                const std::size_t used = size();
                m_pStart = m_rArena.Reopen(m_pStart, used, count + 1);
                m_pEnd = m_pStart + used;
                m_pLimit = m_rArena.OpenEnd();
            }
        }

        LXMLArena& m_rArena;
        char* m_pStart;
        char* m_pEnd;
        char* m_pLimit;
    };

private:
    LXMLArena* m_pArena;
    unsigned long m_nElements = 0;
    std::vector<LHashTable::BorrowedPair> m_pairs;  // of the start tag being read
};

namespace {

class TextBuffer {
public:
    TextBuffer() : m_data(new char[32]), m_capacity(32) {}
    void Put(char c) {
        if (m_length + 1 >= m_capacity) {
            Grow(m_length + 2);
        }
        m_data[m_length++] = c;
    }
    void Put(const char* text, unsigned long count) {
        if (m_length + count + 1 > m_capacity) {
            Grow(m_length + count + 1);
        }
        CopyRun(m_data.get() + m_length, text, count);
        m_length += count;
    }
    // Appends the text (trimmed unless preserve) to parent as a text node when not empty.
    void FlushInto(LXMLElement& parent, LXMLElement*& tail, LXMLReader& reader) {
        if (m_length == 0) {
            return;
        }
        unsigned long begin = 0;
        unsigned long end = m_length;
        if (!parent.bPreserveSpace) {
            TrimFormattingRange(m_data.get(), begin, end);
        }
        m_length = 0;
        if (end == begin) {
            return;
        }
        LXMLElement* node =
            reader.NewText(m_data.get() + begin, end - begin, parent.bPreserveSpace);
        if (tail == nullptr) {
            parent.children.PushFront(node);
        } else {
            tail->pNext = node;
        }
        tail = node;
    }

private:
    void Grow(unsigned long needed) {
        const unsigned long size = needed > 2 * m_capacity ? needed : 2 * m_capacity;
        std::unique_ptr<char[]> data(new char[size]);
        std::memcpy(data.get(), m_data.get(), m_length);
        m_data = std::move(data);
        m_capacity = size;
    }

    std::unique_ptr<char[]> m_data;
    unsigned long m_capacity;
    unsigned long m_length = 0;
};

LXMLElement* LastChild(const LXMLElement& parent) {
    LXMLElement* last = parent.children.Head();
    while (last != nullptr && last->pNext != nullptr) {
        last = last->pNext;
    }
    return last;
}

bool IsBlankText(const char* text) {
    for (const char* p = text; *p != 0; ++p) {
        if (*p != '\t' && *p != '\n' && *p != '\r' && *p != ' ') {
            return false;
        }
    }
    return true;
}

void PutEncoded(LStringLongTemplate<char>& out, const char* text, unsigned long length) {
    const char* run = text;
    const char* end = text + length;
    for (const char* p = text; p < end; ++p) {
        const char* entity = nullptr;
        switch (*p) {
            case '&':
                entity = "&amp;";
                break;
            case '<':
                entity = "&lt;";
                break;
            case '>':
                entity = "&gt;";
                break;
            case '"':
                entity = "&quot;";
                break;
            default:
                continue;
        }
        out.Append(run, static_cast<unsigned long>(p - run));
        out.Append(entity);
        run = p + 1;
    }
    out.Append(run, static_cast<unsigned long>(end - run));
}

void PutTabs(LStringLongTemplate<char>& out, int count) {
    for (int i = 0; i < count; ++i) {
        out.AppendChar('\t');
    }
}

}  // namespace

// ---- The cursor ----

template <typename T>
const T* LXMLLoaderTemplate<T>::TakeTextRun(unsigned long& length) {
    const T* start = m_pText + m_nPosition;
    const unsigned long budget = m_nLastCancelTest + kCancelInterval > m_nPosition
                                     ? m_nLastCancelTest + kCancelInterval - m_nPosition
                                     : 0;
    unsigned long n = 0;
    while (n < budget) {
        const T c = start[n];
        if (c == 0 || c == '<' || c == '&' || c == '\r' || c == '\n') {
            break;
        }
        ++n;
    }
    m_nPosition += n;
    m_nColumn += static_cast<int>(n);
    length = n;
    return start;
}

template <typename T>
void LXMLLoaderTemplate<T>::SetError(const char* format, ...) {
    if (m_pError == nullptr || m_pError[0] != 0) {
        return;
    }
    const unsigned long prefix =
        tplsnprintf(m_pError, kNameSize, "Ln %d, Col %d: ", m_nLine, m_nColumn);
    va_list args;
    va_start(args, format);
    tplvsnprintf(m_pError + prefix, kNameSize - prefix, format, args);
    va_end(args);
}

template <typename T>
bool LXMLLoaderTemplate<T>::TestCancel() {
    if (!m_bCancelled && m_nPosition - m_nLastCancelTest >= kCancelInterval) {
        m_nLastCancelTest = m_nPosition;
        m_bCancelled = m_rProcess.IsToStop();
    }
    return m_bCancelled;
}

template class LXMLLoaderTemplate<char>;

// ---- Texts ----

LXMLString& LXMLString::operator=(const LXMLString& other) {
    if (this != &other) {
        if (other.m_pData == nullptr) {
            Free();
        } else {
            Assign(other.m_pData, other.GetLength());
        }
    }
    return *this;
}

void LXMLString::Assign(const char* source, unsigned long length) {
    // Copied before the old text goes: the source may lie inside it.
    char* copy = new char[length + 1];
    std::memcpy(copy, source, length);
    copy[length] = 0;
    Free();
    m_pData = copy;
    m_nLength = length | kOwned;
}

void LXMLString::Assign(const char* source) {
    if (source == nullptr) {
        Free();
    } else {
        Assign(source, std::strlen(source));
    }
}

void LXMLString::Borrow(const char* source, unsigned long length) {
    Free();
    m_pData = source;
    m_nLength = length;
}

void LXMLString::Swap(LXMLString& other) noexcept {
    std::swap(m_pData, other.m_pData);
    std::swap(m_nLength, other.m_nLength);
}

void LXMLString::Free() {
    if ((m_nLength & kOwned) != 0) {
        delete[] m_pData;
    }
    m_pData = nullptr;
    m_nLength = 0;
}

bool LXMLString::operator==(const char* other) const {
    return std::strcmp(GetText(), other != nullptr ? other : "") == 0;
}

// ---- Elements ----

LXMLElement::LXMLElement(const char* elementName, bool preserve) : bPreserveSpace(preserve) {
    name.Assign(elementName != nullptr ? elementName : "");
}

LXMLElement::LXMLElement(const char* elementName, char stop, Loader& loader, bool preserve)
    : LXMLElement(elementName, preserve) {
    if (ParseStartTag(stop, loader, nullptr)) {
        LoadData(loader);
    }
}

void LXMLElement::operator delete(LXMLElement* element, std::destroying_delete_t) {
    LXMLArena* arena = element->m_pArena;
    element->~LXMLElement();
    if (arena != nullptr) {
        arena->Release(1);
    } else {
        ::operator delete(element);
    }
}

LXMLElement::LXMLElement(const LXMLElement& other) {
    CopyFrom(other);
}

LXMLElement& LXMLElement::operator=(const LXMLElement& other) {
    if (this != &other) {
        LXMLElement copy(other);
        children.Clear();
        attributes = copy.attributes;
        name.Swap(copy.name);
        text.Swap(copy.text);
        bPreserveSpace = copy.bPreserveSpace;
        children = std::move(copy.children);
    }
    return *this;
}

void LXMLElement::CopyFrom(const LXMLElement& other) {
    bPreserveSpace = other.bPreserveSpace;
    attributes = other.attributes;
    name = other.name;
    text = other.text;
    LXMLElement* tail = nullptr;
    for (const LXMLElement& child : other.children) {
        auto* copy = new LXMLElement(child);
        if (tail == nullptr) {
            children.PushFront(copy);
        } else {
            tail->pNext = copy;
        }
        tail = copy;
    }
}

// Frees the subtree without recursing: each node is deleted once its children are taken into
// the walk, with the rest of its siblings set aside on a stack as deep as the tree. Nodes of
// an arena give their references back in one step per run of nodes from the same arena.
LXMLElement::~LXMLElement() {
    LXMLElement* next = children.Detach();
    if (next == nullptr) {
        return;
    }
    std::vector<LXMLElement*> later;
    LXMLArena* arena = nullptr;
    unsigned long released = 0;
    for (;;) {
        if (next == nullptr) {
            if (later.empty()) {
                break;
            }
            next = later.back();
            later.pop_back();
        }
        LXMLElement* node = next;
        next = node->pNext;
        if (LXMLElement* kids = node->children.Head()) {
            if (next != nullptr) {
                later.push_back(next);
            }
            next = kids;
        }
        if (node->m_pArena == nullptr) {
            node->children.Detach();
            delete node;
            continue;
        }
        if (node->m_pArena != arena) {
            if (released != 0) {
                arena->Release(released);
            }
            arena = node->m_pArena;
            released = 0;
        }
        // An arena element that holds nothing of its own on the heap needs no destructor: its
        // memory goes with the arena. Leaving it untouched spares writing to every element of
        // a large tree just before it is freed.
        if (node->name.IsOwned() || node->text.IsOwned() || node->attributes.HasOwnedPairs()) {
            node->children.Detach();
            node->~LXMLElement();
        }
        ++released;
    }
    if (released != 0) {
        arena->Release(released);
    }
}

bool LXMLElement::ParseStartTag(char stop, Loader& loader, LXMLReader* reader) {
    if (name[0] == '!') {
        ParseSpecial(stop, loader, reader);
        return false;
    }
    bool empty = false;
    char ownName[kNameSize];
    std::string ownValue;
    for (char c = stop;;) {
        if (c == '>' || c == 0) {
            if (reader != nullptr) {
                reader->SetAttributes(attributes);
            }
            if (c == '>') {
                return !empty && name[0] != '?';
            }
            loader.SetError("Tag <%s> does not have a closing '>'", name.GetText());
            return false;
        }
        if (c == '/') {
            empty = true;
        }
        // A load reads the name in place in its arena and keeps it there for a stored pair.
        char* attributeName = reader != nullptr ? reader->OpenName() : ownName;
        unsigned long nameLength = 0;
        c = XMLLoadTag(loader, attributeName, nameLength);
        if (c == ' ' && loader.PeekChar() == '=') {
            c = loader.GetChar();
        }
        const bool space = nameLength == 9 && strcasecmp(attributeName, "xml:space") == 0;
        const bool stored = nameLength != 0 && !space;
        if (reader != nullptr) {
            if (stored) {
                reader->KeepName(attributeName, nameLength);
            }
            if (stored || c == '=') {
                LXMLReader::Value value(*reader);
                if (c == '=') {
                    c = XMLLoadAttribute(loader, value);
                }
                if (stored) {
                    reader->AddAttribute(attributeName, value.Keep());
                }
            }
        } else {
            ownValue.clear();
            if (c == '=') {
                c = XMLLoadAttribute(loader, ownValue);
            }
            if (stored) {
                attributes.SetString(attributeName, ownValue.c_str());
            }
        }
        if (space) {
            bPreserveSpace = true;
        }
    }
}

// Comments, character data, the document type and any other '!' node keep the characters
// after their name as they are, up to their terminator, as one text child.
void LXMLElement::ParseSpecial(char stop, Loader& loader, LXMLReader* reader) {
    const char* terminator = nullptr;
    if (name == "![CDATA[") {
        terminator = "]]>";
    } else if (name == "!--") {
        terminator = "-->";
    }
    std::string collected;
    // The three openings above stop before the next character; any other name was ended by
    // a character that was read, which belongs to the node's text unless it closed the node.
    const bool early = terminator != nullptr || name == "!DOCTYPE";
    bool closed = false;
    if (!early) {
        if (stop == 0) {
            loader.SetError(kEofMessage, name.GetText(), name.GetText());
            return;
        }
        closed = stop == '>';
        if (!closed) {
            collected.push_back(stop);
        }
    }
    int depth = 0;
    while (!closed) {
        const char c = loader.GetChar();
        if (c == 0) {
            loader.SetError(kEofMessage, name.GetText(), name.GetText());
            return;
        }
        if (terminator != nullptr) {
            collected.push_back(c);
            if (collected.size() >= 3 &&
                collected.compare(collected.size() - 3, 3, terminator) == 0) {
                collected.resize(collected.size() - 3);
                closed = true;
            }
            continue;
        }
        if (c == '[') {
            ++depth;
        } else if (c == ']' && depth > 0) {
            --depth;
        } else if (c == '>' && depth == 0) {
            closed = true;
            continue;
        }
        collected.push_back(c);
    }
    if (reader != nullptr) {
        AppendChild(reader->NewText(collected.data(), collected.size(), bPreserveSpace));
    } else {
        AddText(collected.c_str());
    }
}

void LXMLElement::LoadData(Loader& loader) {
    children.Clear();
    struct Frame {
        LXMLElement* element;
        LXMLElement* tail;
    };
    std::vector<Frame> stack;
    stack.push_back({this, nullptr});
    LXMLReader reader;
    TextBuffer pending;
    while (!stack.empty()) {
        Frame& frame = stack.back();
        LXMLElement& element = *frame.element;
        if (loader.TestCancel()) {
            pending.FlushInto(element, frame.tail, reader);
            return;
        }
        const char c = loader.GetChar();
        if (c == 0) {
            if (!element.name.IsNull()) {
                loader.SetError(kEofMessage, element.name.GetText(), element.name.GetText());
            }
            pending.FlushInto(element, frame.tail, reader);
            stack.pop_back();
            continue;
        }
        if (c == '&') {
            XMLAmpChar(loader, [&](char e) { pending.Put(e); });
            continue;
        }
        if (c != '<') {
            pending.Put(c);
            unsigned long run = 0;
            const char* text = loader.TakeTextRun(run);
            pending.Put(text, run);
            continue;
        }
        // The pending text goes first: the name is read in place at the free end of the arena.
        pending.FlushInto(element, frame.tail, reader);
        char* tag = reader.OpenName();
        unsigned long tagLength = 0;
        const char stop = XMLLoadTag(loader, tag, tagLength);
        if (tagLength != 0) {
            reader.KeepName(tag, tagLength);
            LXMLElement* child = reader.NewElement(tag, tagLength, element.bPreserveSpace);
            if (frame.tail == nullptr) {
                element.children.PushFront(child);
            } else {
                frame.tail->pNext = child;
            }
            frame.tail = child;
            if (child->ParseStartTag(stop, loader, &reader)) {
                stack.push_back({child, nullptr});
            }
            continue;
        }
        if (stop == '/') {
            char endTag[kNameSize];
            unsigned long endLength = 0;
            char s = XMLLoadTag(loader, endTag, endLength);
            if (element.name.IsNull()) {
                loader.SetError("Misplaced </%s> which does not match a <%s>.", endTag, endTag);
            } else if (std::strcmp(element.name.GetText(), endTag) != 0) {
                loader.SetError(
                    "Element <%s> should be terminated with </%s>, was with %s. Check you "
                    "have terminated your element properly.",
                    element.name.GetText(), element.name.GetText(), endTag);
            }
            while (s != '>' && s != 0) {
                s = loader.GetChar();
            }
        } else {
            loader.SetError("Misplaced < without name. Use &lt; instead of < if appropriate.");
        }
        stack.pop_back();
    }
}

void LXMLElement::AppendChild(LXMLElement* child) {
    if (LXMLElement* last = LastChild(*this)) {
        last->pNext = child;
    } else {
        children.PushFront(child);
    }
}

LXMLElement* LXMLElement::AddText(const char* value) {
    auto* node = new LXMLElement();
    node->bPreserveSpace = bPreserveSpace;
    node->text.Assign(value != nullptr ? value : "");
    AppendChild(node);
    return node;
}

const LXMLElement* LXMLElement::GetElement(const char* elementName) const {
    for (const LXMLElement& child : children) {
        if (!child.name.IsNull() && std::strcmp(child.name.GetText(), elementName) == 0) {
            return &child;
        }
    }
    return nullptr;
}

LXMLElement* LXMLElement::GetElement(const char* elementName) {
    return const_cast<LXMLElement*>(std::as_const(*this).GetElement(elementName));
}

LXMLElement* LXMLElement::AddElement(const char* elementName) {
    auto* child = new LXMLElement(elementName, bPreserveSpace);
    AppendChild(child);
    return child;
}

const char* LXMLElement::GetElementData() const {
    if (!text.IsNull()) {
        return text.GetText();
    }
    const LXMLElement* first = children.Head();
    return first != nullptr && !first->text.IsNull() ? first->text.GetText() : nullptr;
}

char* LXMLElement::GetString(const char* elementName, const char* defaultValue, char* out) const {
    const LXMLElement* child = GetElement(elementName);
    const char* value = child != nullptr ? child->GetElementData() : nullptr;
    const char* source = value != nullptr ? value : defaultValue;
    unsigned long n = 0;
    if (source != nullptr) {
        while (n < kNameSize - 1 && source[n] != 0) {
            out[n] = source[n];
            ++n;
        }
    }
    out[n] = 0;
    return out;
}

void LXMLElement::SetString(const char* elementName, const char* value) {
    if (LXMLElement* child = GetElement(elementName)) {
        child->children.Clear();
        child->AddText(value);
    }
}

int LXMLElement::GetInt(const char* elementName, int defaultValue) const {
    const LXMLElement* child = GetElement(elementName);
    const char* value = child != nullptr ? child->GetElementData() : nullptr;
    if (value == nullptr) {
        return defaultValue;
    }
    char buffer[kNameSize];
    GetString(elementName, "", buffer);
    return static_cast<int>(std::strtol(buffer, nullptr, 10));
}

void LXMLElement::SetInt(const char* elementName, int value) {
    char buffer[32];
    tplsnprintf(buffer, sizeof(buffer), "%d", value);
    SetString(elementName, buffer);
}

double LXMLElement::GetFloat(const char* elementName, double defaultValue) const {
    const LXMLElement* child = GetElement(elementName);
    if (child == nullptr || child->GetElementData() == nullptr) {
        return defaultValue;
    }
    char buffer[kNameSize];
    GetString(elementName, "", buffer);
    return std::strtod(buffer, nullptr);
}

void LXMLElement::SetFloat(const char* elementName, double value) {
    char buffer[kNameSize];
    tplsnprintf(buffer, sizeof(buffer), "%f", value);
    SetString(elementName, buffer);
}

void LXMLElement::DeleteElement(const char* elementName) {
    auto matches = [elementName](const LXMLElement& child) {
        return !child.name.IsNull() && std::strcmp(child.name.GetText(), elementName) == 0;
    };
    while (LXMLElement* child = children.RemoveFirst(matches)) {
        delete child;
    }
}

// ---- Writing ----

bool LXMLElement::SaveToBuffer(LStringLongTemplate<char>& out, int indent) const {
    return Write(out, indent, true);
}

bool LXMLElement::SaveToBufferNoFormatting(LStringLongTemplate<char>& out) const {
    return Write(out, -1, false);
}

bool LXMLElement::Write(LStringLongTemplate<char>& out, int indent, bool format) const {
    if (name.IsNull()) {
        if (!children.IsEmpty()) {
            // The nameless root: its top-level nodes at the caller's indentation.
            bool written = false;
            for (const LXMLElement& child : children) {
                written = child.Write(out, indent, format) || written;
            }
            return written;
        }
        if (text.IsEmpty() || IsBlankText(text.GetText())) {
            return false;
        }
        const char* p = text.GetText();
        while (*p != 0) {
            const char* line = p;
            while (*p != 0 && *p != '\r' && *p != '\n') {
                ++p;
            }
            PutEncoded(out, line, static_cast<unsigned long>(p - line));
            if (*p != 0) {
                const char other = *p == '\r' ? '\n' : '\r';
                ++p;
                if (*p == other) {
                    ++p;
                }
                out.AppendChar('\n');
            }
        }
        return true;
    }
    if (format && indent > 0) {
        PutTabs(out, indent);
    }
    out.AppendChar('<');
    out.Append(name.GetText(), name.GetLength());
    const char first = name[0];
    if (first != '!') {
        const bool declaration = name == "?xml";
        if (declaration) {
            const char* version = attributes.GetParm("version", "");
            if (version[0] != 0) {
                out.tsprintfappend(" version=\"%s\"", version);
            }
        }
        for (LHashTable::ConstIterator it(attributes); it; ++it) {
            if (declaration && strcasecmp(it.GetParm(), "version") == 0) {
                continue;
            }
            out.AppendChar(' ');
            out.Append(it.GetParm());
            out.Append("=\"");
            const char* value = it.GetData();
            PutEncoded(out, value, tstrlen(value));
            out.AppendChar('"');
        }
    }
    const bool special = first == '!' || first == '?';
    bool hasElement = false;
    bool hasText = false;
    for (const LXMLElement& child : children) {
        if (!child.name.IsNull()) {
            hasElement = true;
        } else if (!child.text.IsEmpty() && !IsBlankText(child.text.GetText())) {
            hasText = true;
        }
    }
    auto endTag = [&] {
        out.Append("</");
        out.Append(name.GetText(), name.GetLength());
        out.Append(format ? ">\n" : ">");
    };
    if (!special && hasElement) {
        out.AppendChar('>');
        if (format && indent >= 0) {
            out.AppendChar('\n');
        }
        const int childIndent = format && indent >= 0 ? indent + 1 : -1;
        for (const LXMLElement& child : children) {
            child.Write(out, childIndent, format);
        }
        if (format && indent >= 1) {
            PutTabs(out, indent);
        }
        endTag();
    } else if (!special && hasText) {
        out.AppendChar('>');
        for (const LXMLElement& child : children) {
            child.Write(out, indent, format);
        }
        endTag();
    } else {
        if (first == '!') {
            for (const LXMLElement& child : children) {
                out.Append(child.text.GetText(), child.text.GetLength());
            }
        }
        if (first == '?') {
            out.Append("?>");
        } else if (name == "!--") {
            out.Append("-->");
        } else if (name == "![CDATA[") {
            out.Append("]]>");
        } else if (first == '!') {
            out.AppendChar('>');
        } else {
            out.Append("/>");
        }
        if (format && indent >= 0) {
            out.AppendChar('\n');
        }
    }
    return true;
}

// ---- Iterators ----

NamedElementIterator::NamedElementIterator(LXMLElement& parent, const char* name)
    : m_pNext(parent.GetFirstChild()), m_pName(name) {}

LXMLElement* NamedElementIterator::Next() {
    while (m_pNext != nullptr) {
        LXMLElement* node = m_pNext;
        m_pNext = node->pNext;
        if (!node->name.IsNull() && std::strcmp(node->name.GetText(), m_pName) == 0) {
            return node;
        }
    }
    return nullptr;
}

ConstNamedElementIterator::ConstNamedElementIterator(const LXMLElement& parent, const char* name)
    : m_pNext(parent.GetFirstChild()), m_pName(name) {}

const LXMLElement* ConstNamedElementIterator::Next() {
    while (m_pNext != nullptr) {
        const LXMLElement* node = m_pNext;
        m_pNext = node->pNext;
        if (!node->name.IsNull() && std::strcmp(node->name.GetText(), m_pName) == 0) {
            return node;
        }
    }
    return nullptr;
}

void LStringTrimFormatting(LStringLongTemplate<char>& value) {
    const char* data = value.GetText();
    unsigned long begin = 0;
    unsigned long end = value.GetLength();
    TrimFormattingRange(data, begin, end);
    if (begin != 0 || end != value.GetLength()) {
        value.Assign(data + begin, end - begin);
    }
}

// ---- Documents ----

int LXMLDocument::LoadFromFile(LProcessInterface& process, const char* path, char* error) {
    error[0] = 0;
    if (process.IsToStop()) {
        return 1;
    }
    if (!LFile::TestFileExists(path)) {
        tplsnprintf(error, kNameSize, "File does not exist: %s", path);
        return 2;
    }
    std::error_code failed;
    const std::uintmax_t size = std::filesystem::file_size(path, failed);
    const long long needed = failed ? 0 : static_cast<long long>(size) * 20;
    if (needed >= LMemoryGetFreeHeapSize()) {
        tplsnprintf(error, kNameSize, "Not enough memory available to load %s", path);
        return 2;
    }
    LStringLongTemplate<char> content;
    if (!LLoadTextAutoChar(path, content)) {
        tplsnprintf(error, kNameSize, "Cannot open xml file: %s", path);
        return 2;
    }
    if (process.IsToStop()) {
        return 1;
    }
    Loader loader(content.GetText(), error, process);
    LoadData(loader);
    return loader.IsCancelled() ? 1 : 0;
}
