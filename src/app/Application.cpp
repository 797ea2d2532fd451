#include "app/Application.h"

#include <fmt/format.h>

#include <chrono>
#include <filesystem>

#include "clients/Clients.h"
#include "core/AppPreference.h"
#include "core/DBManager.h"
#include "core/Initialization.h"
#include "core/PathUtils.h"
#include "core/ServerInfoService.h"
#include "core/TemporaryItems.h"
#include "media/Thumbnails.h"
#include "servers/streaming/CachedDataReader.h"
#include "servers/streaming/DiskDataCache.h"
#include "servers/streaming/StreamHttpServerService.h"

namespace quillon {

namespace {

constexpr std::string_view kServerKeyPrefix = "S2-";

std::chrono::nanoseconds seconds(double s) {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::duration<double>(s));
}

}  // namespace

Application::Application(ApplicationOptions options) : options_(std::move(options)) {}

Application::~Application() {
    stop();
}

Status Application::start() {
    if (running_) return {};
    warnings_.clear();

    // A launch reads "pref.plist" afresh. A problem found when the shared store first read it
    // (perhaps just now) is reported once; the store then runs on the defaults.
    auto& prefs = AppPreference::sharedAppPreference();
    if (auto e = prefs.takeLoadError()) return std::unexpected(*e);
    if (auto r = prefs.load(); !r) {
        (void)prefs.takeLoadError();
        return r;
    }

    if (auto r = DBManager::sharedDBManager().openDB(); !r) return r;
    // Scratch folders and hidden temporaries that killed runs left behind.
    TemporaryItems::cleanUpAfterEndedProcesses();
    registerBuiltinClients();
    makeCloudStore();

    if (auto r = Migrator(options_.keychain).migrate(); !r) warnings_.push_back(r.error());
    if (!Initialization::isInitialized()) Initialization::initializeApp();

    running_ = true;
    deleteQuickConnections();
    syncConnectionsWithCloud();
    // What a previous run streamed is of no use now; clients stream through the cache.
    DiskDataCache::shared().clearCache();
    installStreaming();
    Thumbnails::installThumbnails();
    return {};
}

void Application::stop() {
    for (auto id : timers_) MainQueue::shared().cancel(id);
    timers_.clear();
    if (store_) {
        if (observer_) store_->removeChangeObserver(*observer_);
        auto& service = ServerInfoService::sharedServerInfoService();
        if (service.cloudStore() == store_) service.setCloudStore(nullptr);
    }
    observer_.reset();
    store_.reset();
    if (running_) {
        StreamHttpServerService::sharedHttpServerService().stopServer();
        StreamHttpServerService::sharedHttpServerForThumbnail().stopServer();
        // What was streamed is of no use to anyone after the process: it does not wait in the
        // temporary folder for the next start.
        CachedDataReader::cancelAllBackgroundFetching();
        CachedDataReader::fetchingQueue().waitUntilAllOperationsAreFinished();
        DiskDataCache::shared().clearCache();
        DBManager::sharedDBManager().closeDB();
    }
    running_ = false;
}

void Application::makeCloudStore() {
    store_ = options_.cloudStore;
    if (!store_) {
        std::string folder =
            AppPreference::sharedAppPreference().stringForKey(PrefKey::CLOUD_SYNC_FOLDER);
        if (!folder.empty()) {
            std::error_code ec;
            if (std::filesystem::is_directory(folder, ec)) {
                store_ = std::make_shared<FileCloudKeyValueStore>(
                    folder, PathUtils::getAppDataFolderPath() + "/" + kCloudCacheFileName);
            } else {
                warnings_.push_back(KvError::errorWithDomain(
                    ErrorDomain::Generic, ENOENT,
                    fmt::format("The shared folder {} of the server list does not exist; server "
                                "records are not shared.",
                                folder)));
            }
        }
    }
    ServerInfoService::sharedServerInfoService().setCloudStore(store_);
}

void Application::deleteQuickConnections() {
    auto& service = ServerInfoService::sharedServerInfoService();
    for (auto& info : service.remoteServerInfos())
        if (info.boolValueForKey(ServerProp::QUICK_CONNECT)) (void)service.deleteServerInfo(info);
}

void Application::observeCloudStore() {
    if (!store_ || observer_) return;
    observer_ = store_->addChangeObserver([this](int reason, const std::vector<std::string>& keys) {
        keyvalueStoreDidChange(reason, keys);
    });
}

void Application::syncConnectionsWithCloud() {
    if (!store_) return;
    if (!AppPreference::sharedAppPreference().boolForKey(PrefKey::SYS_AUTO_SYNC_CONN)) return;
    auto fullSync = [] {
        ServerInfoService::sharedServerInfoService().syncServerInfoWithChangedIds({});
    };
    switch (options_.delayedSteps) {
        case ApplicationOptions::DelayedSteps::Skip:
            return;
        case ApplicationOptions::DelayedSteps::Immediate:
            observeCloudStore();
            (void)store_->synchronize();
            // Deliver what the synchronisation found before the full pass looks at the records.
            MainQueue::shared().pump();
            fullSync();
            return;
        case ApplicationOptions::DelayedSteps::Scheduled:
            timers_.push_back(
                MainQueue::shared().postAfter(seconds(kCloudObserveDelay), [this, fullSync] {
                    if (!store_) return;
                    observeCloudStore();
                    (void)store_->synchronize();
                    timers_.push_back(
                        MainQueue::shared().postAfter(seconds(kCloudFullSyncDelay), fullSync));
                }));
            return;
    }
}

void Application::keyvalueStoreDidChange(int reason, const std::vector<std::string>& changedKeys) {
    if (reason != CloudChangeReason::ServerChange && reason != CloudChangeReason::InitialSyncChange)
        return;
    std::vector<std::string> serverKeys;
    for (auto& key : changedKeys)
        if (key.starts_with(kServerKeyPrefix)) serverKeys.push_back(key);
    // An empty list would mean a full pass; changes of other kinds must not start one.
    if (serverKeys.empty()) return;
    ServerInfoService::sharedServerInfoService().syncServerInfoWithChangedIds(serverKeys);
}

}  // namespace quillon
