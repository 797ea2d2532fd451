// The sync planner's decisions for one item, from the pair's records and both sides' items.

#include <gtest/gtest.h>

#include <string>

#include "sync/SyncPlanner.h"

namespace quillon::test {
namespace {

// "-" nothing there, "d" a folder, "l" a link, "f<seconds>" a file with that time.
std::optional<KvMetadata> item(const std::string& text) {
    if (text == "-") return std::nullopt;
    KvMetadata m("/x/item");
    m.isDir = text == "d";
    m.isSymbolLink = text == "l";
    if (text.front() == 'f')
        m.timestamp = TimePoint(std::chrono::duration_cast<TimePoint::duration>(
            std::chrono::duration<double>(std::stod(text.substr(1)))));
    return m;
}

std::string decide(const SyncItemState& state, const SyncTimeRules& rules = {}) {
    auto plan = state.remote ? SyncPlanner::planRemoteItem(state, rules)
                             : SyncPlanner::planLocalOnlyItem(state);
    EXPECT_FALSE(plan.reason.empty());
    EXPECT_EQ(plan.keepLocalCopy, plan.conflict && plan.verdict == SyncVerdict::Download);
    return (plan.conflict ? "conflict " : "") + std::string(syncVerdictName(plan.verdict));
}

TEST(SyncPlanner, DecidesEachItemFromItsRecordsAndBothSides) {
    // A day of 2022, and 05:00 that day: a listing that shows an older file by its day only.
    const std::string midnight = "f1660003200", fiveAm = "f1660021200";
    struct Row {
        std::string remoteRecord, localRecord, remote, local, decision;
    };
    const Row table[] = {
        // Files listed on the server.
        {"-", "-", "f100", "-", "download"},
        {"-", "-", "f100", "f100", "conflict download"},  // never synced: newer wins, ties to
        {"-", "-", "f100", "f200", "conflict upload"},    // the server
        {"f100", "f100", "f200", "f100", "download"},
        {"f100", "f100", "f200", "f300", "conflict upload"},
        {"f100", "f100", "f300", "f200", "conflict download"},
        {"f100", "f100", "f200", "-", "download"},  // changed there beats deleted here
        {"f100", "-", "f200", "f300", "conflict upload"},
        {"f100", "-", "f100", "f50", "conflict download"},
        {"f100", "f100", "f100", "-", "delete remote"},
        {"f100", "-", "f100", "-", "delete remote"},  // an interrupted deletion is finished
        {"f100", "f100", "f100", "f200", "upload"},
        {"f100", "f100", "f100.9", "f100.9", "nothing"},  // within a second: unchanged
        {"f100", "f100", "f101.1", "f100", "download"},
        {"f100", "f100", "f100", "f98.9", "upload"},
        {fiveAm, "f100", midnight, "f100", "nothing"},
        // Folders and what is not synced.
        {"-", "-", "d", "-", "mkdir local"},
        {"d", "d", "d", "-", "rmdir remote"},
        {"d", "-", "d", "-", "rmdir remote"},
        {"-", "-", "d", "d", "enter"},
        {"d", "d", "d", "d", "enter"},
        {"-", "-", "d", "f100", "skip"},
        {"-", "-", "f100", "d", "skip"},
        {"-", "-", "l", "-", "skip"},
        {"-", "-", "f100", "l", "skip"},
        // Local items with nothing of their name on the server.
        {"-", "-", "-", "f100", "upload"},
        {"f100", "f100", "-", "f100", "delete local"},
        {"-", "f100", "-", "f100", "delete local"},
        {"f100", "f100", "-", "f200", "upload"},  // changed here beats deleted there
        {"-", "-", "-", "d", "mkdir remote"},
        {"d", "d", "-", "d", "rmdir local"},
        {"-", "-", "-", "l", "skip"},
    };
    for (const Row& row : table) {
        SyncItemState state{item(row.remote), item(row.local), item(row.remoteRecord),
                            item(row.localRecord)};
        EXPECT_EQ(decide(state), row.decision)
            << "records " << row.remoteRecord << " " << row.localRecord << ", sides " << row.remote
            << " " << row.local;
    }

    // A server whose listed times are coarse answers the comparisons with exact ones.
    SyncTimeRules exact;
    exact.remoteChanged = [](const KvMetadata&, const KvMetadata&) { return true; };
    exact.localIsNewer = [](const KvMetadata&, const KvMetadata&) { return true; };
    SyncItemState same{item("f100"), item("f100"), item("f100"), item("f100")};
    EXPECT_EQ(decide(same, exact), "download");
    same.localRecord = item("f50");
    EXPECT_EQ(decide(same, exact), "conflict upload");
}

}  // namespace
}  // namespace quillon::test
