// UTF-8 to UTF-16 with LCopyUnicodeFromUTF8 against glibc iconv ("UTF-8" to "UTF-16LE") on
// the same texts in the same run: plain ASCII, Western European text with accents, Cyrillic
// (2-byte characters), Japanese (3-byte characters) and a mix with emoji. Both convert the
// whole text including its terminator into the same output buffer; iconv's converter is
// opened once and only reset between runs, so only conversion work is compared. The Mix pair
// (every sample in turn) gives the overall ratio.
#include <benchmark/benchmark.h>
#include <iconv.h>

#include <cstring>
#include <string>
#include <vector>

#include "text/lunicode.h"

namespace {

std::string Repeat(const std::string& piece, size_t bytes) {
    std::string text;
    while (text.size() < bytes)
        text += piece;
    return text;
}

constexpr size_t kTextBytes = 4096;

const std::vector<std::string>& Samples() {
    static const std::vector<std::string> samples = {
        Repeat("The quick brown fox jumps over the lazy dog; settings saved to "
               "/Library/Preferences. ",
               kTextBytes),
        Repeat("Caf\xC3\xA9 cr\xC3\xA8me br\xC3\xBBl\xC3\xA9"
               "e, Gr\xC3\xBC\xC3\x9F"
               "e aus "
               "M\xC3\xBCnchen, na\xC3\xAFve fa\xC3\xA7"
               "ade. ",
               kTextBytes),
        Repeat("\xD0\x9F\xD1\x80\xD0\xB8\xD0\xB2\xD0\xB5\xD1\x82, \xD0\xBC\xD0\xB8\xD1\x80! "
               "\xD0\x97\xD0\xB2\xD1\x83\xD0\xBA \xD0\xB7\xD0\xB0\xD0\xBF\xD0\xB8\xD1\x81\xD0\xB0"
               "\xD0\xBD. ",
               kTextBytes),
        Repeat("\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E\xE3\x81\xAE\xE3\x83\x86\xE3\x82\xAD\xE3\x82"
               "\xB9\xE3\x83\x88\xE3\x80\x82\xE9\x8C\xB2\xE9\x9F\xB3\xE4\xB8\xAD\xE3\x80\x82",
               kTextBytes),
        Repeat("Recording \xF0\x9F\x8E\x99 done \xE2\x9C\x93 \xE2\x82\xAC"
               "5 "
               "\xD7\xA9\xD7\x9C\xD7\x95\xD7\x9D \xF0\x9F\x98\x80 ok. ",
               kTextBytes),
    };
    return samples;
}

std::vector<char16_t> gOut(2 * kTextBytes + 16);

void ConvertOurs(const std::string& text) {
    benchmark::DoNotOptimize(LCopyUnicodeFromUTF8(gOut.data(), text.c_str(), gOut.size()));
}

class Iconv {
public:
    Iconv() : cd_(iconv_open("UTF-16LE", "UTF-8")) {}
    ~Iconv() { iconv_close(cd_); }
    void Convert(const std::string& text) {
        iconv(cd_, nullptr, nullptr, nullptr, nullptr);
        char* in = const_cast<char*>(text.c_str());
        size_t inLeft = text.size() + 1;
        char* out = reinterpret_cast<char*>(gOut.data());
        size_t outLeft = gOut.size() * sizeof(char16_t);
        benchmark::DoNotOptimize(iconv(cd_, &in, &inLeft, &out, &outLeft));
    }

private:
    iconv_t cd_;
};

void BM_Utf8ToUtf16_L(benchmark::State& state) {
    const std::string& text = Samples()[state.range(0)];
    for (auto _ : state) {
        ConvertOurs(text);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
}
BENCHMARK(BM_Utf8ToUtf16_L)->DenseRange(0, 4)->ArgName("sample");

void BM_Utf8ToUtf16_iconv(benchmark::State& state) {
    const std::string& text = Samples()[state.range(0)];
    Iconv converter;
    for (auto _ : state) {
        converter.Convert(text);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
}
BENCHMARK(BM_Utf8ToUtf16_iconv)->DenseRange(0, 4)->ArgName("sample");

void BM_Mix_L(benchmark::State& state) {
    int64_t bytes = 0;
    for (auto _ : state) {
        for (const std::string& text : Samples()) {
            ConvertOurs(text);
            bytes += static_cast<int64_t>(text.size());
        }
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(bytes);
}
BENCHMARK(BM_Mix_L);

void BM_Mix_iconv(benchmark::State& state) {
    Iconv converter;
    int64_t bytes = 0;
    for (auto _ : state) {
        for (const std::string& text : Samples()) {
            converter.Convert(text);
            bytes += static_cast<int64_t>(text.size());
        }
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(bytes);
}
BENCHMARK(BM_Mix_iconv);

}  // namespace
