// The name-conflict check before a transfer: a target that cannot be looked up stops the task
// with that failure instead of letting it run as if the name were free.
#include <gtest/gtest.h>

#include <mutex>
#include <vector>

#include "TransferTestKit.h"
#include "core/KvConnectionPool.h"
#include "transfer/MoveTask.h"

using namespace quillon;
using namespace quillon::test;

TEST(ConflictCheck, MoveOntoAnFtpNameIsRefusedWhenTheTargetCannotBeListed) {
    IsolatedHome home;
    // A scripted fake: listings fail on the server side while renames would succeed, and a
    // rename there replaces what bears the new name.
    std::mutex mutex;
    std::vector<std::string> renames;
    ScriptedFtpServer server(
        "220 fake\r\n", [&](const std::string& line, ScriptedFtpServer::Session& s) -> std::string {
            if (auto r = ScriptedFtpServer::basics(line); !r.empty()) return r;
            if (line == "FEAT") return "211-Features:\r\n SIZE\r\n211 End\r\n";
            if (line.starts_with("SIZE")) return "550 Could not get file size.\r\n";
            if (line == "PASV") return s.passive();
            if (line.starts_with("LIST") || line.starts_with("NLST"))
                return "451 Requested action aborted: local error in processing.\r\n";
            if (line.starts_with("RNFR") || line.starts_with("RNTO")) {
                std::lock_guard lock(mutex);
                renames.push_back(line);
                return line.starts_with("RNFR") ? "350 Ready\r\n" : "250 Renamed\r\n";
            }
            return "500 Unknown command\r\n";
        });
    auto info = server.serverInfo();
    registerBuiltinClients();

    KvMetadata source("/incoming/report.txt");
    source.protocolType = ProtocolType::FTP;
    source.serverID = info->serverID;
    KvMetadata folder("/archive");
    folder.isDir = true;
    folder.protocolType = ProtocolType::FTP;
    folder.serverID = info->serverID;

    FileTransferTaskManager manager;
    auto prompts = std::make_shared<ScriptedPrompts>();
    manager.setUserPrompts(prompts);
    auto task = makeTask<MoveTask>(info, source, info, folder);
    manager.addTask(task);
    manager.start();
    runToEnd(manager);
    KvConnectionPool::clearConnectionPool();

    {
        std::lock_guard lock(mutex);
        EXPECT_TRUE(renames.empty())
            << "the move ran although the target could not be checked: " << renames.front();
    }
    EXPECT_TRUE(prompts->conflictsAsked.empty());
    EXPECT_EQ(task->state(), TransferTaskState::Failed);
    ASSERT_TRUE(task->error().has_value());
    EXPECT_EQ(task->error()->domain, "FTP") << task->error()->describe();
}
