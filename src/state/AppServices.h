#pragma once

#include "ApprovalPrompt.h"
#include "FolderChooser.h"
#include "Keychain.h"

#include <memory>

// The application state's ways to reach the user and the token store: the desktop shell, the
// headless mode and the commands each pass their own, tests pass fakes.
struct AppServices {
    // Asks before an agent's write; without one every write that needs approval is refused.
    std::shared_ptr<ApprovalPrompt> approvalPrompt;
    // Asks for a folder to share; without one nothing can be chosen.
    std::shared_ptr<FolderChooser> folderChooser;
    // Keeps the device token.
    Keychain keychain;
};
