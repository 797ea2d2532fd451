#include "sync/SyncTask.h"

#include "core/Location.h"

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
#include "core/Location.h"
#include "core/NotificationCenter.h"
#include "core/ServerInfoService.h"
#include "core/StringUtils.h"
#include "core/WrapperProxy.h"
#include "sync/SyncInfoService.h"
#include "sync/SyncUtils.h"
#include "transfer/FileTransferUtils.h"
#include "transfer/LocalFileCopier.h"
#include "transfer/RemoteDownload.h"
#include "transfer/RemoteUpload.h"

namespace quillon {

namespace {

using SyncUtils::kLockFileName;
using SyncUtils::localChild;
// Seconds from 1970 to 2001-01-01 00:00:00 UTC, the reference date of the ability-check file.
constexpr double kReferenceDateOffset = 978307200.0;

std::string nameOf(const KvMetadata& m) {
    return m.nameIgnoreLinkResolve().value_or(StringUtils::lastPathComponent(m.pathOrEmpty()));
}

std::string join(const std::string& folder, const std::string& name) {
    return StringUtils::stringByAppendingPathComponentDirectly(folder, name);
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

// The entry with exactly that name, or absent.
std::optional<KvMetadata> entryNamed(const std::string& name, const KvMetadataList& list) {
    for (auto& m : list)
        if (nameOf(m) == name) return m;
    return std::nullopt;
}

}  // namespace

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
    // Its minute is over: from now on the listed time tells.
    if (serverMinute_ && *r.timestamp < *serverMinute_) settledTimes_.push_back(r);
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

bool SyncTask::isRemoteRoot(const KvMetadata& folder) const {
    if (folder.identifier && remoteRoot_.identifier)
        return *folder.identifier == *remoteRoot_.identifier;
    return SyncUtils::getFullPath(folder) == SyncUtils::getFullPath(remoteRoot_);
}

void SyncTask::decide(const SyncDecision& decision) {
    if (decision.action == SyncAction::Keep || decision.action == SyncAction::Skip)
        count(
            [&](SyncSummary& s) { ++(decision.action == SyncAction::Keep ? s.kept : s.skipped); });
    if (decisionHandler) decisionHandler(decision);
}

std::vector<SyncDecision> SyncTask::plannedDecisions() const {
    std::lock_guard lock(mutex_);
    return plan_;
}

// --- Listings

Result<KvMetadataList> SyncTask::contentsOfDirectory(const KvMetadata& folder) {
    std::string path = folder.pathOrEmpty();
    bool local = !localRootPrefix_.empty() &&
                 (path + "/" == localRootPrefix_ || path.starts_with(localRootPrefix_)) &&
                 folder.protocolType == ProtocolType::Local;
    if (local) {
        SandboxFileAccess::ListOptions options;
        options.skipsHiddenFiles = false;
        return SandboxFileAccess::contentsOfDirectory(folder, options);
    }
    auto w = wrapper();
    if (!w)
        return KvError::fail(ErrorDomain::FileSync, kErrorNoServer, "No connection to the server.");
    return w->contentsOfDirectoryAtPathSync(folder);
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
    createdRemote_.clear();
    losers_.clear();
    settledTimes_.clear();
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
    taskTempFolderPath_ = *temp;

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
    // Hidden entries are listed so that folder deletions can see them; the planner leaves them
    // out.
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
            plan_ = plan->decisions();
        }
        if (options_.dryRun) {
            for (auto& d : plan_) decide(d);
            std::lock_guard lock(mutex_);
            summary_ = plan->summary();
        } else {
            // The total is known before the first byte moves.
            setTotalBytes(plan->transferBytes());
            result = checkPlanDeletes(plan->summary());
            if (result) result = carryOut(*plan);
        }
    }
    finish(result || stopped() ? std::nullopt : std::optional<Error>(result.error()));
}

Status SyncTask::snapshot(const KvMetadata& folder, const std::string& rel,
                          SyncTreeSnapshot& tree) {
    if (!running()) return {};
    // Hidden entries are kept: a folder deleted on one side stays while it holds any.
    auto listing = contentsOfDirectory(folder);
    if (!listing) return std::unexpected(listing.error());
    KvMetadataList& entries = tree.folders[rel] = std::move(*listing);
    // Links are never followed.
    for (std::size_t i = 0; i < entries.size(); ++i) {
        const KvMetadata e = entries[i];
        std::string name = nameOf(e);
        if (!e.isDir || e.isSymbolLink || !SyncTreePlanner::isSyncedName(name)) continue;
        if (auto s = snapshot(e, rel.empty() ? name : rel + "/" + name, tree); !s) return s;
    }
    return {};
}

Result<SyncPlan> SyncTask::makePlan() {
    SyncTreeSnapshot remote, local;
    if (auto s = snapshot(remoteRoot_, "", remote); !s) return std::unexpected(s.error());
    std::error_code ec;
    // A dry run of a pair never synced has no local folder yet.
    if (std::filesystem::is_directory(localRoot_.pathOrEmpty(), ec)) {
        if (auto s = snapshot(localRoot_, "", local); !s) return std::unexpected(s.error());
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
    if (!taskTempFolderPath_.empty()) FileTransferUtils::removeTaskTempFolder(taskTempFolderPath_);
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
    checkingSyncCondition_ = true;
    auto w = wrapper();
    // The cause, when there is one, keeps the item it was about and the server's words.
    auto fail = [&](std::string_view domain, long code, std::string_view reason,
                    const Error* cause = nullptr) -> Status {
        auto e = KvError::errorWithDomain(domain, code, reason);
        if (cause) {
            e.item =
                cause->item.empty() ? join(displayItem(remoteRoot_), kTestFileName) : cause->item;
            e.serverReply = cause->serverReply;
            e.request = cause->request;
        }
        checkingSyncCondition_ = false;
        finish(e);
        return std::unexpected(e);
    };
    auto listing = w->contentsOfDirectoryAtPathSync(remoteRoot_);
    if (!listing)
        return fail(ErrorDomain::FileSync, kErrorSyncFolder,
                    "The sync folder is empty or doesn't exist!");

    std::string testPath = join(taskTempFolderPath_, kTestFileName);
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
    if (auto up = w->uploadSync(testFile, remoteRoot_, {}); !up)
        return fail(ErrorDomain::FileTransfer, ErrorCode::TransferFailed,
                    "Sync ability check: Fail to upload file!", &up.error());

    auto again = w->contentsOfDirectoryAtPathSync(remoteRoot_);
    std::optional<KvMetadata> uploaded;
    if (again) uploaded = entryNamed(kTestFileName, *again);
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
    checkingSyncCondition_ = false;

    auto until = std::chrono::steady_clock::now() +
                 std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                     std::chrono::duration<double>(options_.pauseAfterCheck));
    for (auto now = std::chrono::steady_clock::now(); running() && now < until;
         now = std::chrono::steady_clock::now())
        std::this_thread::sleep_for(std::min<std::chrono::steady_clock::duration>(
            std::chrono::milliseconds(20), until - now));
    return {};
}

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

// --- The executor

Status SyncTask::carryOut(const SyncPlan& plan) {
    for (auto& r : settledTimes_)
        if (auto s = remoteService_->updateRemoteItem(r); !s) return s;
    for (auto& step : plan.steps) {
        if (!running()) return {};
        if (auto s = carryOut(step); !s) return stopped() ? Status{} : s;
    }
    return {};
}

Status SyncTask::carryOut(const SyncStep& step) {
    const SyncItemState& item = step.item;
    switch (step.kind) {
        case SyncStepKind::RecordFolder:
            return storeRecords(*item.remote, *item.local, item.remoteRecord, item.localRecord);
        case SyncStepKind::ForgetFolder:
            return forgetFolder(item);
        case SyncStepKind::Act:
            break;
    }
    switch (step.decision.action) {
        case SyncAction::Download:
            return download(step);
        case SyncAction::Upload:
            return upload(step);
        case SyncAction::DeleteRemote:
            return deleteRemoteFile(step);
        case SyncAction::DeleteLocal:
            return deleteLocalFile(step);
        case SyncAction::CreateLocalFolder:
            return createLocalFolder(step);
        case SyncAction::CreateRemoteFolder:
            return createRemoteFolder(step);
        case SyncAction::DeleteRemoteFolder:
            return deleteRemoteFolder(step);
        case SyncAction::DeleteLocalFolder:
            return deleteLocalFolder(step);
        case SyncAction::Keep:
        case SyncAction::Skip:
            decide(step.decision);
            return {};
    }
    return {};
}

KvMetadata SyncTask::remoteFolderOf(const SyncStep& step) const {
    auto it = createdRemote_.find(SyncUtils::getFullPath(step.remoteFolder));
    return it == createdRemote_.end() ? step.remoteFolder : it->second;
}

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

Status SyncTask::forgetFolder(const SyncItemState& item) {
    const auto& sr = item.remoteRecord;
    const auto& sl = item.localRecord;
    return db_->transaction([&]() -> Status {
        if (item.remote) {
            if (auto s = remoteService_->deleteRemoteItem(sr ? *sr : *item.remote); !s) return s;
            if (sl) return localService_->deleteLocalItem(*sl);
            return {};
        }
        if (auto s = localService_->deleteLocalItem(sl ? *sl : *item.local); !s) return s;
        if (sr) return remoteService_->deleteRemoteItem(*sr);
        return {};
    });
}

Status SyncTask::download(const SyncStep& step) {
    const KvMetadata& r = *step.item.remote;
    decide(step.decision);
    // Asked before the download: an edit racing it then shows as a change next time.
    std::optional<TimePoint> exact;
    if (coarseRemoteTimes()) exact = exactRemoteTime(r);
    KvMetadata fetched = r;
    if (exact) fetched.timestamp = exact;
    auto placed = downloadInto(fetched, step.localFolder, step.item.local, step.keepLocalCopy,
                               step.decision.path);
    if (!placed) return std::unexpected(placed.error());
    if (!*placed || !running()) return {};
    KvMetadata target = localChild(step.localFolder, nameOf(r), false);
    target.fileSizeInBytes = r.fileSizeInBytes;
    target.timestamp = fetched.timestamp;
    if (auto s = storeRecords(remoteRecordOf(r, exact), target, step.item.remoteRecord,
                              step.item.localRecord);
        !s)
        return s;
    count([&](SyncSummary& s) {
        ++s.downloaded;
        if (step.decision.conflict) ++s.conflicts;
        s.bytesDownloaded += static_cast<std::int64_t>(r.fileSizeInBytes.value_or(0));
    });
    return {};
}

Result<bool> SyncTask::downloadInto(const KvMetadata& file, const KvMetadata& toFolder,
                                    const std::optional<KvMetadata>& expected, bool keepLocalCopy,
                                    const std::string& path) {
    setTransferringFileMeta(file);
    std::string folder = toFolder.pathOrEmpty();
    if (auto room = RemoteDownload::checkRoom(file, taskTempFolderPath_, folder); !room)
        return std::unexpected(room.error());
    std::string name = nameOf(file);
    std::string scratch = join(taskTempFolderPath_, name);
    auto size = static_cast<std::int64_t>(file.fileSizeInBytes.value_or(0));
    std::int64_t base = doneBytes_;
    growTotalTo(base + size);
    auto wrapperPtr = wrapper();
    auto done = RemoteDownload::fetchFile(
        *wrapperPtr, file, scratch,
        relayProgress([base](std::int64_t d, std::int64_t) { return base + d; }),
        [this] { return !running(); });
    doneBytes_ += size;
    raiseTransferredBytes(doneBytes_);
    reportProgress();
    if (!done || !*done) return done;
    auto cleanup = [&] { ::unlink(scratch.c_str()); };
    // The local file must still be what the plan saw: a file changed (or created) here in the
    // meantime is left for the next run to compare.
    std::string target = join(folder, name);
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
    // same file (an upload of it whose records a killed run never wrote). A later step of the
    // plan sends it to the server.
    if (keepLocalCopy && expected && !sameContents(scratch, target)) {
        auto renamed = moveAsideAsOriginal(*expected);
        if (!renamed) {
            cleanup();
            return std::unexpected(renamed.error());
        }
        struct stat moved {};
        if (::lstat(renamed->c_str(), &moved) == 0) {
            KvMetadata original =
                localChild(toFolder, StringUtils::lastPathComponent(*renamed), false);
            original.timestamp = LocalFileOps::toTimePoint(moved.st_mtim);
            original.fileSizeInBytes = static_cast<std::uint64_t>(moved.st_size);
            losers_[path] = std::move(original);
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

Status SyncTask::upload(const SyncStep& step) {
    KvMetadata l = *step.item.local;
    if (step.loserOf) {
        // Only a loser that was set aside under the planned name goes up; one that was the
        // very same file as the winner was never set aside.
        auto it = losers_.find(*step.loserOf);
        if (it == losers_.end() || nameOf(it->second) != nameOf(l)) {
            setTotalBytes(std::max<std::int64_t>(
                doneBytes_, totalBytes() - static_cast<std::int64_t>(step.decision.size)));
            return {};
        }
        l = it->second;
    }
    decide(step.decision);
    KvMetadata remoteFolder = remoteFolderOf(step);
    if (auto s = uploadLocalFile(l, remoteFolder); !s) return s;
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
    if (auto s = storeRecords(remoteRecordOf(*uploaded, exact), l, step.item.remoteRecord,
                              step.item.localRecord);
        !s)
        return s;
    count([&](SyncSummary& s) {
        ++s.uploaded;
        if (step.decision.conflict) ++s.conflicts;
        s.bytesUploaded += static_cast<std::int64_t>(l.fileSizeInBytes.value_or(0));
    });
    return {};
}

Status SyncTask::uploadLocalFile(const KvMetadata& localFile, const KvMetadata& toFolder) {
    setTransferringFileMeta(localFile);
    std::string name = nameOf(localFile);
    std::string scratch = join(taskTempFolderPath_, name + ".syncing");
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
    std::int64_t base = doneBytes_;
    growTotalTo(base + size);
    // Replacing or not, the file goes up under a hidden name and takes its own name only when
    // complete: a run killed mid-upload leaves no partial file under the user's name.
    auto sent = RemoteUpload::uploadFile(
        *wrapper(), localFile, scratch, toFolder, name, true,
        relayProgress([base](std::int64_t d, std::int64_t) { return base + d; }),
        [this] { return stopped(); });
    ::unlink(scratch.c_str());
    doneBytes_ += size;
    raiseTransferredBytes(doneBytes_);
    reportProgress();
    if (stopped()) return {};
    return sent;
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

namespace {
// Listings and single-item lookups may round times differently on some servers.
bool changedSince(const KvMetadata& planned, const KvMetadata& now) {
    if (planned.fileSizeInBytes != now.fileSizeInBytes) return true;
    if (!planned.timestamp || !now.timestamp) return false;
    return std::chrono::abs(*planned.timestamp - *now.timestamp) > std::chrono::seconds(2);
}
}  // namespace

// A deletion drops the record of the side already gone, deletes the item, then drops the
// item's own record. A run killed in between finds one record left and a side that still
// holds the unchanged item, which it reads as the deletion to finish.
Status SyncTask::deleteRemoteFile(const SyncStep& step) {
    const KvMetadata& r = *step.item.remote;
    const auto& sr = step.item.remoteRecord;
    const auto& sl = step.item.localRecord;
    decide(step.decision);
    if (auto s = checkDeleteLimit(Side::Remote); !s) return s;
    if (sl) {
        if (auto s = localService_->deleteLocalItem(*sl); !s) return s;
    }
    // A server file changed since the listing is no longer the one deleted here: it stays, and
    // the next run brings it down.
    if (auto now = wrapper()->metadataOfItemSync(r); now && changedSince(r, *now)) return {};
    auto removed = wrapper()->removeSync({r});
    if (!removed && !isNotFound(removed.error())) return removed;
    if (auto s = remoteService_->deleteRemoteItem(sr ? *sr : r); !s) return s;
    count([](SyncSummary& s) { ++s.deletedRemote; });
    return {};
}

Status SyncTask::deleteLocalFile(const SyncStep& step) {
    const KvMetadata& l = *step.item.local;
    const auto& sr = step.item.remoteRecord;
    const auto& sl = step.item.localRecord;
    decide(step.decision);
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
    count([](SyncSummary& s) { ++s.deletedLocal; });
    return {};
}

Status SyncTask::createLocalFolder(const SyncStep& step) {
    const KvMetadata& r = *step.item.remote;
    KvMetadata folder = localChild(step.localFolder, nameOf(r), true);
    decide(step.decision);
    std::error_code ec;
    std::filesystem::create_directories(folder.pathOrEmpty(), ec);
    if (!std::filesystem::is_directory(folder.pathOrEmpty(), ec))
        return KvError::fail(ErrorDomain::Local, ErrorCode::CreateFolderFailed,
                             fmt::format("Cannot create folder {}", folder.pathOrEmpty()));
    count([](SyncSummary& s) { ++s.localFoldersCreated; });
    return storeRecords(r, folder, step.item.remoteRecord, step.item.localRecord);
}

Status SyncTask::createRemoteFolder(const SyncStep& step) {
    const KvMetadata& l = *step.item.local;
    std::string name = nameOf(l);
    KvMetadata parent = remoteFolderOf(step);
    KvMetadata folder = RemoteUpload::itemInFolder(parent, name, true);
    decide(step.decision);
    auto w = wrapper();
    if (auto s = w->createFolderSync(folder); !s) return s;
    count([](SyncSummary& s) { ++s.remoteFoldersCreated; });
    // The server's own record of the new folder (cloud drives give it its identifier); what
    // the plan put inside goes into it.
    if (auto created = w->metadataOfItemSync(folder)) {
        created->parentFolderMeta = std::make_shared<const KvMetadata>(parent);
        folder = *created;
    }
    createdRemote_[SyncUtils::getFullPath(
        RemoteUpload::itemInFolder(step.remoteFolder, name, true))] = folder;
    return storeRecords(folder, l, step.item.remoteRecord, step.item.localRecord);
}

Status SyncTask::deleteRemoteFolder(const SyncStep& step) {
    const KvMetadata& folder = *step.item.remote;
    const auto& sr = step.item.remoteRecord;
    const auto& sl = step.item.localRecord;
    if (isRemoteRoot(folder)) return {};
    // The server removes a folder with what it holds: one that gained anything since the plan
    // stays, and the next run takes what is in it for new.
    auto listing = contentsOfDirectory(folder);
    if (!listing) return std::unexpected(listing.error());
    if (!listing->empty()) return forgetFolder(step.item);
    decide(step.decision);
    if (sl) {
        if (auto s = localService_->deleteLocalItem(*sl); !s) return s;
    }
    auto removed = wrapper()->removeSync({folder});
    if (!removed && !isNotFound(removed.error())) return removed;
    if (auto s = remoteService_->deleteRemoteItem(sr ? *sr : folder); !s) return s;
    count([](SyncSummary& s) { ++s.remoteFoldersDeleted; });
    return {};
}

Status SyncTask::deleteLocalFolder(const SyncStep& step) {
    const KvMetadata& folder = *step.item.local;
    const auto& sr = step.item.remoteRecord;
    const auto& sl = step.item.localRecord;
    std::string path = folder.pathOrEmpty();
    if (path == localRoot_.pathOrEmpty()) return {};
    decide(step.decision);
    if (sr) {
        if (auto s = remoteService_->deleteRemoteItem(*sr); !s) return s;
    }
    if (::rmdir(path.c_str()) != 0 && errno != ENOENT) {
        int err = errno;
        // Something appeared in it meanwhile (or a file in it was touched and stayed): it
        // stays, and the next run takes what is in it for new.
        if (err == ENOTEMPTY || err == EEXIST) return forgetFolder(step.item);
        return localError(err, path);
    }
    if (auto s = localService_->deleteLocalItem(sl ? *sl : folder); !s) return s;
    count([](SyncSummary& s) { ++s.localFoldersDeleted; });
    return {};
}

}  // namespace quillon
