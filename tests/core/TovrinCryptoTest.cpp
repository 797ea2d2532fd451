#include "core/TovrinCrypto.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

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

// Empty text and a whole block each gain a block of PKCS#7 padding; long text is cut into lines
// of 64 characters, without a line break at the end.
TEST(TovrinCrypto, MatchesOpenSslAes128CbcInLinesOf64AndRoundTrips) {
    TovrinCrypto crypto;
    std::string longText;
    for (int i = 0; i < 40; ++i) longText += "pässwörd-" + std::to_string(i) + " ";
    for (const std::string& text :
         {std::string(), std::string(16, 'A'), std::string("s3cret password"), longText}) {
        SCOPED_TRACE(text.size());
        auto ours = crypto.encryptString(text);
        ASSERT_TRUE(ours) << ours.error().reason;
        auto theirs = test::runProgram({"openssl", "enc", "-aes-128-cbc", "-K", hex(crypto.key),
                                        "-iv", hex(crypto.iv), "-base64", "-A"},
                                       text);
        ASSERT_EQ(theirs.exitCode, 0) << theirs.err;
        std::string oneLine = lines(theirs.out).at(0), wrapped;
        for (std::size_t at = 0; at < oneLine.size(); at += 64)
            wrapped += (at ? "\n" : "") + oneLine.substr(at, 64);
        EXPECT_EQ(*ours, wrapped);
        EXPECT_EQ(crypto.decryptString(*ours).value_or("x"), text);
    }
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
