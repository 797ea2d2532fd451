#include "clients/Clients.h"

#include <mutex>

namespace quillon {

void registerBuiltinClients() {
    static std::once_flag once;
    std::call_once(once, [] {
        // Each client adds its registration line here as it is written.
    });
}

}  // namespace quillon
