// A read from a 1,000-key preferences domain against its floor: one `stat` of the file plus
// a std::map look-up of the key. The store must not parse an unchanged file again, so the
// two should stay close (target: at most 1.5 times the peer).
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>

#include <benchmark/benchmark.h>

#include "settings/lsettings.h"

namespace {

constexpr int kKeys = 1000;

struct Domain {
    Domain() {
        char pattern[] = "/tmp/settings_bench_XXXXXX";
        folder = mkdtemp(pattern);
        setenv("XDG_CONFIG_HOME", folder.c_str(), 1);
        LPreferencesUpdate(kLSettingDomainCurrentUser, true, [&](plist_t dictionary) {
            for (int i = 0; i < kKeys; ++i) {
                std::string key = "Section/key" + std::to_string(i);
                std::string value = "value of " + std::to_string(i);
                plist_dict_set_item(dictionary, key.c_str(), plist_new_string(value.c_str()));
                peer[key] = value;
            }
            return true;
        });
        path = LPreferencesGetPath(kLSettingDomainCurrentUser, true);
    }
    ~Domain() { std::filesystem::remove_all(folder); }

    std::string folder;
    std::string path;
    std::map<std::string, std::string> peer;
};

Domain& TheDomain() {
    static Domain domain;
    return domain;
}

void BM_SettingGet(benchmark::State& state) {
    TheDomain();
    char out[kLSettingTextSize];
    for (auto _ : state) {
        bool found = _LUserSettingGetString("Section", "key577", "", out);
        benchmark::DoNotOptimize(found);
        benchmark::DoNotOptimize(out);
    }
}
BENCHMARK(BM_SettingGet);

void BM_StatAndMapLookup(benchmark::State& state) {
    Domain& domain = TheDomain();
    char out[kLSettingTextSize];
    for (auto _ : state) {
        struct stat st;
        int failed = stat(domain.path.c_str(), &st);
        benchmark::DoNotOptimize(failed);
        auto it = domain.peer.find("Section/key577");
        size_t n = std::min(it->second.size(), sizeof out - 1);
        memcpy(out, it->second.data(), n);
        out[n] = 0;
        benchmark::DoNotOptimize(out);
    }
}
BENCHMARK(BM_StatAndMapLookup);

}  // namespace
