#pragma once

namespace quillon {
// Registers every storage client built into this program with WrapperProxy. Idempotent.
void registerBuiltinClients();
}  // namespace quillon
