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

SyncSummary SyncPlan::summary() const {
    SyncSummary s = summarizeDecisions(decisions);
    s.localFiles = localFiles;
    s.remoteFiles = remoteFiles;
    return s;
}

std::int64_t SyncPlan::transferBytes() const {
    std::int64_t bytes = 0;
    for (auto& d : decisions)
        if (d.action == SyncAction::Download || d.action == SyncAction::Upload)
            bytes += static_cast<std::int64_t>(d.size);
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
        remotePass("", in_.localRoot, true);
        localPass("", in_.remoteRoot, true);
        // Indexes: a folder made again puts what it holds through the passes, which may add
        // deletions of its own.
        for (std::size_t i = 0; i < delRemote_.size(); ++i) {
            auto [rel, folder, twin] = delRemote_[i];
            if (walkRemote(rel, folder)) continue;
            emit(SyncAction::CreateLocalFolder, true, false, rel,
                 "it holds items changed on the server");
            remotePass(rel, twin, false);
        }
        for (std::size_t i = 0; i < delLocal_.size(); ++i) {
            auto [rel, folder, twin] = delLocal_[i];
            if (walkLocal(rel, folder)) continue;
            emit(SyncAction::CreateRemoteFolder, true, false, rel, "it holds items changed here");
            localPass(rel, twin, false);
        }
        return std::move(out_);
    }

  private:
    struct Deleted {
        std::string rel;
        KvMetadata folder;
        KvMetadata twin;  // the folder's place on the other side
    };

    const Input& in_;
    SyncPlan out_;
    std::vector<Deleted> delRemote_, delLocal_;
    // The local versions that lose a conflict, by folder: the local pass sends them up.
    std::unordered_map<std::string, std::vector<KvMetadata>> originals_;
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

    void emit(SyncAction action, bool isDir, bool remoteSide, const std::string& path,
              std::string reason, std::uint64_t size = 0, bool conflict = false) {
        out_.decisions.push_back(
            {action, conflict, isDir, remoteSide, path, std::move(reason), size});
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

    bool remoteChanged(const KvMetadata& r, const KvMetadata& sr) const {
        return in_.rules.remoteChanged ? in_.rules.remoteChanged(r, sr)
                                       : SyncPlanner::remoteChanged(r, sr);
    }

    // The items listed on the server in one folder (`localFolder` is its local twin).
    void remotePass(const std::string& rel, const KvMetadata& localFolder, bool localExists) {
        auto remote = listed(true, rel, true, false);
        auto local = listed(false, rel, localExists, false);
        std::unordered_map<std::string, const KvMetadata*> localByName;
        for (auto& l : local) localByName.emplace(nameOf(l), &l);
        std::unordered_set<std::string> remoteNames;
        for (auto& r : remote) remoteNames.insert(nameOf(r));

        for (auto& r : remote) {
            std::string name = nameOf(r), path = childPath(rel, name);
            SyncItemState item;
            item.remote = r;
            if (auto it = localByName.find(name); it != localByName.end()) item.local = *it->second;
            item.remoteRecord = remoteByRemote(r);
            item.localRecord = localByRemote(r);
            const auto& l = item.local;
            auto plan = SyncPlanner::planRemoteItem(item, in_.rules);
            switch (plan.verdict) {
                case SyncVerdict::Nothing:
                    break;
                case SyncVerdict::Skip: {
                    // A link lies on the side that holds it; a file facing a folder is the
                    // server's.
                    bool link = r.isSymbolLink || (l && l->isSymbolLink);
                    emit(SyncAction::Skip, r.isDir, link ? r.isSymbolLink : true, path,
                         plan.reason);
                    break;
                }
                case SyncVerdict::Download:
                    emit(SyncAction::Download, false, false, path, plan.reason,
                         r.fileSizeInBytes.value_or(0), plan.conflict);
                    if (plan.keepLocalCopy && l) {
                        KvMetadata original = *l;
                        std::string kept =
                            FileTransferUtils::getUniqueFileName(local, name + ".original");
                        original.setName(kept);
                        // Unless the server holds that name too, the local pass sends it up.
                        if (!remoteNames.contains(kept)) originals_[rel].push_back(original);
                    }
                    break;
                case SyncVerdict::Upload:
                    emit(SyncAction::Upload, false, false, path, plan.reason,
                         l->fileSizeInBytes.value_or(0), plan.conflict);
                    break;
                case SyncVerdict::DeleteRemote:
                    emit(SyncAction::DeleteRemote, false, true, path, plan.reason);
                    break;
                case SyncVerdict::DeleteRemoteFolder:
                    delRemote_.push_back({path, r, localChild(localFolder, name, true)});
                    break;
                case SyncVerdict::CreateLocalFolder:
                    emit(SyncAction::CreateLocalFolder, true, false, path, plan.reason);
                    remotePass(path, localChild(localFolder, name, true), false);
                    break;
                case SyncVerdict::EnterFolder:
                    remotePass(path, *l, true);
                    break;
                default:
                    break;
            }
        }
    }

    // The local items of one folder with nothing of their name on the server
    // (`remoteFolder` is its twin there).
    void localPass(const std::string& rel, const KvMetadata& remoteFolder, bool remoteExists) {
        auto local = listed(false, rel, true, false);
        auto remote = listed(true, rel, remoteExists, false);
        std::unordered_map<std::string, const KvMetadata*> remoteByName;
        for (auto& r : remote) remoteByName.emplace(nameOf(r), &r);

        for (auto& l : local) {
            std::string name = nameOf(l), path = childPath(rel, name);
            if (auto it = remoteByName.find(name); it != remoteByName.end()) {
                const KvMetadata& r = *it->second;
                if (r.isDir && l.isDir && !r.isSymbolLink && !l.isSymbolLink)
                    localPass(path, r, true);
                continue;
            }
            SyncItemState item;
            item.local = l;
            item.localRecord = localByLocal(l);
            item.remoteRecord = remoteByLocal(l);
            auto plan = SyncPlanner::planLocalOnlyItem(item);
            KvMetadata twin = RemoteUpload::itemInFolder(remoteFolder, name, true);
            switch (plan.verdict) {
                case SyncVerdict::Skip:
                    emit(SyncAction::Skip, l.isDir, false, path, plan.reason);
                    break;
                case SyncVerdict::Upload:
                    emit(SyncAction::Upload, false, false, path, plan.reason,
                         l.fileSizeInBytes.value_or(0));
                    break;
                case SyncVerdict::DeleteLocal:
                    emit(SyncAction::DeleteLocal, false, false, path, plan.reason);
                    break;
                case SyncVerdict::DeleteLocalFolder:
                    delLocal_.push_back({path, l, twin});
                    break;
                case SyncVerdict::CreateRemoteFolder:
                    emit(SyncAction::CreateRemoteFolder, true, false, path, plan.reason);
                    localPass(path, twin, false);
                    break;
                default:
                    break;
            }
        }
        if (auto it = originals_.find(rel); it != originals_.end()) {
            for (auto& original : it->second)
                emit(SyncAction::Upload, false, false, childPath(rel, nameOf(original)),
                     "the local version that lost, kept beside it",
                     original.fileSizeInBytes.value_or(0));
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
            auto sr = remoteByRemote(e);
            if (e.isDir) {
                if (!sr) {
                    kept = true;
                    emit(SyncAction::Keep, true, true, path, "new on the server");
                } else if (!walkRemote(path, e)) {
                    kept = true;
                }
                continue;
            }
            if (sr && !remoteChanged(e, *sr)) {
                emit(SyncAction::DeleteRemote, false, true, path, "its folder was deleted here");
                goneRemote_.insert(SyncUtils::getFullPath(e));
            } else {
                kept = true;
                emit(SyncAction::Keep, false, true, path,
                     sr ? "changed on the server since the last sync" : "new on the server");
            }
        }
        if (kept) {
            // What is left makes the folder new to the next comparison.
            droppedRemote_.insert(SyncUtils::getFullPath(folder));
            return false;
        }
        emit(SyncAction::DeleteRemoteFolder, true, true, rel, "deleted here");
        goneRemote_.insert(SyncUtils::getFullPath(folder));
        return true;
    }

    bool walkLocal(const std::string& rel, const KvMetadata& folder) {
        bool kept = false;
        for (auto& e : listed(false, rel, true, true)) {
            std::string path = childPath(rel, nameOf(e));
            if (e.isSymbolLink || !isSyncedName(nameOf(e))) {
                kept = true;
                emit(SyncAction::Keep, e.isDir, false, path, "not synced (hidden or a link)");
                continue;
            }
            auto sl = localByLocal(e);
            if (e.isDir) {
                if (!sl) {
                    kept = true;
                    emit(SyncAction::Keep, true, false, path, "new here");
                } else if (!walkLocal(path, e)) {
                    kept = true;
                }
                continue;
            }
            if (sl && !SyncPlanner::localChanged(e, *sl)) {
                emit(SyncAction::DeleteLocal, false, false, path,
                     "its folder was deleted on the server");
                goneLocal_.insert(e.pathOrEmpty());
            } else {
                kept = true;
                emit(SyncAction::Keep, false, false, path,
                     sl ? "changed here since the last sync" : "new here");
            }
        }
        if (kept) {
            droppedLocal_.insert(folder.pathOrEmpty());
            return false;
        }
        emit(SyncAction::DeleteLocalFolder, true, false, rel, "deleted on the server");
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
