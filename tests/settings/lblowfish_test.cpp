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

TEST(LBlowFish, BlocksMatchOpenSSLWithLittleEndianWords) {
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
}

TEST(LBlowFish, EmptyKeyKeepsThePreviousSchedule) {
    LBlowFish a = Keyed("first key");
    LBlowFish b = Keyed("first key");
    b.SetKey("");
    b.SetKey(nullptr);
    EXPECT_EQ(std::memcmp(a.GetP(), b.GetP(), 18 * 4), 0);
    // A new key starts again from the initial tables rather than from the previous schedule.
    LBlowFish c = Keyed("other");
    c.SetKey("first key");
    EXPECT_EQ(std::memcmp(a.GetS(3), c.GetS(3), 256 * 4), 0);
}

TEST(LBlowFish, ShortTailIsEncipheredAsAWholeBlock) {
    LBlowFish bf = Keyed("tail");
    unsigned char buf[16] = {1, 2, 3, 4, 5, 6, 7, 8, 1, 2, 3, 4, 0xAA, 0xBB, 0xCC, 0xDD};
    unsigned char tail[8];
    std::memcpy(tail, buf + 8, 8);
    bf.Encode(buf, 12);
    bf.Encode(tail, 8);
    EXPECT_EQ(std::memcmp(buf + 8, tail, 8), 0);
}

TEST(LSettingEncrypt, ThreeCharactersGiveOneBlockAsTwelveCharactersAndNothingGivesNothing) {
    LStringLongTemplate<char> out;
    LSettingEncrypt(out, "abc");
    const std::string text = out.GetText();
    ASSERT_EQ(text.size(), 12u);
    EXPECT_EQ(text.back(), '=');
    EXPECT_EQ(text.find('\r'), std::string::npos);
    // OpenSSL's cipher reads it as "abc", its NUL and zero padding.
    const auto bytes = Base64Bytes(text.c_str());
    ASSERT_EQ(bytes.size(), 8u);
    const auto plain = OpenSSLEncodeLE(OpenSSLKey(kLSettingKey), bytes, true);
    EXPECT_EQ(plain, (std::vector<unsigned char>{'a', 'b', 'c', 0, 0, 0, 0, 0}));
    LSettingDecrypt(out);
    EXPECT_STREQ(out.GetText(), "abc");
    out = "stale";
    LSettingEncrypt(out, nullptr);
    EXPECT_STREQ(out.GetText(), "");
    LSettingDecrypt(static_cast<char*>(nullptr));
    LStringLongTemplate<char> none;
    LSettingDecrypt(none);
    EXPECT_TRUE(none.IsEmpty());
}

TEST(LSettingEncrypt, FiftySevenToSixtyThreeCharactersBreakAfterOneLine) {
    for (size_t n = 57; n <= 63; ++n) {
        std::string text;
        for (size_t i = 0; i < n; ++i) {
            text += static_cast<char>('a' + i % 26);
        }
        LStringLongTemplate<char> out;
        LSettingEncrypt(out, text.c_str());
        const std::string enc = out.GetText();
        ASSERT_EQ(enc.size(), 76u + 2u + 12u) << n;
        EXPECT_EQ(enc.substr(76, 2), "\r\n");
        EXPECT_EQ(enc.find('\r', 78), std::string::npos);
        std::vector<char> buffer(enc.begin(), enc.end());
        buffer.push_back(0);
        LSettingDecrypt(buffer.data());
        EXPECT_EQ(std::string(buffer.data()), text);
    }
    // Blocks hold the text and its NUL: 64 characters take a ninth block.
    LStringLongTemplate<char> out;
    LSettingEncrypt(out, std::string(64, 'x').c_str());
    EXPECT_EQ(Base64Bytes(out.GetText()).size(), 72u);
}

TEST(LSettingDecrypt, GarbageNeverGrowsPastItsBuffer) {
    // A short tail deciphers to a whole block that may hold no NUL; the result is cut to fit.
    std::mt19937 rng(8);
    for (int round = 0; round < 200; ++round) {
        std::string text(1 + rng() % 12, 'A');
        for (char& c : text) {
            c = static_cast<char>(' ' + rng() % 95);
        }
        std::vector<char> buffer(text.begin(), text.end());
        buffer.push_back(0);
        LSettingDecrypt(buffer.data());
        EXPECT_LE(std::strlen(buffer.data()), text.size());
    }
}

TEST(LBlowFishString, FixedBufferFormsCutTheirInputAndOutput) {
    LBlowFish bf = Keyed(kLSettingKey);
    const std::string longText(300, 'q');
    char enc[260];
    bf.StringEncodeBase64(enc, longText.c_str());
    EXPECT_EQ(std::strlen(enc), 259u);
    // The text was cut to 263 characters: 264 bytes with the NUL, whose encoding starts alike.
    LStringLongTemplate<char> full;
    bf.StringEncodeBase64(full, longText.substr(0, 263).c_str());
    EXPECT_EQ(std::string(full.GetText()).substr(0, 259), std::string(enc));
    bf.StringEncodeBase64(full, longText.c_str());
    EXPECT_EQ(std::string(full.GetText()).find('\r'), std::string::npos);  // no line breaks
    char dec[260];
    bf.StringDecodeBase64(dec, full.GetText());
    EXPECT_EQ(std::string(dec), longText.substr(0, 259));
}

// Deciphering always uses the setting key, whatever key the object holds; enciphering uses
// the object's key, so text enciphered under another key does not come back.
TEST(LBlowFishString, DecipheringUsesTheSettingKey) {
    const char* const kText =
        "s\xC3\xA9"
        "cret \xFF\x01 value";  // bytes above 127 too
    LStringLongTemplate<char> setting;
    LSettingEncrypt(setting, kText);
    for (const char* key : {kLSettingKey, "wrong", "another key entirely"}) {
        SCOPED_TRACE(key);
        LBlowFish bf = Keyed(key);
        LStringLongTemplate<char> dec;
        bf.StringDecodeBase64(dec, setting.GetText());
        EXPECT_STREQ(dec.GetText(), kText);
        char buffer[260];
        bf.StringDecodeBase64(buffer, setting.GetText());
        EXPECT_STREQ(buffer, kText);
        LStringLongTemplate<char> own;
        bf.StringEncodeBase64(own, kText);
        bf.StringDecodeBase64(dec, own.GetText());
        EXPECT_EQ(std::string(dec.GetText()) == std::string(kText),
                  std::string(key) == kLSettingKey);
    }
}
