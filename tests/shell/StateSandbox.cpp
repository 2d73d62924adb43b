#include "StateSandbox.h"

#include "AppState.h"
#include "Keychain.h"

#include <QCoroTask>
#include <QFile>

StateSandbox::StateSandbox() : m_tree(std::make_unique<TempTree>()) {
    m_services.keychain = keychain();
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(m_tree->dir(QStringLiteral("config"))));
    qputenv("XDG_DATA_HOME", QFile::encodeName(m_tree->dir(QStringLiteral("data"))));
    m_tree->dir(QStringLiteral("runtime"));
    m_tree->chmod(QStringLiteral("runtime"), 0700);
    qputenv("XDG_RUNTIME_DIR", QFile::encodeName(runtimeDirectory()));
    qputenv("QUILLMAR_API", "http://127.0.0.1:1");
    qunsetenv("QUILLMAR_SHOW_ONBOARDING");
}

StateSandbox::~StateSandbox() {
    endState();
}

Keychain StateSandbox::keychain() {
    return Keychain(Keychain::Backend::TokenFile);
}

void StateSandbox::setApprovalPrompt(std::shared_ptr<ApprovalPrompt> prompt) {
    m_services.approvalPrompt = std::move(prompt);
}

void StateSandbox::setFolderChooser(std::shared_ptr<FolderChooser> chooser) {
    m_services.folderChooser = std::move(chooser);
}

AppState& StateSandbox::state() {
    if (!m_state) {
        // The bridge stays idle.
        m_state = std::make_unique<AppState>(m_services, AppOptions{false, true});
    }
    return *m_state;
}

void StateSandbox::endState() {
    m_state.reset();
}

void StateSandbox::storeToken() {
    QCoro::waitFor(keychain().saveToken(QStringLiteral("tok-shell-test")));
}

bool StateSandbox::hasToken() const {
    return QCoro::waitFor(keychain().loadToken()).token.has_value();
}

QString StateSandbox::folder(const QString& name) const {
    return m_tree->dir(QStringLiteral("folders/") + name);
}

QString StateSandbox::runtimeDirectory() const {
    return m_tree->path(QStringLiteral("runtime"));
}
