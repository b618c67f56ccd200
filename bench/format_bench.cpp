// tplsnprintf against the C library's snprintf on the same mix of formats the library uses
// (paths, key=value lines, messages with numbers, hexadecimal ids, decibel and time texts).
// Both write into the same 260-character buffer; compare the Mix pair for the overall ratio
// and the single-format pairs to see where time goes.
#include <benchmark/benchmark.h>

#include <cstdio>

#include "text/lstring.h"

namespace {

char gBuffer[260];

template <typename F>
void RunMix(F&& format) {
    format("%s/%s%s", "/Library/Audio/Plug-Ins/HAL", "KavelAudio.driver", ".wav");
    format("Ln %d, Col %d: %s", 128, 17, "unexpected end of element");
    format("%s=%s", "LastFolder", "/home/user/Music");
    format("[%s]", "Settings");
    format("%08x-%04x-%04X", 0xdeadbeefu, 0x12u, 0xabcu);
    format("%lld bytes in %u files", 1099511627776LL, 4242u);
    format("%.2f dB", -12.3456);
    format("%02d:%02d:%02d.%03d", 1, 2, 3, 45);
    format("pid %d uid %u %s", 31337, 501u, "running");
    format("%.1f%% done, %d left", 99.5, 3);
}

void BM_Mix_tplsnprintf(benchmark::State& state) {
    for (auto _ : state) {
        RunMix([](const char* f, auto... args) {
            benchmark::DoNotOptimize(tplsnprintf(gBuffer, sizeof(gBuffer), f, args...));
        });
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_Mix_tplsnprintf);

void BM_Mix_snprintf(benchmark::State& state) {
    for (auto _ : state) {
        RunMix([](const char* f, auto... args) {
            benchmark::DoNotOptimize(std::snprintf(gBuffer, sizeof(gBuffer), f, args...));
        });
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_Mix_snprintf);

void BM_Strings_tplsnprintf(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            tplsnprintf(gBuffer, sizeof(gBuffer), "%s/%s%s", "/usr/share", "name", ".xml"));
    }
}
BENCHMARK(BM_Strings_tplsnprintf);

void BM_Strings_snprintf(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            std::snprintf(gBuffer, sizeof(gBuffer), "%s/%s%s", "/usr/share", "name", ".xml"));
    }
}
BENCHMARK(BM_Strings_snprintf);

void BM_Integers_tplsnprintf(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            tplsnprintf(gBuffer, sizeof(gBuffer), "%d %5u %08x", -1234567, 42u, 0xbeefu));
    }
}
BENCHMARK(BM_Integers_tplsnprintf);

void BM_Integers_snprintf(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            std::snprintf(gBuffer, sizeof(gBuffer), "%d %5u %08x", -1234567, 42u, 0xbeefu));
    }
}
BENCHMARK(BM_Integers_snprintf);

void BM_Floats_tplsnprintf(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            tplsnprintf(gBuffer, sizeof(gBuffer), "%.2f %g", -12.3456, 1.0 / 3));
    }
}
BENCHMARK(BM_Floats_tplsnprintf);

void BM_Floats_snprintf(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            std::snprintf(gBuffer, sizeof(gBuffer), "%.2f %g", -12.3456, 1.0 / 3));
    }
}
BENCHMARK(BM_Floats_snprintf);

// Formatting into a growing string, the most common use in the library.
void BM_StringLong_sprintf(benchmark::State& state) {
    LStringLongTemplate<char> s;
    for (auto _ : state) {
        benchmark::DoNotOptimize(sprintf(s, "%s=%d;%s", "key", 123, "value"));
    }
}
BENCHMARK(BM_StringLong_sprintf);

}  // namespace
