// What a transfer list hears from the task manager: each task's start and end in order, and a
// failure alert answered later (as a window's dialog is) holding the queue until it is answered,
// then going on or stopping as answered.
#include <gtest/gtest.h>

#include "TransferTestKit.h"
#include "transfer/CopyTask.h"

using namespace quillon;
using namespace quillon::test;

namespace {

struct EventLog : TransferObserver {
    std::vector<std::string> events;
    void taskStarted(FileTransferTask& task) override { add("started", task); }
    void taskEnded(FileTransferTask& task) override { add("ended", task); }
    void add(const char* what, FileTransferTask& task) {
        events.push_back(std::string(what) + " " + task.sourceMetadata.nameOrEmpty());
    }
};

// Keeps each failure alert open until the test answers it.
struct LaterPrompts : UnattendedPrompts {
    std::vector<FailureAnswer> open;
    void alertTaskFailure(const std::string&, bool, FailureAnswer answer) override {
        open.push_back(std::move(answer));
    }
};

}  // namespace

TEST(TransferEvents, ObserversHearStartsAndEndsAndALaterAnswerHoldsTheQueue) {
    IsolatedHome home;
    ScratchDir dir("events");
    writeFile(dir / "src/a.txt", "a");
    writeFile(dir / "src/c.txt", "c");
    std::filesystem::create_directories(dir / "dst");
    FileTransferTaskManager manager;
    manager.setMaxSimultaneousTransfers(1);
    auto prompts = std::make_shared<LaterPrompts>();
    manager.setUserPrompts(prompts);
    auto log = std::make_shared<EventLog>();
    manager.addObserver(log);
    std::vector<std::shared_ptr<CopyTask>> tasks;
    for (auto name : {"gone1", "a.txt", "gone2", "c.txt"}) {
        tasks.push_back(localTask<CopyTask>(dir / (std::string("src/") + name), dir / "dst"));
        manager.addTask(tasks.back());
    }
    manager.start();

    ASSERT_TRUE(pumpUntil([&] { return prompts->open.size() == 1; }));
    // The main queue runs on while the alert is open; the next task waits for the answer.
    MainQueue::shared().runFor(std::chrono::milliseconds(50));
    EXPECT_EQ(tasks[1]->state(), TransferTaskState::Waiting);
    prompts->open[0](FailureChoice::Ignore);

    ASSERT_TRUE(pumpUntil([&] { return prompts->open.size() == 2; }));
    prompts->open[1](FailureChoice::Stop);
    runToEnd(manager);
    manager.removeObserver(log);

    EXPECT_EQ(tasks[1]->state(), TransferTaskState::Completed);
    EXPECT_EQ(tasks[3]->state(), TransferTaskState::Stopped);
    EXPECT_EQ(log->events,
              (std::vector<std::string>{"started gone1", "ended gone1", "started a.txt",
                                        "ended a.txt", "started gone2", "ended gone2"}));
    EXPECT_EQ(namesIn(dir / "dst"), std::vector<std::string>{"a.txt"});
}
