#include "core/HostKeyPrompt.h"

#include <mutex>

namespace quillon::HostKeyPrompt {

namespace {
std::mutex& askerMutex() {
    static std::mutex m;
    return m;
}
Asker& installed() {
    static Asker asker;
    return asker;
}
}  // namespace

void setAsker(Asker asker) {
    std::lock_guard lock(askerMutex());
    installed() = std::move(asker);
}

HostKeyAnswer ask(const HostKeyQuestion& question) {
    Asker asker;
    {
        std::lock_guard lock(askerMutex());
        asker = installed();
    }
    return asker ? asker(question) : HostKeyAnswer::Refuse;
}

}  // namespace quillon::HostKeyPrompt
