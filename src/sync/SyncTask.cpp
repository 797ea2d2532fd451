#include "sync/SyncTask.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <limits>
#include <thread>

#include "clients/ftp/FtpWrapper.h"
#include "clients/local/LocalFileOps.h"
#include "clients/local/SandboxFileAccess.h"
#include "core/GCD.h"
#include "core/LocalizedUtils.h"
#include "core/NotificationCenter.h"
#include "core/ServerInfoService.h"
#include "core/StringUtils.h"
#include "core/WrapperProxy.h"
#include "sync/SyncInfoService.h"
#include "sync/SyncUtils.h"
#include "transfer/FileTransferUtils.h"
#include "transfer/LocalFileCopier.h"
#include "transfer/RemoteUpload.h"

namespace quillon {

namespace {

using SyncUtils::kLockFileName;
// Seconds from 1970 to 2001-01-01 00:00:00 UTC, the reference date of the ability-check file.
constexpr double kReferenceDateOffset = 978307200.0;

std::string nameOf(const KvMetadata& m) {
    return m.nameIgnoreLinkResolve().value_or(StringUtils::lastPathComponent(m.pathOrEmpty()));
}

std::string join(const std::string& folder, const std::string& name) {
    return StringUtils::stringByAppendingPathComponentDirectly(folder, name);
}

bool isHiddenName(const std::string& name) {
    return !name.empty() && name.front() == '.';
}

double seconds(const std::optional<TimePoint>& t) {
    if (!t) return -std::numeric_limits<double>::infinity();
    return std::chrono::duration<double>(t->time_since_epoch()).count();
}

using SyncPlanner::localIsNewer;

bool isWholeMinute(TimePoint t) {
    return t == std::chrono::floor<std::chrono::minutes>(t);
}

// Whether two local files hold the same bytes.
bool sameContents(const std::string& a, const std::string& b) {
    std::ifstream fa(a, std::ios::binary), fb(b, std::ios::binary);
    if (!fa || !fb) return false;
    std::vector<char> ba(1 << 16), bb(1 << 16);
    while (true) {
        fa.read(ba.data(), static_cast<std::streamsize>(ba.size()));
        fb.read(bb.data(), static_cast<std::streamsize>(bb.size()));
        if (fa.gcount() != fb.gcount()) return false;
        if (!std::equal(ba.begin(), ba.begin() + fa.gcount(), bb.begin())) return false;
        if (fa.gcount() == 0 || !fa || !fb) return fa.eof() == fb.eof();
    }
}

bool isNotFound(const Error& e) {
    return e.is(ErrorKind::NotFound);
}

Status localError(int err, const std::string& path) {
    return KvError::fail(ErrorDomain::Local, err, fmt::format("{}: {}", path, std::strerror(err)));
}

}  // namespace

// One folder's entries with an index by name.
struct SyncTask::Listing {
    KvMetadataList entries;
    std::unordered_map<std::string, std::size_t> byName;

    explicit Listing(KvMetadataList list) : entries(std::move(list)) {
        byName.reserve(entries.size());
        for (std::size_t i = 0; i < entries.size(); ++i) byName.emplace(nameOf(entries[i]), i);
    }
    const KvMetadata* find(const std::string& name) const {
        auto it = byName.find(name);
        return it == byName.end() ? nullptr : &entries[it->second];
    }
};

// What the local pass has to look at in one folder, in listing order: the local entries
// without a remote twin, and the folders found on both sides (entered for what lies in them
// locally alone). The remote pass settles every other item.
struct SyncTask::PairListing {
    struct Step {
        KvMetadata local;
        std::optional<KvMetadata> remoteFolder;
    };
    std::vector<Step> steps;
    // Names on the server, so that a file made here later in the run (the local side of a
    // conflict) joins the local pass only when the server has nothing of its name.
    std::unordered_set<std::string> remoteNames;

    PairListing(const Listing& local, const Listing& remote) {
        remoteNames.reserve(remote.entries.size());
        for (auto& r : remote.entries) remoteNames.insert(nameOf(r));
        for (auto& l : local.entries) {
            const KvMetadata* r = remote.find(nameOf(l));
            if (!r)
                steps.push_back({l, std::nullopt});
            else if (r->isDir && l.isDir && !r->isSymbolLink && !l.isSymbolLink)
                steps.push_back({l, *r});
        }
    }
};

SyncTask::SyncTask(SyncInfo info, SyncOptions options) : info_(std::move(info)), options_(options) {
    sourceServerInfo = info_.serverInfo;
    targetServerInfo = std::make_shared<ServerInfo>(
        ServerInfoService::sharedServerInfoService().rootLocalServerInfo());
    sourceMetadata = info_.remoteFolderMeta;
    sourceItems = {sourceMetadata};
    targetMetadata = info_.localFolderMeta;
    targetMetadata.serverID = targetServerInfo->serverID;
}

SyncTask::~SyncTask() {
    if (lockFd_ >= 0) ::close(lockFd_);
}

SyncInfo SyncTask::syncInfo() const {
    std::lock_guard lock(mutex_);
    return info_;
}

SyncSummary SyncTask::summary() const {
    std::lock_guard lock(mutex_);
    return summary_;
}

WrapperPtr SyncTask::wrapper() const {
    std::lock_guard lock(mutex_);
    return wrapper_;
}

void SyncTask::cancelTransfer() {
    setState(TransferTaskState::Stopped);
    if (auto w = wrapper()) w->cancelOperation();
}

std::optional<KvMetadata> SyncTask::getMetadataByName(const std::string& name,
                                                      const KvMetadataList& list) {
    for (auto& m : list)
        if (nameOf(m) == name) return m;
    return std::nullopt;
}

bool SyncTask::remoteChanged(const KvMetadata& item, const KvMetadata& record) {
    return SyncPlanner::remoteChanged(item, record);
}

bool SyncTask::localChanged(const KvMetadata& item, const KvMetadata& record) {
    return SyncPlanner::localChanged(item, record);
}

bool SyncTask::isExactRecordedTime(TimePoint recorded) {
    return !isWholeMinute(recorded);
}

bool SyncTask::coarseRemoteTimes() const {
    auto w = wrapper();
    return w && dynamic_cast<FtpWrapper*>(w.get()) && w->serverInfo() &&
           !w->serverInfo()->supportMLSD.value_or(false);
}

std::optional<TimePoint> SyncTask::exactRemoteTime(const KvMetadata& r) {
    std::string key = fmt::format("{}\n{}\n{}", SyncUtils::getFullPath(r), seconds(r.timestamp),
                                  r.fileSizeInBytes.value_or(0));
    if (auto it = exactTimes_.find(key); it != exactTimes_.end()) return it->second;
    auto w = wrapper();
    auto* ftp = dynamic_cast<FtpWrapper*>(w.get());
    if (!ftp) return r.timestamp;
    auto asked = ftp->modificationTimeSync(r);
    // A stopped run asks nothing more; what it could not learn is not remembered.
    if (!asked && !running()) return std::nullopt;
    std::optional<TimePoint> exact = asked ? *asked : std::nullopt;
    exactTimes_.emplace(std::move(key), exact);
    return exact;
}

// The time rule compares the records with exact times. A listing in minutes shows an edit made
// later within the minute the file was recorded in as unchanged, so such a file is recorded
// with its exact time (never a whole minute) and compared by MDTM while it keeps its listed
// minute; a file recorded once its minute was over keeps its listed time, which the listing
// then tells apart from any later edit.
bool SyncTask::remoteChangedSince(const KvMetadata& r, const KvMetadata& sr) {
    if (!coarseRemoteTimes()) return remoteChanged(r, sr);
    // Beyond the time rule: where listed times are coarser than a second, a new size is a change.
    if (r.fileSizeInBytes && sr.fileSizeInBytes && *r.fileSizeInBytes != *sr.fileSizeInBytes)
        return true;
    if (!r.timestamp || !sr.timestamp || !isExactRecordedTime(*sr.timestamp))
        return remoteChanged(r, sr);
    auto exact = exactRemoteTime(r);
    // The server cannot tell: its version is taken for a change, which never loses it (a local
    // edit is kept beside it).
    if (!exact) return true;
    if (!SyncUtils::fuzzyCompareDate(exact, sr.timestamp)) return true;
    if (!options_.dryRun && serverMinute_ && *r.timestamp < *serverMinute_) {
        // Its minute is over: from now on the listed time tells.
        (void)remoteService_->updateRemoteItem(r);
    }
    return false;
}

bool SyncTask::localIsNewerThan(const KvMetadata& l, const KvMetadata& r) {
    if (!coarseRemoteTimes() || !r.timestamp || !l.timestamp || *l.timestamp < *r.timestamp)
        return localIsNewer(l, r);
    auto exact = exactRemoteTime(r);
    if (!exact) return localIsNewer(l, r);
    return *l.timestamp > *exact;
}

KvMetadata SyncTask::remoteRecordOf(const KvMetadata& r,
                                    const std::optional<TimePoint>& exact) const {
    if (!exact || !r.timestamp || !coarseRemoteTimes()) return r;
    if (serverMinute_ && *r.timestamp < *serverMinute_) return r;
    KvMetadata record = r;
    // A millisecond keeps an exact whole minute apart from a listed one; the time rule's second
    // of tolerance does not see it.
    record.timestamp = isWholeMinute(*exact) ? *exact + std::chrono::milliseconds(1) : *exact;
    return record;
}

std::string SyncTask::relativeLocalPath(const std::string& localPath) const {
    if (localPath.starts_with(localRootPrefix_)) return localPath.substr(localRootPrefix_.size());
    return localPath;
}

KvMetadata SyncTask::localChild(const KvMetadata& folder, const std::string& name,
                                bool isDir) const {
    KvMetadata m(join(folder.pathOrEmpty(), name));
    m.setName(name);
    m.isDir = isDir;
    m.protocolType = ProtocolType::Local;
    m.serverID = folder.serverID;
    m.localPath = m.path();
    m.parentFolderMeta = std::make_shared<const KvMetadata>(folder);
    return m;
}

bool SyncTask::isRemoteRoot(const KvMetadata& folder) const {
    if (folder.identifier && remoteRoot_.identifier)
        return *folder.identifier == *remoteRoot_.identifier;
    return SyncUtils::getFullPath(folder) == SyncUtils::getFullPath(remoteRoot_);
}

void SyncTask::decide(SyncDecision decision) {
    if (decision.action == SyncAction::Keep || decision.action == SyncAction::Skip) {
        std::lock_guard lock(mutex_);
        ++(decision.action == SyncAction::Keep ? summary_.kept : summary_.skipped);
    }
    if (decisionHandler) decisionHandler(decision);
}

std::vector<SyncDecision> SyncTask::plannedDecisions() const {
    std::lock_guard lock(mutex_);
    return plan_;
}

// --- Listings

Result<KvMetadataList> SyncTask::contentsOfDirectory(const KvMetadata& folder, bool withHidden) {
    Result<KvMetadataList> listing;
    std::string path = folder.pathOrEmpty();
    bool local = !localRootPrefix_.empty() &&
                 (path + "/" == localRootPrefix_ || path.starts_with(localRootPrefix_)) &&
                 folder.protocolType == ProtocolType::Local;
    if (local) {
        SandboxFileAccess::ListOptions options;
        options.skipsHiddenFiles = !withHidden;
        listing = SandboxFileAccess::contentsOfDirectory(folder, options);
    } else {
        auto w = wrapper();
        if (!w)
            return KvError::fail(ErrorDomain::FileSync, kErrorNoServer,
                                 "No connection to the server.");
        listing = w->contentsOfDirectoryAtPathSync(folder);
    }
    if (!listing || withHidden) return listing;
    std::erase_if(*listing, [](const KvMetadata& m) {
        auto name = nameOf(m);
        return !SyncTreePlanner::isSyncedName(name);
    });
    return listing;
}

Result<std::shared_ptr<SyncTask::Listing>> SyncTask::listRemote(const KvMetadata& folder,
                                                                bool exists) {
    if (!exists) return std::make_shared<Listing>(KvMetadataList{});
    if (auto it = plannedListings_.find(SyncUtils::getFullPath(folder));
        it != plannedListings_.end()) {
        auto planned = std::make_shared<Listing>(std::move(it->second));
        plannedListings_.erase(it);
        return planned;
    }
    auto listing = contentsOfDirectory(folder);
    if (!listing) return std::unexpected(listing.error());
    return std::make_shared<Listing>(std::move(*listing));
}

Result<std::shared_ptr<SyncTask::Listing>> SyncTask::listLocal(const KvMetadata& folder,
                                                               bool exists) {
    if (!exists) return std::make_shared<Listing>(KvMetadataList{});
    auto listing = contentsOfDirectory(folder);
    if (!listing) return std::unexpected(listing.error());
    return std::make_shared<Listing>(std::move(*listing));
}

// --- The run

void SyncTask::startTransfer() {
    beginTransfer();
    refusedBusy_ = false;
    {
        std::lock_guard lock(mutex_);
        summary_ = {};
        plan_.clear();
    }
    delRemoteFolders.clear();
    delLocalFolders.clear();
    delRemoteFolderTwins_.clear();
    delLocalFolderTwins_.clear();
    listings_.clear();
    plannedListings_.clear();
    exactTimes_.clear();
    serverMinute_.reset();
    doneBytes_ = 0;
    if (stopped()) {
        completeFileTransfer(std::nullopt);
        return;
    }
    auto temp = FileTransferUtils::makeTaskTempFolder();
    if (!temp) {
        completeFileTransfer(temp.error());
        return;
    }
    taskTempFolderPath = *temp;

    if (!info_.hasSafeLocalName()) {
        // A damaged or hostile database: the pair's folder would lie outside the sync folder.
        finish(KvError::errorWithDomain(
            ErrorDomain::FileSync, kErrorUnsafeLocalName,
            fmt::format("The local folder name \"{}\" of this sync pair leads outside the sync "
                        "folder; the pair is refused. Remove it and add it again.",
                        info_.localFolderMeta.nameOrEmpty())));
        return;
    }
    if (!info_.serverInfo) {
        finish(KvError::errorWithDomain(
            ErrorDomain::FileSync, kErrorNoServer,
            fmt::format("The server of this sync pair ({}) is not configured any more.",
                        info_.serverUUID)));
        return;
    }
    auto client = WrapperProxy::clientForServerInfo(info_.serverInfo);
    if (!client) {
        finish(client.error());
        return;
    }
    {
        std::lock_guard lock(mutex_);
        wrapper_ = *client;
    }
    // Hidden entries are listed so that folder deletions can see them; the passes leave them out.
    wrapper_->setForceIncludesHiddenFiles(true);
    if (stopped()) wrapper_->cancelOperation();

    remoteRoot_ = sourceMetadata.copy();
    remoteRoot_.parentFolderMeta = nullptr;
    localRoot_ = targetMetadata;
    std::string localName = localRoot_.nameOrEmpty();
    std::string localPath = options_.dryRun ? join(SyncUtils::getSyncBaseFolderPath(), localName)
                                            : SyncUtils::getSyncFolderPath(localName);
    localRoot_.setPath(localPath);
    localRoot_.localPath = localPath;
    localRoot_.isDir = true;
    localRoot_.protocolType = ProtocolType::Local;
    localRootPrefix_ = localPath + "/";

    if (options_.dryRun && SyncUtils::isSyncRunning(localPath)) {
        // Its records are held by the running sync and change under a reader.
        refusedBusy_ = true;
        finish(KvError::errorWithDomain(ErrorDomain::FileSync, kErrorBusy,
                                        "Another sync of this pair is running."));
        return;
    }
    if (!options_.dryRun) {
        lockFd_ =
            ::open(join(localPath, kLockFileName).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (lockFd_ < 0 || ::flock(lockFd_, LOCK_EX | LOCK_NB) != 0) {
            bool busy = errno == EWOULDBLOCK;
            // The pair's status and time belong to the run that holds the lock.
            refusedBusy_ = busy;
            finish(busy ? KvError::errorWithDomain(ErrorDomain::FileSync, kErrorBusy,
                                                   "Another sync of this pair is running.")
                        : localError(errno, join(localPath, kLockFileName)).error());
            return;
        }
        {
            std::lock_guard lock(mutex_);
            info_.status = SyncStatus::Running;
            (void)SyncInfoService::sharedInstance().updateSyncStatus(info_);
        }
        if (!checkSyncCondition()) return;
    }

    db_ = std::make_unique<SyncDBManager>(join(localPath, SyncDBManager::kFileName));
    auto opened = options_.dryRun ? db_->openDBReadOnly() : db_->openDB();
    if (!opened) {
        finish(opened.error());
        return;
    }
    localService_ = std::make_unique<SyncLocalService>(*db_);
    remoteService_ = std::make_unique<SyncRemoteService>(*db_);

    auto plan = makePlan();
    Status result = plan ? Status{} : Status(std::unexpected(plan.error()));
    if (plan && running()) {
        {
            std::lock_guard lock(mutex_);
            plan_ = plan->decisions;
        }
        if (options_.dryRun) {
            for (auto& d : plan->decisions) decide(d);
            std::lock_guard lock(mutex_);
            summary_ = plan->summary();
        } else {
            // The total is known before the first byte moves.
            setTotalBytes(plan->transferBytes());
            result = checkPlanDeletes(plan->summary());
            if (result) result = runPasses();
        }
    }
    finish(result || stopped() ? std::nullopt : std::optional<Error>(result.error()));
}

Status SyncTask::runPasses() {
    if (running()) {
        if (auto r = syncRemoteFolder(remoteRoot_, localRoot_); !r) return stopped() ? Status{} : r;
    }
    if (running()) {
        if (auto r = syncLocalFolder(localRoot_, remoteRoot_); !r) return stopped() ? Status{} : r;
    }
    if (running()) {
        if (auto r = deleteFolders(); !r) return stopped() ? Status{} : r;
    }
    return {};
}

Status SyncTask::snapshot(Side side, const KvMetadata& folder, const std::string& rel,
                          SyncTreeSnapshot& tree) {
    if (!running()) return {};
    // Hidden entries are kept: a folder deleted on one side stays while it holds any.
    auto listing = contentsOfDirectory(folder, true);
    if (!listing) return std::unexpected(listing.error());
    KvMetadataList& entries = tree.folders[rel] = std::move(*listing);
    if (side == Side::Remote && !options_.dryRun) {
        KvMetadataList synced;
        for (auto& e : entries)
            if (SyncTreePlanner::isSyncedName(nameOf(e))) synced.push_back(e);
        plannedListings_[SyncUtils::getFullPath(folder)] = std::move(synced);
    }
    // Links are never followed.
    for (std::size_t i = 0; i < entries.size(); ++i) {
        const KvMetadata e = entries[i];
        std::string name = nameOf(e);
        if (!e.isDir || e.isSymbolLink || !SyncTreePlanner::isSyncedName(name)) continue;
        if (auto s = snapshot(side, e, rel.empty() ? name : rel + "/" + name, tree); !s) return s;
    }
    return {};
}

Result<SyncPlan> SyncTask::makePlan() {
    SyncTreeSnapshot remote, local;
    if (auto s = snapshot(Side::Remote, remoteRoot_, "", remote); !s)
        return std::unexpected(s.error());
    std::error_code ec;
    // A dry run of a pair never synced has no local folder yet.
    if (std::filesystem::is_directory(localRoot_.pathOrEmpty(), ec)) {
        if (auto s = snapshot(Side::Local, localRoot_, "", local); !s)
            return std::unexpected(s.error());
    }
    SyncTreePlanner::Input input;
    input.remote = &remote;
    input.local = &local;
    input.remoteRoot = remoteRoot_;
    input.localRoot = localRoot_;
    auto* rs = remoteService_.get();
    auto* ls = localService_.get();
    input.records.remoteByRemote = [rs](const KvMetadata& r) {
        return rs->getRemoteItemByRemoteMeta(r);
    };
    input.records.localByRemote = [ls](const KvMetadata& r) {
        return ls->getLocalItemByRemoteMeta(r);
    };
    input.records.localByLocal = [ls](const KvMetadata& l) {
        return ls->getLocalItemByLocalMeta(l);
    };
    input.records.remoteByLocal = [rs](const KvMetadata& l) {
        return rs->getRemoteItemByLocalMeta(l);
    };
    input.rules = timeRules();
    return SyncTreePlanner::plan(input);
}

Status SyncTask::checkPlanDeletes(const SyncSummary& plan) {
    if (!options_.maxDeletePercent) return {};
    double percent = *options_.maxDeletePercent;
    // Deletions allowed on a side: the share of its files, rounded down (1e-9 absorbs the
    // binary fraction of a percentage such as 60 %).
    auto allowed = [&](std::int64_t files) {
        return static_cast<std::int64_t>(
            std::floor(percent * static_cast<double>(files) / 100.0 + 1e-9));
    };
    auto check = [&](std::int64_t deletes, std::int64_t files, const char* where) -> Status {
        if (deletes == 0 || deletes <= allowed(files)) return {};
        double needed = std::ceil(100.0 * static_cast<double>(deletes) /
                                  static_cast<double>(std::max<std::int64_t>(files, 1)));
        {
            std::lock_guard lock(mutex_);
            summary_.deletePercentNeeded =
                std::max(summary_.deletePercentNeeded.value_or(0.0), std::min(needed, 100.0));
        }
        return KvError::fail(
            ErrorDomain::FileSync, kErrorMaxDelete,
            fmt::format("Stopped before deleting anything: this sync would delete {} of {} files "
                        "({:.1f}%) {}, more than the {:g}% allowed.",
                        deletes, files, files ? 100.0 * deletes / files : 100.0, where,
                        *options_.maxDeletePercent));
    };
    if (auto r = check(plan.deletedRemote, plan.remoteFiles, "on the server"); !r) return r;
    if (auto r = check(plan.deletedLocal, plan.localFiles, "in the local folder"); !r) return r;
    allowedRemoteDeletes_ = allowed(plan.remoteFiles);
    allowedLocalDeletes_ = allowed(plan.localFiles);
    return {};
}

Status SyncTask::checkDeleteLimit(Side side) {
    std::lock_guard lock(mutex_);
    auto& allowed = side == Side::Local ? allowedLocalDeletes_ : allowedRemoteDeletes_;
    auto done = side == Side::Local ? summary_.deletedLocal : summary_.deletedRemote;
    if (!allowed || done < *allowed) return {};
    // Something changed since the plan was made: stop rather than delete more than allowed.
    return KvError::fail(ErrorDomain::FileSync, kErrorMaxDelete,
                         fmt::format("Stopped: deleting more than {} files {} exceeds the share "
                                     "allowed.",
                                     *allowed, side == Side::Local ? "locally" : "on the server"));
}

void SyncTask::finish(std::optional<Error> error) {
    localService_.reset();
    remoteService_.reset();
    if (db_) db_->closeDB();
    db_.reset();
    {
        // Its pooled sessions go back to the pool; nothing of the run is kept alive by it.
        std::lock_guard lock(mutex_);
        wrapper_.reset();
    }
    if (lockFd_ >= 0) {
        ::close(lockFd_);
        lockFd_ = -1;
    }
    completeFileTransfer(std::move(error));
}

void SyncTask::completeFileTransfer(std::optional<Error> error) {
    if (!taskTempFolderPath.empty()) FileTransferUtils::removeTaskTempFolder(taskTempFolderPath);
    if (!options_.dryRun && !refusedBusy_) {
        SyncInfo info;
        {
            std::lock_guard lock(mutex_);
            info_.lastSyncDate = std::chrono::system_clock::now();
            info_.status = stopped() ? SyncStatus::Stopped
                           : error   ? SyncStatus::Failed
                                     : SyncStatus::Succeeded;
            (void)SyncInfoService::sharedInstance().updateSyncStatus(info_);
            info = info_;
        }
        GCD::doInForeground([info] {
            UserInfo userInfo;
            userInfo[std::string(SYNC_NOTIFICATION_INFO)] = info;
            NotificationCenter::defaultCenter().post(SYNC_COMPLETED_NOTIFICATION, userInfo);
        });
    }
    FileTransferTask::completeFileTransfer(std::move(error));
    runFinished_ = true;
}

// --- Ability check

Status SyncTask::checkSyncCondition() {
    checkingSyncCondition = true;
    auto w = wrapper();
    auto fail = [&](std::string_view domain, long code, std::string_view reason) -> Status {
        auto e = KvError::errorWithDomain(domain, code, reason);
        checkingSyncCondition = false;
        finish(e);
        return std::unexpected(e);
    };
    auto listing = w->contentsOfDirectoryAtPathSync(remoteRoot_);
    if (!listing)
        return fail(ErrorDomain::FileSync, kErrorSyncFolder,
                    "The sync folder is empty or doesn't exist!");

    std::string testPath = join(taskTempFolderPath, kTestFileName);
    {
        std::ofstream out(testPath, std::ios::binary | std::ios::trunc);
        out << kTestFileText;
        out.close();
        struct timespec times[2];
        double when = kReferenceDateOffset + kTestFileReferenceSeconds;
        times[0].tv_sec = times[1].tv_sec = static_cast<time_t>(when);
        times[0].tv_nsec = times[1].tv_nsec = 0;
        if (!out || ::utimensat(AT_FDCWD, testPath.c_str(), times, 0) != 0)
            return fail(ErrorDomain::FileTransfer, ErrorCode::TransferFailed,
                        "Cannot create file!");
    }
    KvMetadata testFile(testPath);
    testFile.localPath = testPath;
    testFile.protocolType = ProtocolType::Local;
    testFile.fileSizeInBytes = std::string_view(kTestFileText).size();
    testFile.timestamp = TimePoint(std::chrono::seconds(
        static_cast<long long>(kReferenceDateOffset + kTestFileReferenceSeconds)));
    if (!w->uploadSync(testFile, remoteRoot_, {}))
        return fail(ErrorDomain::FileTransfer, ErrorCode::TransferFailed,
                    "Sync ability check: Fail to upload file!");

    auto again = w->contentsOfDirectoryAtPathSync(remoteRoot_);
    std::optional<KvMetadata> uploaded;
    if (again) uploaded = getMetadataByName(kTestFileName, *again);
    if (!uploaded || !w->removeSync({*uploaded}))
        return fail(ErrorDomain::FileTransfer, ErrorCode::TransferFailed,
                    "Sync ability check: Fail to delete file!");
    // The test file shows the server's present minute, unless the server took the file's own
    // time (MFMT).
    if (uploaded->timestamp &&
        std::chrono::abs(*uploaded->timestamp - testFile.timestamp.value_or(TimePoint{})) >
            std::chrono::hours(48))
        serverMinute_ = std::chrono::floor<std::chrono::minutes>(*uploaded->timestamp);
    ::unlink(testPath.c_str());
    checkingSyncCondition = false;

    auto until = std::chrono::steady_clock::now() +
                 std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                     std::chrono::duration<double>(options_.pauseAfterCheck));
    for (auto now = std::chrono::steady_clock::now(); running() && now < until;
         now = std::chrono::steady_clock::now())
        std::this_thread::sleep_for(std::min<std::chrono::steady_clock::duration>(
            std::chrono::milliseconds(20), until - now));
    return {};
}

// --- Remote pass

SyncTimeRules SyncTask::timeRules() {
    SyncTimeRules rules;
    rules.remoteChanged = [this](const KvMetadata& r, const KvMetadata& sr) {
        return remoteChangedSince(r, sr);
    };
    rules.localIsNewer = [this](const KvMetadata& l, const KvMetadata& r) {
        return localIsNewerThan(l, r);
    };
    return rules;
}

Status SyncTask::syncRemoteFolder(const KvMetadata& remoteFolder, const KvMetadata& localFolder) {
    auto remote = listRemote(remoteFolder, true);
    if (!remote) return std::unexpected(remote.error());
    auto local = listLocal(localFolder, true);
    if (!local) return std::unexpected(local.error());
    // Kept small for the local pass, so that the listings themselves go when this folder is done.
    listings_[localFolder.pathOrEmpty()] = std::make_shared<PairListing>(**local, **remote);

    auto rules = timeRules();
    for (auto& r : (*remote)->entries) {
        if (!running()) return {};
        const KvMetadata* l = (*local)->find(nameOf(r));
        SyncItemState item;
        item.remote = r;
        if (l) item.local = *l;
        item.remoteRecord = remoteService_->getRemoteItemByRemoteMeta(r);
        item.localRecord = localService_->getLocalItemByRemoteMeta(r);
        auto plan = SyncPlanner::planRemoteItem(item, rules);
        if (auto s = carryOutRemoteItem(plan, item, remoteFolder, localFolder); !s) return s;
    }
    return {};
}

Status SyncTask::carryOutRemoteItem(const SyncItemPlan& plan, const SyncItemState& item,
                                    const KvMetadata& remoteFolder, const KvMetadata& localFolder) {
    const KvMetadata& r = *item.remote;
    const auto& l = item.local;
    const auto& sr = item.remoteRecord;
    const auto& sl = item.localRecord;
    std::string localPath = join(localFolder.pathOrEmpty(), nameOf(r));
    switch (plan.verdict) {
        case SyncVerdict::Nothing:
            return {};
        case SyncVerdict::Skip: {
            // A link lies on the side that holds it; a file facing a folder is the server's.
            bool link = r.isSymbolLink || (l && l->isSymbolLink);
            decide({SyncAction::Skip, false, r.isDir, link ? r.isSymbolLink : true,
                    relativeLocalPath(localPath), plan.reason});
            return {};
        }
        case SyncVerdict::Download:
            return download(r, l, sr, sl, localFolder, plan.conflict, plan.keepLocalCopy,
                            plan.reason);
        case SyncVerdict::Upload:
            return upload(*l, r, sr, sl, remoteFolder, plan.conflict, plan.reason);
        case SyncVerdict::DeleteRemote:
            return deleteRemoteFile(r, sr, sl, localPath, plan.reason);
        case SyncVerdict::DeleteRemoteFolder:
            // Removed at the end, after both passes.
            delRemoteFolders.push_back(r);
            delRemoteFolderTwins_.push_back(localPath);
            return {};
        case SyncVerdict::CreateLocalFolder:
        case SyncVerdict::EnterFolder:
            break;
        default:
            return {};
    }
    KvMetadata lm = l ? *l : localChild(localFolder, nameOf(r), true);
    if (plan.verdict == SyncVerdict::CreateLocalFolder) {
        decide({SyncAction::CreateLocalFolder, false, true, false,
                relativeLocalPath(lm.pathOrEmpty()), plan.reason});
        std::error_code ec;
        std::filesystem::create_directories(lm.pathOrEmpty(), ec);
        if (!std::filesystem::is_directory(lm.pathOrEmpty(), ec))
            return KvError::fail(ErrorDomain::Local, ErrorCode::CreateFolderFailed,
                                 fmt::format("Cannot create folder {}", lm.pathOrEmpty()));
        std::lock_guard lock(mutex_);
        ++summary_.localFoldersCreated;
    }
    if (!sr || !sl) {
        if (auto s = storeRecords(r, lm, sr, sl); !s) return s;
    }
    return syncRemoteFolder(r, lm);
}

// --- Local pass

Status SyncTask::syncLocalFolder(const KvMetadata& localFolder, const KvMetadata& remoteFolder) {
    std::shared_ptr<PairListing> pairListing;
    auto cached = listings_.find(localFolder.pathOrEmpty());
    if (cached != listings_.end()) {
        pairListing = cached->second;
    } else {
        auto local = listLocal(localFolder, true);
        if (!local) return std::unexpected(local.error());
        auto remote = listRemote(remoteFolder, true);
        if (!remote) return std::unexpected(remote.error());
        pairListing = std::make_shared<PairListing>(**local, **remote);
    }
    for (auto& step : pairListing->steps) {
        if (!running()) return {};
        const KvMetadata& l = step.local;
        if (step.remoteFolder) {
            if (auto s = syncLocalFolder(l, *step.remoteFolder); !s) return s;
            continue;
        }
        SyncItemState item;
        item.local = l;
        item.localRecord = localService_->getLocalItemByLocalMeta(l);
        item.remoteRecord = remoteService_->getRemoteItemByLocalMeta(l);
        auto plan = SyncPlanner::planLocalOnlyItem(item);
        if (auto s = carryOutLocalOnlyItem(plan, item, remoteFolder); !s) return s;
    }
    return {};
}

Status SyncTask::carryOutLocalOnlyItem(const SyncItemPlan& plan, const SyncItemState& item,
                                       const KvMetadata& remoteFolder) {
    const KvMetadata& l = *item.local;
    const auto& sr = item.remoteRecord;
    const auto& sl = item.localRecord;
    switch (plan.verdict) {
        case SyncVerdict::Skip:
            decide({SyncAction::Skip, false, l.isDir, false, relativeLocalPath(l.pathOrEmpty()),
                    plan.reason});
            return {};
        case SyncVerdict::Upload:
            return upload(l, std::nullopt, sr, sl, remoteFolder, false, plan.reason);
        case SyncVerdict::DeleteLocal:
            return deleteLocalFile(l, sl, sr, plan.reason);
        case SyncVerdict::DeleteLocalFolder:
            // Removed at the end.
            delLocalFolders.push_back(l);
            delLocalFolderTwins_.push_back(
                RemoteUpload::itemInFolder(remoteFolder, nameOf(l), true));
            return {};
        case SyncVerdict::CreateRemoteFolder:
            break;
        default:
            return {};
    }
    std::string name = nameOf(l);
    KvMetadata rm = RemoteUpload::itemInFolder(remoteFolder, name, true);
    decide({SyncAction::CreateRemoteFolder, false, true, false, relativeLocalPath(l.pathOrEmpty()),
            plan.reason});
    auto w = wrapper();
    if (auto s = w->createFolderSync(rm); !s) return s;
    {
        std::lock_guard lock(mutex_);
        ++summary_.remoteFoldersCreated;
    }
    // The server's own record of the new folder (cloud drives give it its identifier).
    if (auto created = w->metadataOfItemSync(rm)) {
        created->parentFolderMeta = std::make_shared<const KvMetadata>(remoteFolder);
        rm = *created;
    }
    if (auto s = storeRecords(rm, l, sr, sl); !s) return s;
    return syncLocalFolder(l, rm);
}

// --- Actions

Status SyncTask::storeRecords(const KvMetadata& r, const KvMetadata& l,
                              const std::optional<KvMetadata>& sr,
                              const std::optional<KvMetadata>& sl) {
    return db_->transaction([&]() -> Status {
        if (sr && sr->pathOrEmpty() == SyncUtils::getFullPath(r) && sr->isDir == r.isDir) {
            if (auto s = remoteService_->updateRemoteItem(r); !s) return s;
        } else {
            if (sr) (void)remoteService_->deleteRemoteItem(*sr);
            if (auto s = remoteService_->deleteRemoteItem(r); !s) return s;
            if (auto s = remoteService_->addRemoteItem(r, l); !s) return s;
        }
        if (sl && sl->pathOrEmpty() == l.pathOrEmpty() && sl->isDir == l.isDir) {
            if (auto s = localService_->updateLocalItem(l); !s) return s;
        } else {
            if (sl) (void)localService_->deleteLocalItem(*sl);
            if (auto s = localService_->deleteLocalItem(l); !s) return s;
            if (auto s = localService_->addLocalItem(l, r); !s) return s;
        }
        return {};
    });
}

Status SyncTask::download(const KvMetadata& r, const std::optional<KvMetadata>& l,
                          const std::optional<KvMetadata>& sr, const std::optional<KvMetadata>& sl,
                          const KvMetadata& localFolder, bool conflict, bool keepLocalCopy,
                          const std::string& reason) {
    std::string name = nameOf(r);
    KvMetadata target = localChild(localFolder, name, false);
    decide({SyncAction::Download, conflict, false, false, relativeLocalPath(target.pathOrEmpty()),
            reason, r.fileSizeInBytes.value_or(0)});
    // Asked before the download: an edit racing it then shows as a change next time.
    std::optional<TimePoint> exact;
    if (coarseRemoteTimes()) exact = exactRemoteTime(r);
    KvMetadata fetched = r;
    if (exact) fetched.timestamp = exact;
    auto placed = downloadInto(fetched, localFolder, l, keepLocalCopy && l);
    if (!placed) return std::unexpected(placed.error());
    if (!*placed || !running()) return {};
    target.fileSizeInBytes = r.fileSizeInBytes;
    target.timestamp = fetched.timestamp;
    if (auto s = storeRecords(remoteRecordOf(r, exact), target, sr, sl); !s) return s;
    std::lock_guard lock(mutex_);
    ++summary_.downloaded;
    if (conflict) ++summary_.conflicts;
    summary_.bytesDownloaded += static_cast<std::int64_t>(r.fileSizeInBytes.value_or(0));
    return {};
}

Status SyncTask::downloadFile(const KvMetadata& file, const KvMetadata& toFolder) {
    auto target = localChild(toFolder, nameOf(file), false);
    std::optional<KvMetadata> expected;
    struct stat st {};
    if (::lstat(target.pathOrEmpty().c_str(), &st) == 0) {
        target.timestamp = LocalFileOps::toTimePoint(st.st_mtim);
        target.fileSizeInBytes = static_cast<std::uint64_t>(st.st_size);
        expected = target;
    }
    auto placed = downloadInto(file, toFolder, expected, false);
    if (!placed) return std::unexpected(placed.error());
    return {};
}

Result<bool> SyncTask::downloadInto(const KvMetadata& file, const KvMetadata& toFolder,
                                    const std::optional<KvMetadata>& expected, bool keepLocalCopy) {
    setTransferringFileMeta(file);
    auto size = file.fileSizeInBytes.value_or(0);
    if (size > FileTransferUtils::totalFreeDiskSpace(taskTempFolderPath))
        return std::unexpected(
            KvError::errorWithDomain(ErrorDomain::FileTransfer, ErrorCode::TransferFailed,
                                     LocalizedUtils::localizedStringForKey("trans.no_space")));
    std::string name = nameOf(file);
    std::string scratch = join(taskTempFolderPath, name);
    ::unlink(scratch.c_str());

    auto w = wrapper();
    // Weak: a wrapper may keep its progress handler, and the task owns the wrapper.
    std::weak_ptr<SyncTask> weak = std::static_pointer_cast<SyncTask>(shared_from_this());
    auto generation = ++transferGeneration_;
    std::int64_t base = doneBytes_;
    growTotalTo(base + static_cast<std::int64_t>(size));
    auto done =
        w->downloadSync(file, scratch, [weak, generation, base](std::int64_t d, std::int64_t) {
            auto self = weak.lock();
            if (!self) return;
            // Progress of an earlier file may still arrive through the main queue.
            if (self->transferGeneration_.load() != generation || !self->running()) return;
            self->setTransferredBytes(base + d);
            self->reportProgress();
        });
    ++transferGeneration_;
    doneBytes_ += static_cast<std::int64_t>(size);
    setTransferredBytes(doneBytes_);
    reportProgress();
    auto cleanup = [&] { ::unlink(scratch.c_str()); };
    if (!running()) {
        cleanup();
        return false;
    }
    if (!done) {
        cleanup();
        return std::unexpected(done.error());
    }
    struct stat st {};
    if (::lstat(scratch.c_str(), &st) != 0) return false;
    if (file.timestamp) {
        auto ns =
            std::chrono::duration_cast<std::chrono::nanoseconds>(file.timestamp->time_since_epoch())
                .count();
        struct timespec times[2];
        times[0].tv_sec = 0;
        times[0].tv_nsec = UTIME_OMIT;
        times[1].tv_sec = static_cast<time_t>(ns / 1000000000);
        times[1].tv_nsec = static_cast<long>(ns % 1000000000);
        if (times[1].tv_nsec < 0) {
            times[1].tv_nsec += 1000000000;
            times[1].tv_sec -= 1;
        }
        ::utimensat(AT_FDCWD, scratch.c_str(), times, 0);
    }
    // The local file must still be what the decision saw: a file changed (or created) here in
    // the meantime is left for the next run to compare.
    std::string target = join(toFolder.pathOrEmpty(), name);
    struct stat now {};
    bool exists = ::lstat(target.c_str(), &now) == 0;
    bool unchanged = expected ? exists && S_ISREG(now.st_mode) &&
                                    LocalFileOps::toTimePoint(now.st_mtim) == expected->timestamp &&
                                    static_cast<std::uint64_t>(now.st_size) ==
                                        expected->fileSizeInBytes.value_or(now.st_size)
                              : !exists;
    if (!unchanged) {
        cleanup();
        return false;
    }
    // The local version that loses a conflict stays beside the winner, unless it is the very
    // same file (an upload of it whose records a killed run never wrote). The local pass of
    // this run sends it to the server.
    if (keepLocalCopy && expected && !sameContents(scratch, target)) {
        auto renamed = moveAsideAsOriginal(*expected);
        if (!renamed) {
            cleanup();
            return std::unexpected(renamed.error());
        }
        std::string movedName = StringUtils::lastPathComponent(*renamed);
        auto pending = listings_.find(toFolder.pathOrEmpty());
        struct stat moved {};
        if (pending != listings_.end() && !pending->second->remoteNames.contains(movedName) &&
            ::lstat(renamed->c_str(), &moved) == 0) {
            KvMetadata original = localChild(toFolder, movedName, false);
            original.timestamp = LocalFileOps::toTimePoint(moved.st_mtim);
            original.fileSizeInBytes = static_cast<std::uint64_t>(moved.st_size);
            pending->second->steps.push_back({original, std::nullopt});
        }
    }
    LocalFileCopier copier;
    auto moved = copier.moveIntoPlace(scratch, target, true);
    if (!moved) {
        cleanup();
        return std::unexpected(moved.error());
    }
    return true;
}

Status SyncTask::upload(const KvMetadata& l, const std::optional<KvMetadata>& r,
                        const std::optional<KvMetadata>& sr, const std::optional<KvMetadata>& sl,
                        const KvMetadata& remoteFolder, bool conflict, const std::string& reason) {
    decide({SyncAction::Upload, conflict, false, false, relativeLocalPath(l.pathOrEmpty()), reason,
            l.fileSizeInBytes.value_or(0)});
    if (auto s = uploadLocalFile(l, r, remoteFolder, r.has_value()); !s) return s;
    if (!running()) return {};
    // The records hold the server's own size and time of the file.
    std::string name = nameOf(l);
    auto uploaded =
        wrapper()->metadataOfItemSync(RemoteUpload::itemInFolder(remoteFolder, name, false));
    if (!uploaded && uploaded.error().is(ErrorKind::NotFound))
        return KvError::fail(
            ErrorDomain::FileTransfer, ErrorCode::TransferFailed,
            fmt::format("\"{}\" is missing on the server after its upload.", name));
    if (!uploaded) return std::unexpected(uploaded.error());
    uploaded->parentFolderMeta = std::make_shared<const KvMetadata>(remoteFolder);
    std::optional<TimePoint> exact;
    if (coarseRemoteTimes()) exact = exactRemoteTime(*uploaded);
    if (auto s = storeRecords(remoteRecordOf(*uploaded, exact), l, sr, sl); !s) return s;
    std::lock_guard lock(mutex_);
    ++summary_.uploaded;
    if (conflict) ++summary_.conflicts;
    summary_.bytesUploaded += static_cast<std::int64_t>(l.fileSizeInBytes.value_or(0));
    return {};
}

Status SyncTask::uploadLocalFile(const KvMetadata& localFile,
                                 const std::optional<KvMetadata>& /*remoteFile*/,
                                 const KvMetadata& toFolder, bool /*overwrite*/) {
    setTransferringFileMeta(localFile);
    std::string name = nameOf(localFile);
    std::string scratch = join(taskTempFolderPath, name + ".syncing");
    ::unlink(scratch.c_str());
    // The copy cannot change while it is sent, so the server never gets a torn file.
    LocalFileCopier copier;
    copier.shouldStop = [this] { return stopped(); };
    if (auto s = copier.copyFile(localFile.pathOrEmpty(), scratch, true); !s) return s;
    if (copier.stopped()) {
        ::unlink(scratch.c_str());
        return {};
    }
    struct stat st {};
    std::int64_t size =
        ::stat(scratch.c_str(), &st) == 0 ? static_cast<std::int64_t>(st.st_size) : 0;

    auto w = wrapper();
    // Weak: a wrapper may keep its progress handler, and the task owns the wrapper.
    std::weak_ptr<SyncTask> weak = std::static_pointer_cast<SyncTask>(shared_from_this());
    auto generation = ++transferGeneration_;
    std::int64_t base = doneBytes_;
    growTotalTo(base + size);
    // Replacing or not, the file goes up under a hidden name and takes its own name only when
    // complete: a run killed mid-upload leaves no partial file under the user's name.
    auto sent = RemoteUpload::uploadFile(
        *w, localFile, scratch, toFolder, name, true,
        [weak, generation, base](std::int64_t d, std::int64_t) {
            auto self = weak.lock();
            if (!self) return;
            if (self->transferGeneration_.load() != generation || !self->running()) return;
            self->setTransferredBytes(base + d);
            self->reportProgress();
        },
        [this] { return stopped(); });
    ++transferGeneration_;
    ::unlink(scratch.c_str());
    doneBytes_ += size;
    setTransferredBytes(doneBytes_);
    reportProgress();
    if (stopped()) return {};
    return sent;
}

Status SyncTask::renameLocalFile(const KvMetadata& file) {
    auto moved = moveAsideAsOriginal(file);
    if (!moved) return std::unexpected(moved.error());
    return {};
}

Result<std::string> SyncTask::moveAsideAsOriginal(const KvMetadata& file) {
    std::string path = file.pathOrEmpty();
    std::string folder = StringUtils::stringByDeletingLastPathComponentDirectly(path);
    std::string target =
        FileTransferUtils::uniqueFilePathInFolder(folder, nameOf(file) + ".original");
    if (auto s = SandboxFileAccess::moveItemFrom(path, target); !s)
        return std::unexpected(s.error());
    return target;
}

// A deletion drops the record of the side already gone, deletes the item, then drops the
// item's own record. A run killed in between finds one record left and a side that still
// holds the unchanged item, which it reads as the deletion to finish.
Status SyncTask::deleteRemoteFile(const KvMetadata& r, const std::optional<KvMetadata>& sr,
                                  const std::optional<KvMetadata>& sl, const std::string& localPath,
                                  const std::string& reason) {
    decide({SyncAction::DeleteRemote, false, false, true, relativeLocalPath(localPath), reason, 0});
    if (auto s = checkDeleteLimit(Side::Remote); !s) return s;
    if (sl) {
        if (auto s = localService_->deleteLocalItem(*sl); !s) return s;
    }
    auto removed = wrapper()->removeSync({r});
    if (!removed && !isNotFound(removed.error())) return removed;
    if (auto s = remoteService_->deleteRemoteItem(sr ? *sr : r); !s) return s;
    std::lock_guard lock(mutex_);
    ++summary_.deletedRemote;
    return {};
}

Status SyncTask::deleteLocalFile(const KvMetadata& l, const std::optional<KvMetadata>& sl,
                                 const std::optional<KvMetadata>& sr, const std::string& reason) {
    decide({SyncAction::DeleteLocal, false, false, false, relativeLocalPath(l.pathOrEmpty()),
            reason, 0});
    if (auto s = checkDeleteLimit(Side::Local); !s) return s;
    if (sr) {
        if (auto s = remoteService_->deleteRemoteItem(*sr); !s) return s;
    }
    // A file touched here since the listing is no longer the one the server deleted: it stays,
    // and the next run sends it back.
    struct stat st {};
    std::string path = l.pathOrEmpty();
    if (::lstat(path.c_str(), &st) == 0) {
        if (LocalFileOps::toTimePoint(st.st_mtim) != l.timestamp) return {};
        if (::unlink(path.c_str()) != 0 && errno != ENOENT) return localError(errno, path);
    }
    if (auto s = localService_->deleteLocalItem(sl ? *sl : l); !s) return s;
    std::lock_guard lock(mutex_);
    ++summary_.deletedLocal;
    return {};
}

// --- Folder deletions

Status SyncTask::deleteFolders() {
    // What the passes did not use of the plan is older than what they changed.
    plannedListings_.clear();
    for (std::size_t i = 0; i < delRemoteFolders.size(); ++i) {
        if (!running()) return {};
        auto folder = delRemoteFolders[i];
        std::string twin = delRemoteFolderTwins_[i];
        auto removed = deleteRemoteFolderTree(folder, twin);
        if (!removed) return std::unexpected(removed.error());
        if (*removed || !running() || twin.empty()) continue;
        // Something new or changed on the server inside it: the folder comes back here.
        KvMetadata local(twin);
        local.isDir = true;
        local.protocolType = ProtocolType::Local;
        local.localPath = twin;
        decide({SyncAction::CreateLocalFolder, false, true, false, relativeLocalPath(twin),
                "it holds items changed on the server"});
        std::error_code ec;
        std::filesystem::create_directories(twin, ec);
        if (!std::filesystem::is_directory(twin, ec))
            return KvError::fail(ErrorDomain::Local, ErrorCode::CreateFolderFailed,
                                 fmt::format("Cannot create folder {}", twin));
        {
            std::lock_guard lock(mutex_);
            ++summary_.localFoldersCreated;
        }
        if (auto s = storeRecords(folder, local, std::nullopt, std::nullopt); !s) return s;
        if (auto s = syncRemoteFolder(folder, local); !s) return s;
    }
    for (std::size_t i = 0; i < delLocalFolders.size(); ++i) {
        if (!running()) return {};
        auto folder = delLocalFolders[i];
        auto twin = delLocalFolderTwins_[i];
        auto removed = deleteLocalFolderTree(folder, twin);
        if (!removed) return std::unexpected(removed.error());
        if (*removed || !running()) continue;
        // Something new or changed here inside it: the folder comes back on the server.
        KvMetadata remote = twin;
        remote.serverID = remoteRoot_.serverID;
        remote.protocolType = remoteRoot_.protocolType;
        remote.isDir = true;
        if (remote.protocolType == ProtocolType::Local) remote.localPath = remote.path();
        decide({SyncAction::CreateRemoteFolder, false, true, false,
                relativeLocalPath(folder.pathOrEmpty()), "it holds items changed here"});
        if (auto s = wrapper()->createFolderSync(remote); !s) return s;
        {
            std::lock_guard lock(mutex_);
            ++summary_.remoteFoldersCreated;
        }
        if (auto s = storeRecords(remote, folder, std::nullopt, std::nullopt); !s) return s;
        if (auto s = syncLocalFolder(folder, remote); !s) return s;
    }
    return {};
}

Result<bool> SyncTask::deleteRemoteFolder(const KvMetadata& folder) {
    auto sl = localService_->getLocalItemByRemoteMeta(folder);
    return deleteRemoteFolderTree(folder, sl ? sl->pathOrEmpty() : std::string());
}

Result<bool> SyncTask::deleteLocalFolder(const KvMetadata& folder) {
    return deleteLocalFolderTree(folder, remoteService_->getRemoteItemByLocalMeta(folder));
}

Result<bool> SyncTask::deleteRemoteFolderTree(const KvMetadata& folder, const std::string& twin) {
    if (isRemoteRoot(folder)) return false;
    auto listing = contentsOfDirectory(folder, true);
    if (!listing) return std::unexpected(listing.error());
    bool kept = false;
    for (auto& e : *listing) {
        if (!running()) return false;
        std::string name = nameOf(e);
        std::string localPath = twin.empty() ? name : join(twin, name);
        if (!SyncTreePlanner::isSyncedName(name) || e.isSymbolLink) {
            kept = true;
            decide({SyncAction::Keep, false, e.isDir, true, relativeLocalPath(localPath),
                    "not synced (hidden or a link)"});
            continue;
        }
        auto sr = remoteService_->getRemoteItemByRemoteMeta(e);
        if (e.isDir) {
            if (!sr) {
                kept = true;
                decide({SyncAction::Keep, false, true, true, relativeLocalPath(localPath),
                        "new on the server"});
                continue;
            }
            auto removed = deleteRemoteFolderTree(e, localPath);
            if (!removed) return removed;
            if (!*removed) kept = true;
            continue;
        }
        if (sr && !remoteChangedSince(e, *sr)) {
            auto sl = localService_->getLocalItemByRemoteMeta(e);
            if (auto s = deleteRemoteFile(e, sr, sl, localPath, "its folder was deleted here"); !s)
                return std::unexpected(s.error());
        } else {
            kept = true;
            decide({SyncAction::Keep, false, false, true, relativeLocalPath(localPath),
                    sr ? "changed on the server since the last sync" : "new on the server"});
        }
    }
    if (!running()) return false;
    auto sr = remoteService_->getRemoteItemByRemoteMeta(folder);
    auto sl = localService_->getLocalItemByRemoteMeta(folder);
    if (kept) {
        // What is left makes the folder new to the next comparison.
        auto dropped = db_->transaction([&]() -> Status {
            if (auto s = remoteService_->deleteRemoteItem(sr ? *sr : folder); !s) return s;
            if (sl) return localService_->deleteLocalItem(*sl);
            return {};
        });
        if (!dropped) return std::unexpected(dropped.error());
        return false;
    }
    decide({SyncAction::DeleteRemoteFolder, false, true, true, relativeLocalPath(twin),
            "deleted here"});
    if (sl) {
        if (auto s = localService_->deleteLocalItem(*sl); !s) return std::unexpected(s.error());
    }
    auto removed = wrapper()->removeSync({folder});
    if (!removed && !isNotFound(removed.error())) return std::unexpected(removed.error());
    if (auto s = remoteService_->deleteRemoteItem(sr ? *sr : folder); !s)
        return std::unexpected(s.error());
    std::lock_guard lock(mutex_);
    ++summary_.remoteFoldersDeleted;
    return true;
}

Result<bool> SyncTask::deleteLocalFolderTree(const KvMetadata& folder,
                                             const std::optional<KvMetadata>& twin) {
    if (folder.pathOrEmpty() == localRoot_.pathOrEmpty()) return false;
    auto listing = contentsOfDirectory(folder, true);
    if (!listing) return std::unexpected(listing.error());
    bool kept = false;
    for (auto& e : *listing) {
        if (!running()) return false;
        std::string name = nameOf(e);
        std::optional<KvMetadata> childTwin;
        if (twin) {
            KvMetadata t(join(twin->pathOrEmpty(), name));
            t.isDir = e.isDir;
            t.serverID = remoteRoot_.serverID;
            t.protocolType = remoteRoot_.protocolType;
            childTwin = t;
        }
        if (isHiddenName(name) || e.isSymbolLink) {
            kept = true;
            decide({SyncAction::Keep, false, e.isDir, false, relativeLocalPath(e.pathOrEmpty()),
                    "not synced (hidden or a link)"});
            continue;
        }
        auto sl = localService_->getLocalItemByLocalMeta(e);
        if (e.isDir) {
            if (!sl) {
                kept = true;
                decide({SyncAction::Keep, false, true, false, relativeLocalPath(e.pathOrEmpty()),
                        "new here"});
                continue;
            }
            auto sr = remoteService_->getRemoteItemByLocalMeta(e);
            auto removed = deleteLocalFolderTree(e, sr ? sr : childTwin);
            if (!removed) return removed;
            if (!*removed) kept = true;
            continue;
        }
        if (sl && !localChanged(e, *sl)) {
            auto sr = remoteService_->getRemoteItemByLocalMeta(e);
            if (auto s = deleteLocalFile(e, sl, sr, "its folder was deleted on the server"); !s)
                return std::unexpected(s.error());
            // A file that was touched meanwhile stays, and with it the folder.
            struct stat st {};
            if (::lstat(e.pathOrEmpty().c_str(), &st) == 0) kept = true;
        } else {
            kept = true;
            decide({SyncAction::Keep, false, false, false, relativeLocalPath(e.pathOrEmpty()),
                    sl ? "changed here since the last sync" : "new here"});
        }
    }
    if (!running()) return false;
    auto sl = localService_->getLocalItemByLocalMeta(folder);
    auto sr = remoteService_->getRemoteItemByLocalMeta(folder);
    auto dropRecords = [&]() -> Status {
        return db_->transaction([&]() -> Status {
            if (auto s = localService_->deleteLocalItem(sl ? *sl : folder); !s) return s;
            if (sr) return remoteService_->deleteRemoteItem(*sr);
            return {};
        });
    };
    if (kept) {
        if (auto s = dropRecords(); !s) return std::unexpected(s.error());
        return false;
    }
    decide({SyncAction::DeleteLocalFolder, false, true, false,
            relativeLocalPath(folder.pathOrEmpty()), "deleted on the server"});
    if (sr) {
        if (auto s = remoteService_->deleteRemoteItem(*sr); !s) return std::unexpected(s.error());
    }
    if (::rmdir(folder.pathOrEmpty().c_str()) != 0 && errno != ENOENT) {
        int err = errno;
        // Something appeared in it meanwhile: it stays, and the next run looks again.
        if (err == ENOTEMPTY || err == EEXIST) return false;
        return std::unexpected(localError(err, folder.pathOrEmpty()).error());
    }
    if (auto s = localService_->deleteLocalItem(sl ? *sl : folder); !s)
        return std::unexpected(s.error());
    std::lock_guard lock(mutex_);
    ++summary_.localFoldersDeleted;
    return true;
}

}  // namespace quillon
