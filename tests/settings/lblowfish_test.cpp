// Blowfish against OpenSSL on random keys and blocks (words loaded little-endian, as stored
// settings are), which also checks every initial table word; ECB, short tails, string forms.
#define OPENSSL_SUPPRESS_DEPRECATED 1
#include "settings/lblowfish.h"

#include <gtest/gtest.h>
#include <openssl/blowfish.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "settings/lbase64.h"

namespace {

uint32_t LoadLE(const unsigned char* p) {
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
           (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

LBlowFish Keyed(const char* key) {
    LBlowFish cipher;
    cipher.SetKey(key);
    return cipher;
}

std::string RandomKey(std::mt19937& rng) {
    std::string key(1 + rng() % 80, ' ');
    for (char& c : key) {
        c = static_cast<char>(1 + rng() % 255);  // no NUL: the key length is strlen
    }
    return key;
}

BF_KEY OpenSSLKey(const std::string& key) {
    BF_KEY k;
    BF_set_key(&k, static_cast<int>(key.size()),
               reinterpret_cast<const unsigned char*>(key.data()));
    return k;
}

// Enciphers bytes with OpenSSL after loading each half little-endian.
std::vector<unsigned char> OpenSSLEncodeLE(const BF_KEY& key, std::vector<unsigned char> data,
                                           bool decrypt = false) {
    for (size_t off = 0; off < data.size(); off += 8) {
        BF_LONG words[2] = {LoadLE(&data[off]), LoadLE(&data[off + 4])};
        if (decrypt) {
            BF_decrypt(words, &key);
        } else {
            BF_encrypt(words, &key);
        }
        for (int h = 0; h < 2; ++h) {
            for (int i = 0; i < 4; ++i) {
                data[off + 4 * h + i] = static_cast<unsigned char>(words[h] >> (8 * i));
            }
        }
    }
    return data;
}

// The bytes under a Base64 text, read with our decoder (shown sound by the Base64 tests).
std::vector<unsigned char> Base64Bytes(const char* text) {
    LSizedArray<unsigned char> out;
    LBase64Decode(text, std::strlen(text), out);
    return {out.GetData(), out.GetData() + out.GetSize()};
}

}  // namespace

TEST(LBlowFish, BlocksMatchOpenSSLEmptyKeyKeepsTheScheduleAndAShortTailIsAWholeBlock) {
    std::mt19937 rng(2024);
    for (int round = 0; round < 50; ++round) {
        const std::string key = RandomKey(rng);
        LBlowFish ours = Keyed(key.c_str());
        const BF_KEY theirs = OpenSSLKey(key);
        ASSERT_EQ(std::memcmp(ours.GetP(), theirs.P, sizeof(theirs.P)), 0) << key.size();
        for (int box = 0; box < 4; ++box) {
            ASSERT_EQ(std::memcmp(ours.GetS(box), theirs.S + 256 * box, 256 * 4), 0);
        }
        // Blocks under that key, through both the byte and the word interfaces.
        std::vector<unsigned char> data(8 * (1 + rng() % 8));
        for (auto& b : data) {
            b = static_cast<unsigned char>(rng());
        }
        std::vector<unsigned char> enc = data;
        ours.Encode(enc.data(), enc.size());
        const std::vector<unsigned char> expected = OpenSSLEncodeLE(theirs, data);
        ASSERT_EQ(enc, expected);
        ours.Decode(enc.data(), enc.size());
        ASSERT_EQ(enc, data);
        unsigned l = LoadLE(&data[0]);
        unsigned r = LoadLE(&data[4]);
        ours.Blowfish_encipher(l, r);
        ASSERT_EQ(l, LoadLE(&expected[0]));
        ASSERT_EQ(r, LoadLE(&expected[4]));
    }
    LBlowFish a = Keyed("first key");
    LBlowFish b = Keyed("other");
    b.SetKey("first key");  // from the initial tables, not from the previous schedule
    b.SetKey("");
    b.SetKey(nullptr);
    EXPECT_EQ(std::memcmp(a.GetP(), b.GetP(), 18 * 4), 0);
    EXPECT_EQ(std::memcmp(a.GetS(3), b.GetS(3), 256 * 4), 0);
    unsigned char buf[16] = {1, 2, 3, 4, 5, 6, 7, 8, 1, 2, 3, 4, 0xAA, 0xBB, 0xCC, 0xDD};
    unsigned char tail[8];
    std::memcpy(tail, buf + 8, 8);
    a.Encode(buf, 12);
    a.Encode(tail, 8);
    EXPECT_EQ(std::memcmp(buf + 8, tail, 8), 0);
}

// Blocks hold the text and its NUL, zero-padded; the Base64 text breaks after 76 characters.
TEST(LSettingEncrypt, BlocksOfTheTextAndItsNulLineBreaksGarbageAndFixedBuffers) {
    LStringLongTemplate<char> out;
    LSettingEncrypt(out, "abc");
    ASSERT_EQ(std::string(out.GetText()).size(), 12u);
    const auto plain = OpenSSLEncodeLE(OpenSSLKey(kLSettingKey), Base64Bytes(out.GetText()), true);
    EXPECT_EQ(plain, (std::vector<unsigned char>{'a', 'b', 'c', 0, 0, 0, 0, 0}));
    LSettingDecrypt(out);
    EXPECT_STREQ(out.GetText(), "abc");
    LSettingEncrypt(out, nullptr);
    EXPECT_STREQ(out.GetText(), "");
    LSettingDecrypt(out);
    EXPECT_TRUE(out.IsEmpty());
    LSettingDecrypt(static_cast<char*>(nullptr));
    const std::string letters = "abcdefghijklmnopqrstuvwxyz";
    for (size_t n = 57; n <= 64; ++n) {
        const std::string text = (letters + letters + letters).substr(0, n);
        LSettingEncrypt(out, text.c_str());
        const std::string enc = out.GetText();
        ASSERT_EQ(enc.size(), 76u + 2u + (n < 64 ? 12u : 20u)) << n;  // 64: a ninth block
        EXPECT_EQ(enc.find('\r'), 76u);
        EXPECT_EQ(enc.find('\r', 78), std::string::npos);
        std::vector<char> buffer(enc.begin(), enc.end());
        buffer.push_back(0);
        LSettingDecrypt(buffer.data());
        EXPECT_EQ(std::string(buffer.data()), text);
    }
    // A short tail deciphers to a whole block that may hold no NUL; the result is cut to fit.
    std::mt19937 rng(8);
    for (int round = 0; round < 200; ++round) {
        std::vector<char> buffer(2 + rng() % 12, 0);
        for (size_t i = 0; i + 1 < buffer.size(); ++i) {
            buffer[i] = static_cast<char>(' ' + rng() % 95);
        }
        LSettingDecrypt(buffer.data());
        EXPECT_LE(std::strlen(buffer.data()), buffer.size() - 1);
    }
    // Deciphering always uses the setting key, whatever key the object holds; enciphering uses
    // the object's key, so text enciphered under another key does not come back. The fixed
    // buffer forms cut their input at 263 characters and their output at 259.
    const std::string kText =
        "s\xC3\xA9"
        "cret \xFF\x01 value";  // bytes above 127 too
    LStringLongTemplate<char> setting;
    LSettingEncrypt(setting, kText.c_str());
    for (const char* key : {kLSettingKey, "wrong"}) {
        SCOPED_TRACE(key);
        LBlowFish bf = Keyed(key);
        LStringLongTemplate<char> dec;
        bf.StringDecodeBase64(dec, setting.GetText());
        EXPECT_EQ(dec.GetText(), kText);
        char buffer[260];
        bf.StringDecodeBase64(buffer, setting.GetText());
        EXPECT_EQ(buffer, kText);
        LStringLongTemplate<char> own;
        bf.StringEncodeBase64(own, kText.c_str());
        bf.StringDecodeBase64(dec, own.GetText());
        EXPECT_EQ(dec.GetText() == kText, std::string(key) == kLSettingKey);
    }
    LBlowFish bf = Keyed(kLSettingKey);
    const std::string longText(300, 'q');
    char enc[260];
    bf.StringEncodeBase64(enc, longText.c_str());
    EXPECT_EQ(std::strlen(enc), 259u);
    LStringLongTemplate<char> full;
    bf.StringEncodeBase64(full, longText.substr(0, 263).c_str());
    EXPECT_EQ(std::string(full.GetText()).substr(0, 259), std::string(enc));
    bf.StringEncodeBase64(full, longText.c_str());
    EXPECT_EQ(std::string(full.GetText()).find('\r'), std::string::npos);  // no line breaks
    char dec[260];
    bf.StringDecodeBase64(dec, full.GetText());
    EXPECT_EQ(std::string(dec), longText.substr(0, 259));
}
