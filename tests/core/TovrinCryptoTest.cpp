#include "core/TovrinCrypto.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <sstream>

#include "core/Base64.h"
#include "support/TestEnv.h"

using namespace quillon;

namespace {

std::string hex(const std::string& s) {
    std::string out;
    for (unsigned char c : s) out += fmt::format("{:02x}", c);
    return out;
}

using test::lines;

}  // namespace

TEST(TovrinCrypto, RoundTripsTextWithLineBreakEvery64Characters) {
    TovrinCrypto crypto;
    EXPECT_EQ(crypto.algo, 0);
    EXPECT_EQ(crypto.opts, 1);
    EXPECT_EQ(crypto.key.size(), 16u);
    EXPECT_EQ(crypto.iv.size(), 16u);

    std::string text;
    for (int i = 0; i < 40; ++i) text += "pässwörd-" + std::to_string(i) + " ";
    auto cipher = crypto.encryptString(text);
    ASSERT_TRUE(cipher) << cipher.error().reason;
    EXPECT_EQ(cipher->find("pässwörd"), std::string::npos);
    auto parts = lines(*cipher);
    ASSERT_GT(parts.size(), 2u);
    for (std::size_t i = 0; i + 1 < parts.size(); ++i) EXPECT_EQ(parts[i].size(), 64u) << i;
    EXPECT_LE(parts.back().size(), 64u);
    EXPECT_FALSE(parts.back().empty());
    EXPECT_NE(cipher->back(), '\n');

    auto plain = crypto.decryptString(*cipher);
    ASSERT_TRUE(plain) << plain.error().reason;
    EXPECT_EQ(*plain, text);

    auto empty = crypto.encryptString("");
    ASSERT_TRUE(empty);
    EXPECT_EQ(Base64::decode(*empty)->size(), 16u);  // one block of padding
    EXPECT_EQ(crypto.decryptString(*empty).value_or("x"), "");

    // A full block gains a whole block of PKCS#7 padding.
    std::vector<std::uint8_t> block(16, 0x41);
    auto enc = crypto.encryptData(block);
    ASSERT_TRUE(enc);
    EXPECT_EQ(enc->size(), 32u);
    EXPECT_EQ(crypto.decryptData(*enc).value_or(std::vector<std::uint8_t>{}), block);
}

TEST(TovrinCrypto, MatchesOpenSslCommandLineAes128Cbc) {
    TovrinCrypto crypto;
    std::string text = "s3cret password for the cloud copy";
    auto ours = crypto.encryptString(text);
    ASSERT_TRUE(ours);
    auto theirs = test::runProgram({"openssl", "enc", "-aes-128-cbc", "-K", hex(crypto.key), "-iv",
                                    hex(crypto.iv), "-base64", "-A"},
                                   text);
    ASSERT_EQ(theirs.exitCode, 0) << theirs.err;
    std::string joined;
    for (char c : *ours)
        if (c != '\n') joined += c;
    std::string expected = theirs.out;
    while (!expected.empty() && expected.back() == '\n') expected.pop_back();
    EXPECT_EQ(joined, expected);
}

TEST(TovrinCrypto, RejectsTextThatIsNotItsCipherText) {
    TovrinCrypto crypto;
    EXPECT_FALSE(crypto.decryptString("not base64 at all!"));
    // Whole bytes but not whole blocks.
    EXPECT_FALSE(crypto.decryptData(std::vector<std::uint8_t>(10, 1)));
    TovrinCrypto other;
    other.key = "another-key-1234";
    auto cipher = crypto.encryptString("secret");
    ASSERT_TRUE(cipher);
    auto wrong = other.decryptString(*cipher);
    EXPECT_TRUE(!wrong || *wrong != "secret");
    other.key = "short";
    EXPECT_FALSE(other.encryptString("x"));
}
