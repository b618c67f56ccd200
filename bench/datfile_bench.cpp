// Sectioned data files against GLib's GKeyFile in one run, over the same 10 MB file written
// in the data-file format (CR LF lines, a blank line after each section):
//   - Load: the first read of the file (our registry reads and indexes the whole file on the
//     first get) against g_key_file_load_from_file;
//   - LoadReadAll: the load, then every key read once, through LDatFileGetValue (which checks
//     the file's time and size before each read) against g_key_file_get_value.
// Compare each *_L benchmark with its *_GKeyFile twin. Our cache is dropped between
// iterations by moving the registry's clock past the idle limit and flushing.
#include <benchmark/benchmark.h>
#include <glib.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "settings/ldatfile.h"

namespace {

constexpr size_t kFileBytes = 10 * 1024 * 1024;
constexpr int kKeysPerSection = 200;

struct Fixture {
    std::string folder;
    std::string path;
    std::vector<std::pair<std::string, std::string>> keys;  // section, key

    Fixture() {
        char pattern[] = "/tmp/datfile_bench_XXXXXX";
        folder = mkdtemp(pattern);
        path = folder + "/big.dat";
        std::string text;
        text.reserve(kFileBytes + 4096);
        char line[256];
        for (int s = 0; text.size() < kFileBytes; ++s) {
            char section[64];
            std::snprintf(section, sizeof section, "Recorder Profile %d", s);
            text += '[';
            text += section;
            text += "]\r\n";
            for (int k = 0; k < kKeysPerSection; ++k) {
                char key[64];
                std::snprintf(key, sizeof key, "Setting%03d", k);
                const int n =
                    std::snprintf(line, sizeof line, "%s=%d:%02d:%02d.%03d gain %ddB\r\n", key,
                                  s % 24, k % 60, (s + k) % 60, k * 7 % 1000, -(k % 90));
                text.append(line, static_cast<size_t>(n));
                keys.emplace_back(section, key);
            }
            text += "\r\n";
        }
        FILE* out = std::fopen(path.c_str(), "wb");
        std::fwrite(text.data(), 1, text.size(), out);
        std::fclose(out);
    }
    ~Fixture() {
        unlink(path.c_str());
        rmdir(folder.c_str());
    }
};

Fixture& Shared() {
    static Fixture fixture;
    return fixture;
}

std::atomic<uint32_t> gNow{1};
uint32_t BenchClock() {
    return gNow.load();
}

// Drops every cached file: the clock jumps past the idle limit and the flush evicts.
void DropCache() {
    _LDatFileSetClock(BenchClock);
    gNow += kLDatFileIdleMs;
    LDatFileFlush();
}

void BM_Load_L(benchmark::State& state) {
    Fixture& f = Shared();
    char out[kLDatFileTextSize];
    DropCache();
    for (auto _ : state) {
        LDatFileGetValue(f.path.c_str(), f.keys[0].first.c_str(), f.keys[0].second.c_str(), "",
                         out);
        benchmark::DoNotOptimize(out);
        state.PauseTiming();
        DropCache();
        state.ResumeTiming();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kFileBytes));
}

void BM_Load_GKeyFile(benchmark::State& state) {
    Fixture& f = Shared();
    for (auto _ : state) {
        GKeyFile* file = g_key_file_new();
        g_key_file_load_from_file(file, f.path.c_str(), G_KEY_FILE_NONE, nullptr);
        benchmark::DoNotOptimize(file);
        state.PauseTiming();
        g_key_file_free(file);
        state.ResumeTiming();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kFileBytes));
}

void BM_LoadReadAll_L(benchmark::State& state) {
    Fixture& f = Shared();
    char out[kLDatFileTextSize];
    DropCache();
    for (auto _ : state) {
        for (auto const& [section, key] : f.keys) {
            LDatFileGetValue(f.path.c_str(), section.c_str(), key.c_str(), "", out);
            benchmark::DoNotOptimize(out);
        }
        state.PauseTiming();
        DropCache();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * f.keys.size()));
}

void BM_LoadReadAll_GKeyFile(benchmark::State& state) {
    Fixture& f = Shared();
    for (auto _ : state) {
        GKeyFile* file = g_key_file_new();
        g_key_file_load_from_file(file, f.path.c_str(), G_KEY_FILE_NONE, nullptr);
        for (auto const& [section, key] : f.keys) {
            gchar* value = g_key_file_get_value(file, section.c_str(), key.c_str(), nullptr);
            benchmark::DoNotOptimize(value);
            g_free(value);
        }
        state.PauseTiming();
        g_key_file_free(file);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * f.keys.size()));
}

BENCHMARK(BM_Load_L)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Load_GKeyFile)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LoadReadAll_L)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LoadReadAll_GKeyFile)->Unit(benchmark::kMillisecond);

}  // namespace
