#pragma once
// What the real-server fixtures share: a port, starting with retries, waiting for the listener,
// paths and records of the served folder, and the processes a server forks.

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <memory>
#include <regex>
#include <string>
#include <string_view>
#include <vector>

#include "core/ServerInfo.h"
#include "support/ChildProcess.h"

namespace quillon::test {

// A listening TCP socket on `host`:`port` (0: any free port), or -1; and the port it is bound to.
int listenOn(const char* host, int port);
int boundPort(int fd);
// Sends all of `bytes` unless the peer is gone.
void sendAll(int fd, std::string_view bytes);
// A loopback TCP port free at the moment of asking; another program may take it before use.
int freePort();
// Whether process `pid` holds the socket that listens on 127.0.0.1:`port`.
bool listensOn(pid_t pid, int port);

// Runs `launch` until it starts the server, five times at most: a port found free may be taken by
// another program before the server binds it. A reason holding "cannot run here" ends the tries.
// The last reason goes to `whyNot`, or without it is reported as a failure of the running test
// (never a skip).
bool launchWithRetries(std::string_view server, const std::function<bool(std::string*)>& launch,
                       std::string* whyNot);

// Starts `argv` in a process group of its own, which dies with the test program, its output
// appended to `logPath`; -1 when it cannot fork.
pid_t spawnGroup(const std::vector<std::string>& argv, const std::string& logPath);
// Waits until the forked `pid` holds the listener on `port` and `answers()` holds; false, with
// the reason, when it exits first (`pid` becomes -1) or does not answer within `limit`.
bool awaitListener(pid_t& pid, int port, const std::function<bool()>& answers,
                   std::chrono::seconds limit, std::string* whyNot);
// Ends process group `group`: SIGTERM, its leader reaped within `grace`, then SIGKILL for what
// is left (session processes that outlive their master). `group` becomes -1.
void stopGroup(pid_t& group, std::chrono::seconds grace);
// Starts `argv` (which logs to `logPath`) and waits until the log matches `ready`; false, with
// the log in the reason, when it does not.
bool startLogged(std::unique_ptr<ChildProcess>& process, const std::vector<std::string>& argv,
                 const std::string& logPath, const std::regex& ready, int port,
                 std::string* whyNot);

struct ProcessEntry {
    pid_t pid = 0;
    pid_t parent = 0;
    char state = '?';
    std::string name;  // the command name of /proc/<pid>/stat
};
// Every process of the machine, read from /proc.
std::vector<ProcessEntry> processes();
// The processes below `pid`, deepest first.
std::vector<pid_t> descendantsOf(pid_t pid);

// Writes a configuration or data file with the given permissions.
void writeText(const std::string& path, const std::string& text, mode_t mode = 0644);
// Makes `dir` reachable by the servers' unprivileged users and a world-writable folder `name`
// in it, which it returns.
std::string makeServedFolder(const std::string& dir, const std::string& name);

// `rel` ("/a/b" or "a/b") below `root`, and below "/".
std::string pathBelow(const std::string& root, std::string_view rel);
std::string slashPath(std::string_view rel);
// A record of a server on 127.0.0.1:`port`.
ServerInfoPtr loopbackRecord(std::int32_t protocol, int port, const std::string& user,
                             const std::string& password);

}  // namespace quillon::test
