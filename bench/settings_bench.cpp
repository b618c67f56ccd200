// The settings layer against its peers in one run:
//   - LHashTable lookups against std::map<std::string, std::string> holding the same pairs
//     (keys shaped like setting names), hits and misses in a shuffled order;
//   - LBlowFish::Encode/Decode against OpenSSL's Blowfish ECB over the same buffer;
//   - LBase64Encode (no line breaks) and LBase64Decode against OpenSSL's block encoder and
//     decoder.
// Compare each *_L benchmark with its *_Peer twin of the same argument.
#define OPENSSL_SUPPRESS_DEPRECATED 1
#include <benchmark/benchmark.h>
#include <openssl/blowfish.h>
#include <openssl/evp.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "settings/lbase64.h"
#include "settings/lblowfish.h"
#include "settings/lhashtable.h"

namespace {

constexpr int kLookupsPerIteration = 1024;

std::vector<std::string> SettingKeys(int n) {
    static const char* const kPrefixes[] = {"Audio", "Window", "Recent", "Export", "Device"};
    std::vector<std::string> keys;
    for (int i = 0; i < n; ++i) {
        char key[64];
        std::snprintf(key, sizeof(key), "%s.Item%05d", kPrefixes[i % 5], i * 7919 % 100000);
        keys.emplace_back(key);
    }
    return keys;
}

// Every other probe is a miss (a key one character longer than a present one).
std::vector<std::string> Probes(const std::vector<std::string>& keys) {
    std::mt19937 rng(1);
    std::vector<std::string> probes;
    for (int i = 0; i < kLookupsPerIteration; ++i) {
        std::string k = keys[rng() % keys.size()];
        if (i % 2 == 1) {
            k += 'x';
        }
        probes.push_back(k);
    }
    return probes;
}

void BM_Lookup_L(benchmark::State& state) {
    const auto keys = SettingKeys(static_cast<int>(state.range(0)));
    LHashTable table;
    for (const auto& k : keys) {
        table.SetString(k.c_str(), "value of the setting");
    }
    const auto probes = Probes(keys);
    for (auto _ : state) {
        for (const auto& p : probes) {
            benchmark::DoNotOptimize(table.GetParm(p.c_str(), nullptr));
        }
    }
    state.SetItemsProcessed(state.iterations() * kLookupsPerIteration);
}
BENCHMARK(BM_Lookup_L)->Arg(16)->Arg(256)->Arg(4096)->Arg(65536);

void BM_Lookup_Peer(benchmark::State& state) {
    const auto keys = SettingKeys(static_cast<int>(state.range(0)));
    std::map<std::string, std::string> table;
    for (const auto& k : keys) {
        table[k] = "value of the setting";
    }
    const auto probes = Probes(keys);
    for (auto _ : state) {
        for (const auto& p : probes) {
            auto it = table.find(p);
            benchmark::DoNotOptimize(it == table.end() ? nullptr : it->second.c_str());
        }
    }
    state.SetItemsProcessed(state.iterations() * kLookupsPerIteration);
}
BENCHMARK(BM_Lookup_Peer)->Arg(16)->Arg(256)->Arg(4096)->Arg(65536);

std::vector<unsigned char> Buffer(size_t n) {
    std::vector<unsigned char> data(n);
    std::mt19937 rng(3);
    for (auto& b : data) {
        b = static_cast<unsigned char>(rng());
    }
    return data;
}

constexpr char kKey[] = "settingsphrase987";

// One direction over the whole buffer per iteration, in place; the direction is fixed at
// compile time so that both twins time nothing but the cipher.
template <bool kEncode>
void BlowfishL(benchmark::State& state) {
    auto data = Buffer(static_cast<size_t>(state.range(0)));
    LBlowFish bf;
    bf.SetKey(kKey);
    for (auto _ : state) {
        if constexpr (kEncode) {
            bf.Encode(data.data(), data.size());
        } else {
            bf.Decode(data.data(), data.size());
        }
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

template <int kDirection>
void BlowfishPeer(benchmark::State& state) {
    auto data = Buffer(static_cast<size_t>(state.range(0)));
    BF_KEY key;
    BF_set_key(&key, sizeof(kKey) - 1, reinterpret_cast<const unsigned char*>(kKey));
    for (auto _ : state) {
        for (size_t off = 0; off < data.size(); off += 8) {
            BF_ecb_encrypt(&data[off], &data[off], &key, kDirection);
        }
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

void BM_BlowfishEncode_L(benchmark::State& state) {
    BlowfishL<true>(state);
}
BENCHMARK(BM_BlowfishEncode_L)->Arg(64)->Arg(4096);

void BM_BlowfishEncode_Peer(benchmark::State& state) {
    BlowfishPeer<BF_ENCRYPT>(state);
}
BENCHMARK(BM_BlowfishEncode_Peer)->Arg(64)->Arg(4096);

void BM_BlowfishDecode_L(benchmark::State& state) {
    BlowfishL<false>(state);
}
BENCHMARK(BM_BlowfishDecode_L)->Arg(4096);

void BM_BlowfishDecode_Peer(benchmark::State& state) {
    BlowfishPeer<BF_DECRYPT>(state);
}
BENCHMARK(BM_BlowfishDecode_Peer)->Arg(4096);

void BM_BlowfishSetKey_L(benchmark::State& state) {
    LBlowFish bf;
    for (auto _ : state) {
        bf.SetKey(kKey);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_BlowfishSetKey_L);

void BM_BlowfishSetKey_Peer(benchmark::State& state) {
    BF_KEY key;
    for (auto _ : state) {
        BF_set_key(&key, sizeof(kKey) - 1, reinterpret_cast<const unsigned char*>(kKey));
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_BlowfishSetKey_Peer);

void BM_Base64Encode_L(benchmark::State& state) {
    const auto data = Buffer(static_cast<size_t>(state.range(0)));
    LStringLongTemplate<char> out;
    for (auto _ : state) {
        LBase64Encode(data.data(), data.size(), out, kLBase64NoLineBreaks);
        benchmark::DoNotOptimize(out.GetText());
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Base64Encode_L)->Arg(48)->Arg(3000);

void BM_Base64Encode_Peer(benchmark::State& state) {
    const auto data = Buffer(static_cast<size_t>(state.range(0)));
    std::vector<unsigned char> out(data.size() / 3 * 4 + 8);
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            EVP_EncodeBlock(out.data(), data.data(), static_cast<int>(data.size())));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Base64Encode_Peer)->Arg(48)->Arg(3000);

std::string EncodedText(size_t n) {
    const auto data = Buffer(n);
    LStringLongTemplate<char> out;
    LBase64Encode(data.data(), data.size(), out, kLBase64NoLineBreaks);
    return out.GetText();
}

void BM_Base64Decode_L(benchmark::State& state) {
    const std::string text = EncodedText(static_cast<size_t>(state.range(0)));
    LSizedArray<unsigned char> out;
    for (auto _ : state) {
        LBase64Decode(text.c_str(), text.size(), out);
        benchmark::DoNotOptimize(out.GetData());
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Base64Decode_L)->Arg(48)->Arg(3000);

void BM_Base64Decode_Peer(benchmark::State& state) {
    const std::string text = EncodedText(static_cast<size_t>(state.range(0)));
    std::vector<unsigned char> out(text.size());
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            EVP_DecodeBlock(out.data(), reinterpret_cast<const unsigned char*>(text.data()),
                            static_cast<int>(text.size())));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Base64Decode_Peer)->Arg(48)->Arg(3000);

}  // namespace
