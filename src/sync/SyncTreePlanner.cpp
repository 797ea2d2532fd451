#include "sync/SyncTreePlanner.h"

#include <unordered_set>

#include "core/StringUtils.h"
#include "sync/SyncUtils.h"
#include "transfer/FileTransferUtils.h"
#include "transfer/RemoteUpload.h"

namespace quillon {

std::string_view syncActionName(SyncAction action) {
    switch (action) {
        case SyncAction::Download:
            return "download";
        case SyncAction::Upload:
            return "upload";
        case SyncAction::DeleteRemote:
            return "delete remote";
        case SyncAction::DeleteLocal:
            return "delete local";
        case SyncAction::CreateLocalFolder:
            return "mkdir local";
        case SyncAction::CreateRemoteFolder:
            return "mkdir remote";
        case SyncAction::DeleteRemoteFolder:
            return "rmdir remote";
        case SyncAction::DeleteLocalFolder:
            return "rmdir local";
        case SyncAction::Keep:
            return "keep";
        case SyncAction::Skip:
            return "skip";
    }
    return "unknown";
}

SyncSummary summarizeDecisions(const std::vector<SyncDecision>& decisions) {
    SyncSummary s;
    for (auto& d : decisions) {
        auto size = static_cast<std::int64_t>(d.size);
        switch (d.action) {
            case SyncAction::Download:
                ++s.downloaded;
                s.bytesDownloaded += size;
                break;
            case SyncAction::Upload:
                ++s.uploaded;
                s.bytesUploaded += size;
                break;
            case SyncAction::DeleteRemote:
                ++s.deletedRemote;
                break;
            case SyncAction::DeleteLocal:
                ++s.deletedLocal;
                break;
            case SyncAction::CreateLocalFolder:
                ++s.localFoldersCreated;
                break;
            case SyncAction::CreateRemoteFolder:
                ++s.remoteFoldersCreated;
                break;
            case SyncAction::DeleteRemoteFolder:
                ++s.remoteFoldersDeleted;
                break;
            case SyncAction::DeleteLocalFolder:
                ++s.localFoldersDeleted;
                break;
            case SyncAction::Keep:
                ++s.kept;
                break;
            case SyncAction::Skip:
                ++s.skipped;
                break;
        }
        if (d.conflict) ++s.conflicts;
    }
    return s;
}

bool SyncSummary::nothingChanged() const {
    return downloaded == 0 && uploaded == 0 && deletedLocal == 0 && deletedRemote == 0 &&
           localFoldersCreated == 0 && remoteFoldersCreated == 0 && localFoldersDeleted == 0 &&
           remoteFoldersDeleted == 0;
}

std::vector<SyncDecision> SyncPlan::decisions() const {
    std::vector<SyncDecision> out;
    for (auto& step : steps)
        if (step.kind == SyncStepKind::Act) out.push_back(step.decision);
    return out;
}

SyncSummary SyncPlan::summary() const {
    SyncSummary s = summarizeDecisions(decisions());
    s.localFiles = localFiles;
    s.remoteFiles = remoteFiles;
    return s;
}

std::int64_t SyncPlan::transferBytes() const {
    std::int64_t bytes = 0;
    for (auto& step : steps) {
        auto& d = step.decision;
        if (step.kind == SyncStepKind::Act &&
            (d.action == SyncAction::Download || d.action == SyncAction::Upload))
            bytes += static_cast<std::int64_t>(d.size);
    }
    return bytes;
}

namespace SyncTreePlanner {

using SyncUtils::localChild;

namespace {

std::string nameOf(const KvMetadata& m) {
    return m.nameIgnoreLinkResolve().value_or(StringUtils::lastPathComponent(m.pathOrEmpty()));
}

std::string childPath(const std::string& rel, const std::string& name) {
    return rel.empty() ? name : rel + "/" + name;
}

bool isLinkOrHidden(const KvMetadata& m) {
    return m.isSymbolLink || !isSyncedName(nameOf(m));
}

class Planner {
  public:
    explicit Planner(const Input& input) : in_(input) {}

    SyncPlan run() {
        out_.remoteFiles = countFiles(*in_.remote);
        out_.localFiles = countFiles(*in_.local);
        remotePass("", in_.remoteRoot, in_.localRoot, true);
        localPass("", in_.localRoot, in_.remoteRoot, true);
        // Indexes: a folder made again puts what it holds through the passes, which may add
        // deletions of its own.
        for (std::size_t i = 0; i < delRemote_.size(); ++i) {
            Deleted d = delRemote_[i];
            if (walk(true, d.rel, d.folder)) continue;
            SyncStep& step = emit(SyncAction::CreateLocalFolder, true, false, d.rel,
                                  "it holds items changed on the server");
            step.item.remote = d.folder;
            setFolders(step, d.parent, d.twinParent);
            remotePass(d.rel, d.folder, localChild(d.twinParent, nameOf(d.folder), true), false);
        }
        for (std::size_t i = 0; i < delLocal_.size(); ++i) {
            Deleted d = delLocal_[i];
            if (walk(false, d.rel, d.folder)) continue;
            SyncStep& step = emit(SyncAction::CreateRemoteFolder, true, false, d.rel,
                                  "it holds items changed here");
            step.item.local = d.folder;
            setFolders(step, d.twinParent, d.parent);
            localPass(d.rel, d.folder,
                      RemoteUpload::itemInFolder(d.twinParent, nameOf(d.folder), true), false);
        }
        return std::move(out_);
    }

  private:
    struct Deleted {
        std::string rel;
        KvMetadata folder;
        KvMetadata parent;      // the folder it lies in
        KvMetadata twinParent;  // that folder's twin on the other side
    };

    const Input& in_;
    SyncPlan out_;
    std::vector<Deleted> delRemote_, delLocal_;
    // The local versions that lose a conflict, by folder: the local pass sends them up.
    struct Loser {
        KvMetadata original;
        std::string of;
        KvMetadata remoteFolder;
    };
    std::unordered_map<std::string, std::vector<Loser>> originals_;
    // What the folder walks delete, and the folders whose records they drop because something in
    // them stays: by side (index 1 the server's, 0 the local one), each by keyOf.
    std::unordered_set<std::string> gone_[2], dropped_[2];

    // How one side tells its items apart: the server's by full path, the local ones by path.
    static std::string keyOf(bool remote, const KvMetadata& m) {
        return remote ? SyncUtils::getFullPath(m) : m.pathOrEmpty();
    }
    // Where a side's changes are made, as the reasons say it.
    static std::string where(bool remote) { return remote ? "on the server" : "here"; }

    static std::int64_t countFiles(const SyncTreeSnapshot& tree) {
        std::int64_t files = 0;
        for (auto& [rel, entries] : tree.folders)
            for (auto& e : entries)
                if (!e.isDir && !isLinkOrHidden(e)) ++files;
        return files;
    }

    SyncStep& emit(SyncAction action, bool isDir, bool remoteSide, const std::string& path,
                   std::string reason, std::uint64_t size = 0, bool conflict = false) {
        SyncStep step;
        step.decision = {action, conflict, isDir, remoteSide, path, std::move(reason), size};
        return out_.steps.emplace_back(std::move(step));
    }
    SyncStep& records(SyncStepKind kind, const std::string& path) {
        SyncStep step;
        step.kind = kind;
        step.decision.path = path;
        return out_.steps.emplace_back(std::move(step));
    }
    static void setFolders(SyncStep& step, const KvMetadata& remote, const KvMetadata& local) {
        step.remoteFolder = remote;
        step.localFolder = local;
    }

    // A folder's entries; `all` keeps the hidden ones and links.
    KvMetadataList listed(bool remote, const std::string& rel, bool exists, bool all) const {
        KvMetadataList out;
        if (!exists) return out;
        const SyncTreeSnapshot& tree = remote ? *in_.remote : *in_.local;
        auto it = tree.folders.find(rel);
        if (it == tree.folders.end()) return out;
        for (auto& e : it->second) {
            std::string name = nameOf(e);
            if (name.empty() || (!all && !isSyncedName(name))) continue;
            if (gone_[remote].contains(keyOf(remote, e))) continue;
            out.push_back(e);
        }
        return out;
    }

    using Lookup = std::function<std::optional<KvMetadata>(const KvMetadata&)>;
    std::optional<KvMetadata> record(const Lookup& lookup, bool remote, const KvMetadata& m) const {
        if (!lookup || dropped_[remote].contains(keyOf(remote, m))) return std::nullopt;
        return lookup(m);
    }
    // The item as one side's records know it.
    SyncItemState itemOf(bool remote, const KvMetadata& m) const {
        SyncItemState item;
        auto& rec = in_.records;
        if (remote) {
            item.remote = m;
            item.remoteRecord = record(rec.remoteByRemote, true, m);
            item.localRecord = record(rec.localByRemote, true, m);
        } else {
            item.local = m;
            item.localRecord = record(rec.localByLocal, false, m);
            item.remoteRecord = record(rec.remoteByLocal, false, m);
        }
        return item;
    }

    bool changed(bool remote, const KvMetadata& m, const KvMetadata& record) const {
        if (!remote) return SyncPlanner::localChanged(m, record);
        return in_.rules.remoteChanged ? in_.rules.remoteChanged(m, record)
                                       : SyncPlanner::remoteChanged(m, record);
    }

    // The items listed on the server in one folder (`localFolder` is its local twin).
    void remotePass(const std::string& rel, const KvMetadata& remoteFolder,
                    const KvMetadata& localFolder, bool localExists) {
        auto remote = listed(true, rel, true, false);
        auto local = listed(false, rel, localExists, false);
        std::unordered_map<std::string, const KvMetadata*> localByName;
        for (auto& l : local) localByName.emplace(nameOf(l), &l);
        std::unordered_set<std::string> remoteNames;
        for (auto& r : remote) remoteNames.insert(nameOf(r));

        for (auto& r : remote) {
            std::string name = nameOf(r), path = childPath(rel, name);
            SyncItemState item = itemOf(true, r);
            if (auto it = localByName.find(name); it != localByName.end()) item.local = *it->second;
            const auto& l = item.local;
            auto plan = SyncPlanner::planRemoteItem(item, in_.rules);
            SyncStep* step = nullptr;
            switch (plan.verdict) {
                case SyncVerdict::Nothing:
                    break;
                case SyncVerdict::Skip: {
                    // A link lies on the side that holds it; a file facing a folder is the
                    // server's.
                    bool link = r.isSymbolLink || (l && l->isSymbolLink);
                    step = &emit(SyncAction::Skip, r.isDir, link ? r.isSymbolLink : true, path,
                                 plan.reason);
                    break;
                }
                case SyncVerdict::Download:
                    step = &emit(SyncAction::Download, false, false, path, plan.reason,
                                 r.fileSizeInBytes.value_or(0), plan.conflict);
                    step->keepLocalCopy = plan.keepLocalCopy && l;
                    if (step->keepLocalCopy) {
                        KvMetadata original = *l;
                        std::string kept =
                            FileTransferUtils::getUniqueFileName(local, name + ".original");
                        original.setName(kept);
                        // Unless the server holds that name too, the local pass sends it up.
                        if (!remoteNames.contains(kept))
                            originals_[rel].push_back({original, path, remoteFolder});
                    }
                    break;
                case SyncVerdict::Upload:
                    step = &emit(SyncAction::Upload, false, false, path, plan.reason,
                                 l->fileSizeInBytes.value_or(0), plan.conflict);
                    break;
                case SyncVerdict::DeleteRemote:
                    step = &emit(SyncAction::DeleteRemote, false, true, path, plan.reason);
                    break;
                case SyncVerdict::DeleteRemoteFolder:
                    delRemote_.push_back({path, r, remoteFolder, localFolder});
                    break;
                case SyncVerdict::CreateLocalFolder:
                    step = &emit(SyncAction::CreateLocalFolder, true, false, path, plan.reason);
                    break;
                case SyncVerdict::EnterFolder:
                    if (!item.remoteRecord || !item.localRecord)
                        step = &records(SyncStepKind::RecordFolder, path);
                    break;
                default:
                    break;
            }
            if (step) {
                step->item = item;
                setFolders(*step, remoteFolder, localFolder);
            }
            if (plan.verdict == SyncVerdict::CreateLocalFolder)
                remotePass(path, r, localChild(localFolder, name, true), false);
            else if (plan.verdict == SyncVerdict::EnterFolder)
                remotePass(path, r, *l, true);
        }
    }

    // The local items of one folder with nothing of their name on the server
    // (`remoteFolder` is its twin there).
    void localPass(const std::string& rel, const KvMetadata& localFolder,
                   const KvMetadata& remoteFolder, bool remoteExists) {
        auto local = listed(false, rel, true, false);
        auto remote = listed(true, rel, remoteExists, false);
        std::unordered_map<std::string, const KvMetadata*> remoteByName;
        for (auto& r : remote) remoteByName.emplace(nameOf(r), &r);

        for (auto& l : local) {
            std::string name = nameOf(l), path = childPath(rel, name);
            if (auto it = remoteByName.find(name); it != remoteByName.end()) {
                const KvMetadata& r = *it->second;
                if (r.isDir && l.isDir && !r.isSymbolLink && !l.isSymbolLink)
                    localPass(path, l, r, true);
                continue;
            }
            SyncItemState item = itemOf(false, l);
            auto plan = SyncPlanner::planLocalOnlyItem(item);
            SyncStep* step = nullptr;
            switch (plan.verdict) {
                case SyncVerdict::Skip:
                    step = &emit(SyncAction::Skip, l.isDir, false, path, plan.reason);
                    break;
                case SyncVerdict::Upload:
                    step = &emit(SyncAction::Upload, false, false, path, plan.reason,
                                 l.fileSizeInBytes.value_or(0));
                    break;
                case SyncVerdict::DeleteLocal:
                    step = &emit(SyncAction::DeleteLocal, false, false, path, plan.reason);
                    break;
                case SyncVerdict::DeleteLocalFolder:
                    delLocal_.push_back({path, l, localFolder, remoteFolder});
                    break;
                case SyncVerdict::CreateRemoteFolder:
                    step = &emit(SyncAction::CreateRemoteFolder, true, false, path, plan.reason);
                    break;
                default:
                    break;
            }
            if (step) {
                step->item = item;
                setFolders(*step, remoteFolder, localFolder);
            }
            if (plan.verdict == SyncVerdict::CreateRemoteFolder)
                localPass(path, l, RemoteUpload::itemInFolder(remoteFolder, name, true), false);
        }
        if (auto it = originals_.find(rel); it != originals_.end()) {
            for (auto& loser : it->second) {
                SyncStep& step =
                    emit(SyncAction::Upload, false, false, childPath(rel, nameOf(loser.original)),
                         "the local version that lost, kept beside it",
                         loser.original.fileSizeInBytes.value_or(0));
                step.item.local = loser.original;
                step.loserOf = loser.of;
                setFolders(step, loser.remoteFolder, localFolder);
            }
            originals_.erase(it);
        }
    }

    // A folder on one side deleted on the other: what is unchanged since the last sync goes, the
    // rest is kept; true when the folder itself goes.
    bool walk(bool remote, const std::string& rel, const KvMetadata& folder) {
        const std::string here = where(remote), there = where(!remote);
        bool kept = false;
        for (auto& e : listed(remote, rel, true, true)) {
            std::string path = childPath(rel, nameOf(e));
            if (isLinkOrHidden(e)) {
                kept = true;
                emit(SyncAction::Keep, e.isDir, remote, path, "not synced (hidden or a link)");
                continue;
            }
            auto item = itemOf(remote, e);
            const auto& record = remote ? item.remoteRecord : item.localRecord;
            if (e.isDir) {
                if (!record) {
                    kept = true;
                    emit(SyncAction::Keep, true, remote, path, "new " + here);
                } else if (!walk(remote, path, e)) {
                    kept = true;
                }
                continue;
            }
            if (record && !changed(remote, e, *record)) {
                emit(remote ? SyncAction::DeleteRemote : SyncAction::DeleteLocal, false, remote,
                     path, "its folder was deleted " + there)
                    .item = item;
                gone_[remote].insert(keyOf(remote, e));
            } else {
                kept = true;
                emit(SyncAction::Keep, false, remote, path,
                     record ? "changed " + here + " since the last sync" : "new " + here);
            }
        }
        auto item = itemOf(remote, folder);
        if (kept) {
            // What is left makes the folder new to the next comparison.
            records(SyncStepKind::ForgetFolder, rel).item = item;
            dropped_[remote].insert(keyOf(remote, folder));
            return false;
        }
        emit(remote ? SyncAction::DeleteRemoteFolder : SyncAction::DeleteLocalFolder, true, remote,
             rel, "deleted " + there)
            .item = item;
        gone_[remote].insert(keyOf(remote, folder));
        return true;
    }
};

}  // namespace

bool isSyncedName(std::string_view name) {
    return !name.empty() && name.front() != '.' && name != kSyncTestFileName;
}

SyncPlan plan(const Input& input) {
    static const SyncTreeSnapshot empty;
    Input checked = input;
    if (!checked.remote) checked.remote = &empty;
    if (!checked.local) checked.local = &empty;
    return Planner(checked).run();
}

}  // namespace SyncTreePlanner
}  // namespace quillon
