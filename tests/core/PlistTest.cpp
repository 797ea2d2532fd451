// Property lists: what is written reads back the same, and bad files give clear errors.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "core/Plist.h"
#include "support/TestEnv.h"

using namespace quillon;

TEST(Plist, RoundTripsEveryKindOfValue) {
    PlistDict d;
    d["bool"] = true;
    d["int"] = std::int64_t{-9007199254740993};
    d["real"] = 2.5;
    d["text"] = std::string("<a & \"b\"> ü 漢字");
    d["date"] = PlistDate(std::chrono::seconds(1700000000)) + std::chrono::microseconds(250000);
    d["data"] = PlistData{0, 1, 2, 255};
    d["array"] =
        PlistArray{PlistValue("x"), PlistValue(1), PlistValue(PlistDict{{"k", PlistValue(false)}})};
    auto xml = Plist::toXml(PlistValue(d));
    auto back = Plist::fromXml(xml);
    ASSERT_TRUE(back) << back.error().reason;
    EXPECT_EQ(*back, PlistValue(d));
}

TEST(Plist, RejectsMalformedDocumentsWithAReason) {
    for (std::string bad : {"", "not xml", "<plist><dict><key>a</key></dict></plist>",
                            "<plist><integer>12x</integer></plist>", "<plist><wat/></plist>",
                            "<plist><dict><string>no key</string></dict></plist>"}) {
        auto r = Plist::fromXml(bad);
        ASSERT_FALSE(r) << bad;
        EXPECT_NE(r.error().reason.find("Malformed property list"), std::string::npos);
    }
}

TEST(Plist, WritesAtomicallyWithTheRequestedMode) {
    test::ScratchDir dir("plist");
    std::string path = dir / "pref.plist";
    ASSERT_TRUE(Plist::writeFile(path, PlistValue(PlistDict{{"a", PlistValue(1)}}), 0600));
    ASSERT_TRUE(Plist::writeFile(path, PlistValue(PlistDict{{"a", PlistValue(2)}}), 0600));
    EXPECT_EQ(test::modeOf(path), 0600u);
    auto r = Plist::readFile(path);
    ASSERT_TRUE(r);
    EXPECT_EQ(r->get<PlistDict>()->at("a").toInteger(), 2);
    // No temporary files are left beside it.
    int entries = 0;
    for ([[maybe_unused]] auto& e : std::filesystem::directory_iterator(dir.path())) ++entries;
    EXPECT_EQ(entries, 1);
    // Writing into a folder that does not exist fails and says where.
    auto w = Plist::writeFile(dir / "missing/x.plist", PlistValue(1));
    ASSERT_FALSE(w);
    EXPECT_NE(w.error().reason.find("missing/x.plist"), std::string::npos);
}
