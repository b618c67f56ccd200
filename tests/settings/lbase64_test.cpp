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

// Every length up to five lines, each flag combination: the text, the size announced for it,
// and the decoder giving the bytes back (so every alphabet character is decoded too).
TEST(LBase64, EveryFlagCombinationMatchesOpenSSLAndDecodesBackFixedBufferFormCutsAt259) {
    std::mt19937 rng(1234);
    for (unsigned flags = 0; flags < 4; ++flags) {
        for (size_t n = 0; n < 400; ++n) {
            const auto data = RandomBytes(rng, n);
            const std::string text = Encode(data, flags);
            ASSERT_EQ(text, Expected(data, flags)) << "length " << n << " flags " << flags;
            ASSERT_GE(Base64EncodeGetRequiredLength(static_cast<int>(n), flags),
                      static_cast<int>(text.size()));
            ASSERT_EQ(Decode(text), data) << "length " << n << " flags " << flags;
        }
    }
    EXPECT_EQ(Base64EncodeGetRequiredLength(-1, 0), 0);
    const auto data = RandomBytes(rng, 300);
    char out[260];
    std::memset(out, 'x', sizeof(out));
    LBase64Encode(data.data(), data.size(), out, kLBase64NoLineBreaks);
    EXPECT_EQ(std::string(out), OpenSSLEncode(data).substr(0, 259));
    LBase64Encode(data.data(), 57, out, 0);
    EXPECT_EQ(std::string(out), Encode({data.begin(), data.begin() + 57}, 0));
    LBase64Encode(nullptr, 10, out, 0);
    EXPECT_STREQ(out, "");
    LStringLongTemplate<char> text("previous");
    LBase64Encode(nullptr, 5, text, 0);  // the string form is emptied too
    EXPECT_STREQ(text.GetText(), "");
}

TEST(LBase64, DecodeSkipsWhatIsOutsideTheAlphabetAndStopsAtTheLengthOrANul) {
    const std::vector<unsigned char> abc{'A', 'B', 'C'};
    EXPECT_EQ(Decode("Q U=J\tD=="), abc);
    EXPECT_EQ(Decode("QUI"), (std::vector<unsigned char>{'A', 'B'}));  // 3 characters: 2 bytes
    EXPECT_EQ(Decode("QUJDQ"), abc);                                   // 1 left over: no byte
    EXPECT_TRUE(Decode("!!==\r\n").empty());
    EXPECT_EQ(Decode(std::string("QUJD\0REVG", 9)), abc);
    LSizedArray<unsigned char> out;
    LBase64Decode("QUJDREVG", 4, out);
    EXPECT_EQ(std::vector<unsigned char>(out.GetData(), out.GetData() + out.GetSize()), abc);
    LBase64Decode(nullptr, 4, out);
    EXPECT_EQ(out.GetSize(), 0u);
    EXPECT_EQ(DecodeBase64Char('='), -1);
    EXPECT_EQ(DecodeBase64Char(0x141), -1);  // 'A' + 256 is not 'A'
}
