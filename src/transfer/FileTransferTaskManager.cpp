#include "transfer/FileTransferTaskManager.h"

#include <algorithm>
#include <limits>
#include <typeinfo>

#include "core/AppPreference.h"
#include "core/GCD.h"
#include "core/LocalizedUtils.h"
#include "transfer/FileTransferUtils.h"

namespace quillon {

FileTransferTaskManager& FileTransferTaskManager::sharedInstance() {
    static FileTransferTaskManager instance;
    return instance;
}

FileTransferTaskManager::FileTransferTaskManager() = default;
FileTransferTaskManager::~FileTransferTaskManager() = default;

void FileTransferTaskManager::addTask(FileTransferTaskPtr task) {
    std::lock_guard lock(listLock_);
    tasks_.push_back(std::move(task));
}

void FileTransferTaskManager::start() {
    runNextTask();
    if (auto view = getFileTransferView(); view && view->isDisplayed()) view->reloadContent();
}

std::vector<FileTransferTaskPtr> FileTransferTaskManager::getAllTasks() const {
    std::lock_guard lock(listLock_);
    return tasks_;
}

void FileTransferTaskManager::stopTask(const FileTransferTaskPtr& task) {
    if (!task) return;
    switch (task->state()) {
        case TransferTaskState::Running:
            task->cancelTransfer();
            break;
        case TransferTaskState::Waiting:
            task->setState(TransferTaskState::Stopped);
            break;
        default:
            break;
    }
    runNextTask();
    if (auto view = getFileTransferView(); view && view->isDisplayed())
        view->updateProgress(*task, task->transferredBytes(), task->totalBytes());
}

void FileTransferTaskManager::stopAllTasks() {
    auto all = getAllTasks();
    for (auto& t : all)
        if (t->state() == TransferTaskState::Waiting) t->setState(TransferTaskState::Stopped);
    for (auto& t : all)
        if (t->state() == TransferTaskState::Running) stopTask(t);
    std::lock_guard lock(stateMutex_);
    applyAll_ = false;
    fileConflict_ = ConflictAction::NotDecided;
}

int FileTransferTaskManager::maxSimultaneousTransfers() const {
    {
        std::lock_guard lock(stateMutex_);
        if (limitOverride_) return *limitOverride_;
    }
    auto& prefs = AppPreference::sharedAppPreference();
    if (!prefs.valueForKey(PrefKey::MaxSimultaneousTransfers)) return 1;
    // A limit below one (a hand-edited file) would keep every task waiting for ever: it counts
    // as the default.
    auto limit = prefs.integerForKey(PrefKey::MaxSimultaneousTransfers);
    if (limit < 1) return 1;
    return static_cast<int>(std::min<std::int64_t>(limit, std::numeric_limits<int>::max()));
}

void FileTransferTaskManager::setMaxSimultaneousTransfers(std::optional<int> limit) {
    std::lock_guard lock(stateMutex_);
    limitOverride_ = limit && *limit < 1 ? std::optional<int>(1) : limit;
}

std::size_t FileTransferTaskManager::countInState(TransferTaskState state) const {
    std::lock_guard lock(listLock_);
    std::size_t n = 0;
    for (auto& t : tasks_)
        if (t->state() == state) ++n;
    return n;
}

bool FileTransferTaskManager::canRunTask(const FileTransferTask&) const {
    auto running = countInState(TransferTaskState::Running);
    return static_cast<long long>(running) < maxSimultaneousTransfers();
}

void FileTransferTaskManager::runNextTask() {
    std::lock_guard lock(listLock_);
    // runTask may not change the list, but a copy keeps the walk safe whatever it does.
    auto snapshot = tasks_;
    // The free slots are counted once: a task started by this walk may finish before the walk
    // ends, and its completion walks again. Counting it out here would start a second task in
    // this walk, and the completion's walk would then start nothing and forget an "apply to
    // all" answer that the second task has yet to read.
    auto running = static_cast<long long>(countInState(TransferTaskState::Running));
    long long limit = maxSimultaneousTransfers();
    bool started = false;
    for (auto& t : snapshot) {
        if (running >= limit) break;
        if (t->state() != TransferTaskState::Waiting) continue;
        runTask(t);
        ++running;
        started = true;
    }
    if (!started) {
        std::lock_guard stateLock(stateMutex_);
        applyAll_ = false;
        fileConflict_ = ConflictAction::NotDecided;
    }
}

bool FileTransferTaskManager::sameFolder(const FileTransferTask& task) const {
    const auto& source = task.sourceMetadata;
    std::string parent = source.parentFolderMeta && source.parentFolderMeta->path()
                             ? *source.parentFolderMeta->path()
                             : FileTransferUtils::parentPath(source.pathOrEmpty());
    auto trim = [](std::string p) {
        while (p.size() > 1 && p.back() == '/') p.pop_back();
        return p.empty() ? std::string("/") : p;
    };
    std::string sourceServer = task.sourceServerInfo ? task.sourceServerInfo->serverID : "";
    std::string targetServer = task.targetServerInfo ? task.targetServerInfo->serverID : "";
    return sourceServer == targetServer && trim(parent) == trim(task.targetMetadata.pathOrEmpty());
}

void FileTransferTaskManager::runTask(const FileTransferTaskPtr& task) {
    if (!task || task->state() != TransferTaskState::Waiting) return;
    task->setState(TransferTaskState::Running);
    task->setDelegate(this);
    task->setManager(this);
    for (auto& o : observers()) o->taskStarted(*task);
    GCD::doInBackground([this, task] {
        if (task->state() != TransferTaskState::Running) {
            // Stopped before its thread started: the run ends at once as stopped.
            task->startTransfer();
            return;
        }
        auto exists = task->fileExists();
        if (!exists) {
            task->failBeforeStart(exists.error());
            return;
        }
        if (!*exists) {
            task->startTransfer();
            return;
        }
        if (auto remembered = rememberedConflict()) {
            task->setFileConflict(*remembered);
            task->startTransfer();
        } else if (!task->isMoveTask() && sameFolder(*task)) {
            // Copying an item into its own folder never asks.
            task->setFileConflict(ConflictAction::KeepBoth);
            task->startTransfer();
        } else {
            GCD::doInForeground([this, task] { askConflict(task); });
        }
    });
}

void FileTransferTaskManager::askConflict(const FileTransferTaskPtr& task) {
    if (task->state() != TransferTaskState::Running) {
        // Stopped while waiting for the question: nothing to ask.
        startInBackground(task);
        return;
    }
    // An "apply to all" answer given while this question waited its turn covers it too.
    if (auto remembered = rememberedConflict()) {
        task->setFileConflict(*remembered);
        startInBackground(task);
        return;
    }
    ResolveConflictItem item;
    item.metadata = task->sourceMetadata;
    item.message = LocalizedUtils::localizedFormat("trans.conflict_message",
                                                   {task->sourceMetadata.nameOrEmpty()}, "Conlict");
    item.hideReplaceButton = task->isMoveTask();
    item.offerMerge = !task->isMoveTask() && task->sourceMetadata.isDir;
    bool hideReplace = item.hideReplaceButton;
    prompts()->resolveConflict(item, [this, task, hideReplace](ConflictAction action,
                                                               bool applyToAll) {
        if (action == ConflictAction::NotDecided ||
            (hideReplace && (action == ConflictAction::Replace || action == ConflictAction::Merge)))
            action = ConflictAction::Skip;
        {
            std::lock_guard lock(stateMutex_);
            fileConflict_ = action;
            applyAll_ = applyToAll;
        }
        task->setFileConflict(action);
        startInBackground(task);
    });
}

void FileTransferTaskManager::startInBackground(const FileTransferTaskPtr& task) {
    GCD::doInBackground([task] { task->startTransfer(); });
}

void FileTransferTaskManager::setUserPrompts(std::shared_ptr<UserPrompts> prompts) {
    std::lock_guard lock(stateMutex_);
    prompts_ = std::move(prompts);
}

std::shared_ptr<UserPrompts> FileTransferTaskManager::prompts() const {
    std::lock_guard lock(stateMutex_);
    if (prompts_) return prompts_;
    static auto unattended = std::make_shared<UnattendedPrompts>();
    return unattended;
}

void FileTransferTaskManager::setFileTransferView(std::shared_ptr<FileTransferView> view) {
    std::lock_guard lock(stateMutex_);
    view_ = std::move(view);
}

std::shared_ptr<FileTransferView> FileTransferTaskManager::getFileTransferView() const {
    std::lock_guard lock(stateMutex_);
    return view_;
}

void FileTransferTaskManager::addObserver(std::shared_ptr<TransferObserver> observer) {
    std::lock_guard lock(stateMutex_);
    observers_.push_back(std::move(observer));
}

void FileTransferTaskManager::removeObserver(const std::shared_ptr<TransferObserver>& observer) {
    std::lock_guard lock(stateMutex_);
    std::erase(observers_, observer);
}

std::vector<std::shared_ptr<TransferObserver>> FileTransferTaskManager::observers() const {
    std::lock_guard lock(stateMutex_);
    return observers_;
}

bool FileTransferTaskManager::applyAll() const {
    std::lock_guard lock(stateMutex_);
    return applyAll_;
}

ConflictAction FileTransferTaskManager::fileConflict() const {
    std::lock_guard lock(stateMutex_);
    return fileConflict_;
}

std::optional<ConflictAction> FileTransferTaskManager::rememberedConflict() const {
    std::lock_guard lock(stateMutex_);
    if (!applyAll_) return std::nullopt;
    return fileConflict_;
}

bool FileTransferTaskManager::hasOtherActiveTaskOfClass(const FileTransferTask& task) const {
    std::lock_guard lock(listLock_);
    for (auto& t : tasks_) {
        if (t.get() == &task || typeid(*t) != typeid(task)) continue;
        auto s = t->state();
        if (s == TransferTaskState::Waiting || s == TransferTaskState::Running) return true;
    }
    return false;
}

bool FileTransferTaskManager::hasActiveTasks() const {
    return countInState(TransferTaskState::Waiting) + countInState(TransferTaskState::Running) > 0;
}

void FileTransferTaskManager::updateTask(FileTransferTask& task, std::int64_t transferredBytes,
                                         std::int64_t totalBytes) {
    if (auto view = getFileTransferView(); view && view->isDisplayed())
        view->updateProgress(task, transferredBytes, totalBytes);
    for (auto& o : observers()) o->taskProgressed(task, transferredBytes, totalBytes);
}

void FileTransferTaskManager::didCompleteTask(FileTransferTask& task,
                                              const std::optional<Error>& error) {
    task.setDelegate(nullptr);
    if (auto view = getFileTransferView(); view && view->isDisplayed())
        view->updateProgress(task, task.transferredBytes(), task.totalBytes());
    for (auto& o : observers()) o->taskEnded(task);
    if (!error || task.state() == TransferTaskState::Stopped) {
        afterTaskEnded(false);
        return;
    }
    bool waiting = countInState(TransferTaskState::Waiting) > 0;
    prompts()->alertTaskFailure(
        error->reason.empty() ? error->describe() : error->reason, waiting,
        [this](FailureChoice choice) { afterTaskEnded(choice != FailureChoice::Ignore); });
}

void FileTransferTaskManager::afterTaskEnded(bool stopAll) {
    if (stopAll)
        stopAllTasks();
    else
        runNextTask();
    auto view = getFileTransferView();
    if (!hasActiveTasks() && view && view->isDisplayed()) view->close();
}

}  // namespace quillon
