#pragma once
// UserPrompts: the questions the transfer engine asks the user, answered by whatever face the
// program has (the command line asks on the terminal or applies a flag; tests script answers).

#include <functional>
#include <memory>
#include <string>

#include "core/KvMetadata.h"
#include "transfer/FileTransferTask.h"

namespace quillon {

// One open name-conflict question.
struct ResolveConflictItem {
    std::string message;             // "trans.conflict_message" filled with the item's name
    KvMetadata metadata;             // the source item
    bool hideReplaceButton = false;  // a move can only keep both or skip
    bool offerMerge = false;         // a folder is copied: merging is a further choice
};

// The buttons of the alert shown when a task fails.
enum class FailureChoice { Stop, Ignore };

class UserPrompts {
  public:
    // Replace, Merge, KeepBoth or Skip, and whether the answer holds for every later conflict.
    using ConflictAnswer = std::function<void(ConflictAction action, bool applyToAll)>;
    using FailureAnswer = std::function<void(FailureChoice choice)>;

    virtual ~UserPrompts() = default;
    // Asks about an existing target. Called on the main thread; `answer` must be called once,
    // on the main thread, now or later. Several questions may be open at once.
    virtual void resolveConflict(const ResolveConflictItem& item, ConflictAnswer answer) = 0;
    // An alert with the error's text and the buttons "Stop" and, when `offerIgnore`, "Ignore".
    // Called on the main thread; `answer` must be called once, on the main thread, now or later
    // (a window's dialog answers when it is closed, never blocking the main queue).
    virtual void alertTaskFailure(const std::string& message, bool offerIgnore,
                                  FailureAnswer answer) = 0;
};

// Prompts for a program without a user: conflicts are skipped, failures stop everything.
class UnattendedPrompts : public UserPrompts {
  public:
    void resolveConflict(const ResolveConflictItem&, ConflictAnswer answer) override {
        answer(ConflictAction::Skip, false);
    }
    void alertTaskFailure(const std::string&, bool, FailureAnswer answer) override {
        answer(FailureChoice::Stop);
    }
};

}  // namespace quillon
