#pragma once

#include "AppServices.h"
#include "TempTree.h"

#include <QString>

#include <memory>

class AppState;

// A private home for one test: settings, data and runtime folders in a temporary tree, the
// device token in a file there (never the desktop's keyring), and the bridge kept idle. Makes
// its own AppState, with the prompt and chooser the test gives it.
class StateSandbox {
public:
    StateSandbox();
    ~StateSandbox();
    StateSandbox(const StateSandbox&) = delete;
    StateSandbox& operator=(const StateSandbox&) = delete;

    // For the states made from now on; none by default.
    void setApprovalPrompt(std::shared_ptr<ApprovalPrompt> prompt);
    void setFolderChooser(std::shared_ptr<FolderChooser> chooser);
    // The state, made from what is stored on first use.
    AppState& state();
    // Ends the state, as quitting does; the next state() starts afresh from what is stored.
    void endState();
    // The token store the states use: the file in the sandbox.
    static Keychain keychain();

    // Stores a device token, so that the next AppState starts paired.
    void storeToken();
    bool hasToken() const;
    // A real folder inside the sandbox.
    QString folder(const QString& name) const;
    QString runtimeDirectory() const;
    const TempTree& tree() const { return *m_tree; }

private:
    std::unique_ptr<TempTree> m_tree;
    AppServices m_services;
    std::unique_ptr<AppState> m_state;
};
