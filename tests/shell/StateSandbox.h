#pragma once

#include "TempTree.h"

#include <QString>

#include <memory>

// A private home for one test: settings, data and runtime folders in a temporary tree, the
// device token in a file there (never the desktop's keyring), and the bridge kept idle. Each
// instance starts from a fresh AppState.
class StateSandbox {
public:
    StateSandbox();
    ~StateSandbox();
    StateSandbox(const StateSandbox&) = delete;
    StateSandbox& operator=(const StateSandbox&) = delete;

    // Stores a device token, so that the next AppState starts paired.
    void storeToken();
    bool hasToken() const;
    // A real folder inside the sandbox.
    QString folder(const QString& name) const;
    QString runtimeDirectory() const;
    const TempTree& tree() const { return *m_tree; }

private:
    std::unique_ptr<TempTree> m_tree;
};
