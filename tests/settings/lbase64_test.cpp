// Base64 against OpenSSL's encoder with the CR LF line and padding rules laid over it, the
// size rule and the tolerant decoder.
#include "settings/lbase64.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

std::string Encode(const std::vector<unsigned char>& data, unsigned flags) {
    LStringLongTemplate<char> out;
    LBase64Encode(data.data(), data.size(), out, flags);
    return out.GetText();
}

std::string OpenSSLEncode(const std::vector<unsigned char>& data) {
    std::string out(4 * ((data.size() + 2) / 3) + 1, '\0');
    const int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()), data.data(),
                                  static_cast<int>(data.size()));
    out.resize(static_cast<size_t>(n));
    return out;
}

// OpenSSL's text with CR LF after every full line of 76 characters from whole groups (57
// bytes end in CR LF, 56 do not), and no '=' when asked.
std::string Expected(const std::vector<unsigned char>& data, unsigned flags) {
    const std::string flat = OpenSSLEncode(data);
    const size_t wholeGroupChars = data.size() / 3 * 4;
    std::string out;
    for (size_t i = 0; i <= flat.size(); ++i) {
        if (!(flags & kLBase64NoLineBreaks) && i > 0 && i % 76 == 0 && i <= wholeGroupChars) {
            out += "\r\n";
        }
        if (i < flat.size() && !(flat[i] == '=' && (flags & kLBase64NoPadding))) {
            out += flat[i];
        }
    }
    return out;
}

std::vector<unsigned char> Decode(const std::string& text) {
    LSizedArray<unsigned char> out;
    LBase64Decode(text.c_str(), text.size(), out);
    return {out.GetData(), out.GetData() + out.GetSize()};
}

std::vector<unsigned char> RandomBytes(std::mt19937& rng, size_t n) {
    std::vector<unsigned char> v(n);
    for (auto& b : v) {
        b = static_cast<unsigned char>(rng());
    }
    return v;
}

}  // namespace

TEST(LBase64, EveryFlagCombinationMatchesOpenSSLOnRandomInput) {
    std::mt19937 rng(1234);
    for (unsigned flags = 0; flags < 4; ++flags) {
        for (size_t n = 0; n < 400; ++n) {
            const auto data = RandomBytes(rng, n);
            ASSERT_EQ(Encode(data, flags), Expected(data, flags))
                << "length " << n << " flags " << flags;
        }
    }
}

TEST(LBase64, RequiredLengthCoversTheOutputForEveryFlagCombination) {
    std::mt19937 rng(11);
    for (unsigned flags = 0; flags < 4; ++flags) {
        for (int n = 0; n < 240; ++n) {
            const auto data = RandomBytes(rng, static_cast<size_t>(n));
            const int need = Base64EncodeGetRequiredLength(n, flags);
            ASSERT_GE(need, static_cast<int>(Encode(data, flags).size()))
                << "length " << n << " flags " << flags;
        }
    }
    EXPECT_EQ(Base64EncodeGetRequiredLength(57, 0), 80);  // breaks counted from 76 characters
    EXPECT_EQ(Base64EncodeGetRequiredLength(1, kLBase64NoPadding), 6);  // rounded up to 4
}

TEST(LBase64, FixedBufferFormCutsAt259CharactersAndNullDataWritesNothing) {
    std::mt19937 rng(3);
    const auto data = RandomBytes(rng, 300);
    char out[260];
    std::memset(out, 'x', sizeof(out));
    LBase64Encode(data.data(), data.size(), out, kLBase64NoLineBreaks);
    EXPECT_EQ(std::strlen(out), 259u);
    EXPECT_EQ(std::string(out), OpenSSLEncode(data).substr(0, 259));
    LBase64Encode(data.data(), 57, out, 0);
    EXPECT_EQ(std::string(out), Encode({data.begin(), data.begin() + 57}, 0));
    LBase64Encode(nullptr, 10, out, 0);
    EXPECT_STREQ(out, "");
    LStringLongTemplate<char> text("previous");
    LBase64Encode(nullptr, 5, text, 0);  // the string form is emptied too
    EXPECT_STREQ(text.GetText(), "");
}

TEST(LBase64, DecodeSkipsEverythingOutsideTheAlphabet) {
    EXPECT_EQ(Decode(std::string("QU\r\nJD")), (std::vector<unsigned char>{'A', 'B', 'C'}));
    EXPECT_EQ(Decode("Q U=J\tD=="), (std::vector<unsigned char>{'A', 'B', 'C'}));
    EXPECT_EQ(Decode("QUI"), (std::vector<unsigned char>{'A', 'B'}));  // 3 characters: 2 bytes
    EXPECT_EQ(Decode("QUJDQ"), (std::vector<unsigned char>{'A', 'B', 'C'}));  // 1 left: none
    EXPECT_TRUE(Decode("!!==\r\n").empty());
}

TEST(LBase64, DecodeStopsAtTheLengthOrTheFirstNul) {
    LSizedArray<unsigned char> out;
    LBase64Decode("QUJDREVG", 4, out);
    ASSERT_EQ(out.GetSize(), 3u);
    EXPECT_EQ(std::memcmp(out.GetData(), "ABC", 3), 0);
    const char withNul[] = "QUJD\0REVG";
    LBase64Decode(withNul, sizeof(withNul) - 1, out);
    EXPECT_EQ(out.GetSize(), 3u);
    LBase64Decode(nullptr, 4, out);
    EXPECT_EQ(out.GetSize(), 0u);
}

TEST(LBase64, DecodeCharGivesAlphabetIndexOrMinusOne) {
    const std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    for (unsigned c = 0; c < 256; ++c) {
        const auto pos = alphabet.find(static_cast<char>(c));
        const int expected = c != 0 && pos != std::string::npos ? static_cast<int>(pos) : -1;
        ASSERT_EQ(DecodeBase64Char(c), expected) << c;
    }
    EXPECT_EQ(DecodeBase64Char(0x141), -1);  // 'A' + 256 is not 'A'
    EXPECT_EQ(DecodeBase64Char(~0u), -1);
}
