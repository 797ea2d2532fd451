// The sync planner's decisions: for one item, from the pair's records and both sides' items;
// for whole trees, in the order a run takes them.

#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <string>

#include "sync/SyncPlanner.h"
#include "sync/SyncTreePlanner.h"

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

// A tree as "path=kind" words: "d" a folder, "l" a link, "f<seconds>" a file.
using Tree = std::map<std::string, std::string>;

Tree parseTree(const std::string& text) {
    Tree tree;
    std::istringstream words(text);
    for (std::string w; words >> w;) tree[w.substr(0, w.find('='))] = w.substr(w.find('=') + 1);
    return tree;
}

KvMetadata entry(const std::string& root, const std::string& rel, const std::string& kind) {
    auto m = *item(kind);
    m.setPath(root + "/" + rel);
    m.setName(rel.substr(rel.rfind('/') + 1));
    m.fileSizeInBytes = 10;
    return m;
}

SyncTreeSnapshot snapshotOf(const std::string& root, const Tree& tree) {
    SyncTreeSnapshot snap;
    snap.folders[""];
    for (auto& [rel, kind] : tree) {
        auto slash = rel.rfind('/');
        snap.folders[slash == std::string::npos ? "" : rel.substr(0, slash)].push_back(
            entry(root, rel, kind));
        if (kind == "d") snap.folders[rel];
    }
    return snap;
}

// The steps for both trees and the records (each recorded item on both sides); those that only
// write or drop records in parentheses.
std::string planTrees(const std::string& records, const std::string& remote,
                      const std::string& local) {
    Tree recorded = parseTree(records);
    auto lookup = [recorded](const std::string& root, const std::string& recordRoot) {
        return [recorded, root, recordRoot](const KvMetadata& m) -> std::optional<KvMetadata> {
            auto rel = m.pathOrEmpty().substr(root.size() + 1);
            auto it = recorded.find(rel);
            if (it == recorded.end() || (it->second == "d") != m.isDir) return std::nullopt;
            return entry(recordRoot, rel, it->second);
        };
    };
    auto remoteTree = snapshotOf("/r", parseTree(remote));
    auto localTree = snapshotOf("/l", parseTree(local));
    SyncTreePlanner::Input input;
    input.remote = &remoteTree;
    input.local = &localTree;
    input.remoteRoot = KvMetadata("/r");
    input.localRoot = KvMetadata("/l");
    input.records = {lookup("/r", "/r"), lookup("/r", "/l"), lookup("/l", "/l"),
                     lookup("/l", "/r")};
    std::string out;
    for (auto& step : SyncTreePlanner::plan(input).steps) {
        auto& d = step.decision;
        std::string what = step.kind == SyncStepKind::RecordFolder ? "(record " + d.path + ")"
                           : step.kind == SyncStepKind::ForgetFolder
                               ? "(forget " + d.path + ")"
                               : std::string(syncActionName(d.action)) + " " + d.path;
        out += (out.empty() ? "" : ", ") + what;
    }
    return out;
}

TEST(SyncTreePlanner, DecidesWholeTreesInTheOrderARunTakesThem) {
    struct Row {
        std::string records, remote, local, decisions;
    };
    const Row table[] = {
        // New on the server: its folder first, then what it holds.
        {"", "a=d a/b=f100", "", "mkdir local a, download a/b"},
        // A folder on both sides that was never synced gets its records, then what it holds.
        {"", "a=d a/b=f100", "a=d", "(record a), download a/b"},
        // A conflict's local loser joins the local pass, after the local items.
        {"c=f100", "c=f300", "c=f200 n=f100", "download c, upload n, upload c.original"},
        // New here, in a new folder.
        {"", "", "n=d n/x=f100", "mkdir remote n, upload n/x"},
        // Folders deleted on one side go after both passes, down to what changed since.
        {"g=d g/x=f100", "g=d g/x=f100", "", "delete remote g/x, rmdir remote g"},
        {"d=d d/x=f100 d/y=f100", "d=d d/x=f100 d/y=f200", "",
         "delete remote d/x, keep d/y, (forget d), mkdir local d, download d/y"},
        {"e=d e/u=f100 e/v=f100", "", "e=d e/u=f100 e/v=f300 e/.h=f1",
         "keep e/.h, delete local e/u, keep e/v, (forget e), mkdir remote e, upload e/v"},
        // Links on either side are skipped once each and never delete their twin.
        {"f=f100 gone=f100 rl=f100", "f=f100 rl=l", "f=l gone=l rl=f100 dl=l",
         "skip f, skip rl, skip dl, skip gone"},
    };
    for (const Row& row : table)
        EXPECT_EQ(planTrees(row.records, row.remote, row.local), row.decisions)
            << "records " << row.records << "; server " << row.remote << "; local " << row.local;
}

}  // namespace
}  // namespace quillon::test
