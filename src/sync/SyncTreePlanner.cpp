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

namespace {

std::string nameOf(const KvMetadata& m) {
    return m.nameIgnoreLinkResolve().value_or(StringUtils::lastPathComponent(m.pathOrEmpty()));
}

std::string childPath(const std::string& rel, const std::string& name) {
    return rel.empty() ? name : rel + "/" + name;
}

KvMetadata localChild(const KvMetadata& folder, const std::string& name, bool isDir) {
    KvMetadata m(StringUtils::stringByAppendingPathComponentDirectly(folder.pathOrEmpty(), name));
    m.setName(name);
    m.isDir = isDir;
    m.protocolType = ProtocolType::Local;
    m.serverID = folder.serverID;
    m.localPath = m.path();
    m.parentFolderMeta = std::make_shared<const KvMetadata>(folder);
    return m;
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
            if (walkRemote(d.rel, d.folder)) continue;
            SyncStep& step = emit(SyncAction::CreateLocalFolder, true, false, d.rel,
                                  "it holds items changed on the server");
            step.item.remote = d.folder;
            setFolders(step, d.parent, d.twinParent);
            remotePass(d.rel, d.folder, localChild(d.twinParent, nameOf(d.folder), true), false);
        }
        for (std::size_t i = 0; i < delLocal_.size(); ++i) {
            Deleted d = delLocal_[i];
            if (walkLocal(d.rel, d.folder)) continue;
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
    // What the folder walks delete (remote full paths, local paths), and the folders whose
    // records they drop because something in them stays.
    std::unordered_set<std::string> goneRemote_, goneLocal_, droppedRemote_, droppedLocal_;

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
            if (remote ? goneRemote_.contains(SyncUtils::getFullPath(e))
                       : goneLocal_.contains(e.pathOrEmpty()))
                continue;
            out.push_back(e);
        }
        return out;
    }

    std::optional<KvMetadata> remoteByRemote(const KvMetadata& r) const {
        if (!in_.records.remoteByRemote || droppedRemote_.contains(SyncUtils::getFullPath(r)))
            return std::nullopt;
        return in_.records.remoteByRemote(r);
    }
    std::optional<KvMetadata> localByRemote(const KvMetadata& r) const {
        if (!in_.records.localByRemote || droppedRemote_.contains(SyncUtils::getFullPath(r)))
            return std::nullopt;
        return in_.records.localByRemote(r);
    }
    std::optional<KvMetadata> localByLocal(const KvMetadata& l) const {
        if (!in_.records.localByLocal || droppedLocal_.contains(l.pathOrEmpty()))
            return std::nullopt;
        return in_.records.localByLocal(l);
    }
    std::optional<KvMetadata> remoteByLocal(const KvMetadata& l) const {
        if (!in_.records.remoteByLocal || droppedLocal_.contains(l.pathOrEmpty()))
            return std::nullopt;
        return in_.records.remoteByLocal(l);
    }
    // The item as the remote side's records know it.
    SyncItemState remoteItem(const KvMetadata& r) const {
        SyncItemState item;
        item.remote = r;
        item.remoteRecord = remoteByRemote(r);
        item.localRecord = localByRemote(r);
        return item;
    }
    SyncItemState localItem(const KvMetadata& l) const {
        SyncItemState item;
        item.local = l;
        item.localRecord = localByLocal(l);
        item.remoteRecord = remoteByLocal(l);
        return item;
    }

    bool remoteChanged(const KvMetadata& r, const KvMetadata& sr) const {
        return in_.rules.remoteChanged ? in_.rules.remoteChanged(r, sr)
                                       : SyncPlanner::remoteChanged(r, sr);
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
            SyncItemState item = remoteItem(r);
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
            SyncItemState item = localItem(l);
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

    // A remote folder deleted here: what is unchanged since the last sync goes, the rest is
    // kept; true when the folder itself goes.
    bool walkRemote(const std::string& rel, const KvMetadata& folder) {
        bool kept = false;
        for (auto& e : listed(true, rel, true, true)) {
            std::string path = childPath(rel, nameOf(e));
            if (isLinkOrHidden(e)) {
                kept = true;
                emit(SyncAction::Keep, e.isDir, true, path, "not synced (hidden or a link)");
                continue;
            }
            auto item = remoteItem(e);
            if (e.isDir) {
                if (!item.remoteRecord) {
                    kept = true;
                    emit(SyncAction::Keep, true, true, path, "new on the server");
                } else if (!walkRemote(path, e)) {
                    kept = true;
                }
                continue;
            }
            if (item.remoteRecord && !remoteChanged(e, *item.remoteRecord)) {
                emit(SyncAction::DeleteRemote, false, true, path, "its folder was deleted here")
                    .item = item;
                goneRemote_.insert(SyncUtils::getFullPath(e));
            } else {
                kept = true;
                emit(SyncAction::Keep, false, true, path,
                     item.remoteRecord ? "changed on the server since the last sync"
                                       : "new on the server");
            }
        }
        auto item = remoteItem(folder);
        if (kept) {
            // What is left makes the folder new to the next comparison.
            records(SyncStepKind::ForgetFolder, rel).item = item;
            droppedRemote_.insert(SyncUtils::getFullPath(folder));
            return false;
        }
        emit(SyncAction::DeleteRemoteFolder, true, true, rel, "deleted here").item = item;
        goneRemote_.insert(SyncUtils::getFullPath(folder));
        return true;
    }

    bool walkLocal(const std::string& rel, const KvMetadata& folder) {
        bool kept = false;
        for (auto& e : listed(false, rel, true, true)) {
            std::string path = childPath(rel, nameOf(e));
            if (isLinkOrHidden(e)) {
                kept = true;
                emit(SyncAction::Keep, e.isDir, false, path, "not synced (hidden or a link)");
                continue;
            }
            auto item = localItem(e);
            if (e.isDir) {
                if (!item.localRecord) {
                    kept = true;
                    emit(SyncAction::Keep, true, false, path, "new here");
                } else if (!walkLocal(path, e)) {
                    kept = true;
                }
                continue;
            }
            if (item.localRecord && !SyncPlanner::localChanged(e, *item.localRecord)) {
                emit(SyncAction::DeleteLocal, false, false, path,
                     "its folder was deleted on the server")
                    .item = item;
                goneLocal_.insert(e.pathOrEmpty());
            } else {
                kept = true;
                emit(SyncAction::Keep, false, false, path,
                     item.localRecord ? "changed here since the last sync" : "new here");
            }
        }
        auto item = localItem(folder);
        if (kept) {
            records(SyncStepKind::ForgetFolder, rel).item = item;
            droppedLocal_.insert(folder.pathOrEmpty());
            return false;
        }
        emit(SyncAction::DeleteLocalFolder, true, false, rel, "deleted on the server").item = item;
        goneLocal_.insert(folder.pathOrEmpty());
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
