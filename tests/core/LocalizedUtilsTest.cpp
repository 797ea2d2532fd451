#include "core/LocalizedUtils.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

using namespace quillon;
namespace lu = quillon::LocalizedUtils;

TEST(LocalizedUtils, KnownKeysShowTheirEnglishTextAndUnknownKeysThemselves) {
    EXPECT_EQ(lu::localizedStringForKey("trans.no_space"), "No enough free space!");
    EXPECT_EQ(lu::localizedStringForKey("trans.operation.timeout", "FTP timeout"),
              "Operation Time Out");
    EXPECT_EQ(lu::localizedStringForKey("menu.new_window"), "New Window");
    EXPECT_EQ(lu::localizedStringForKey("no.such.key"), "no.such.key");
    EXPECT_EQ(lu::localizedStringForKey(""), "");
}

TEST(LocalizedUtils, FormatFillsPlaceholdersInOrder) {
    EXPECT_EQ(lu::localizedFormat("nearby.accept_files_message", {"Bob's Mac"}),
              "Recevie files from Bob's Mac?");
    EXPECT_EQ(lu::localizedFormat("no.such.key", {"x"}), "no.such.key");
    // Missing arguments leave nothing behind.
    EXPECT_EQ(lu::localizedFormat("nearby.accept_files_message", {}), "Recevie files from ?");
}

TEST(LocalizedUtils, FirstLookupFromManyThreadsAtOnce) {
    std::vector<std::thread> threads;
    std::vector<std::string> results(8);
    for (std::size_t i = 0; i < results.size(); ++i)
        threads.emplace_back(
            [&results, i] { results[i] = lu::localizedStringForKey("trans.stop"); });
    for (auto& t : threads) t.join();
    for (auto& r : results) EXPECT_EQ(r, "Stop");
}
