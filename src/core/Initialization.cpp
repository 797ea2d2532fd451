#include "core/Initialization.h"

#include "core/AppPreference.h"

namespace quillon::Initialization {

void initializeApp() {
    auto& prefs = AppPreference::sharedAppPreference();
    prefs.setValue(PlistValue(true), PrefKey::InitializeApp);
    (void)prefs.save();
}

bool isInitialized() {
    return AppPreference::sharedAppPreference().boolForKey(PrefKey::InitializeApp);
}

}  // namespace quillon::Initialization
