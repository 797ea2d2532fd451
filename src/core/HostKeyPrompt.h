#pragma once
// HostKeyPrompt: the question a client asks before it trusts a server's host key that
// ~/.ssh/known_hosts does not hold (or holds a different key for). The face of the program
// installs the asker: the command line asks on the terminal or applies its flag, a window shows a
// dialog, tests script the answer. Without an asker every such key is refused.

#include <functional>
#include <string>

namespace quillon {

struct HostKeyQuestion {
    std::string host;         // as known_hosts names it: "host" for port 22, else "[host]:port"
    std::string keyType;      // "ssh-ed25519", "ssh-rsa", ...
    std::string fingerprint;  // "SHA256:" and the unpadded Base64 of the key's SHA-256
    bool changed = false;     // known_hosts holds another key for this host
};

enum class HostKeyAnswer { Refuse, Accept };

namespace HostKeyPrompt {
// The asker is called on the thread that connects (any thread) and may block until answered.
using Asker = std::function<HostKeyAnswer(const HostKeyQuestion&)>;
void setAsker(Asker asker);
// The installed asker's answer; Refuse when none is installed.
HostKeyAnswer ask(const HostKeyQuestion& question);
}  // namespace HostKeyPrompt

}  // namespace quillon
