#include "StateSandbox.h"

#include "AppState.h"
#include "Keychain.h"

#include <QCoroTask>
#include <QFile>

StateSandbox::StateSandbox() : m_tree(std::make_unique<TempTree>()) {
    Keychain::setBackend(Keychain::Backend::TokenFile);
    AppState::setBridgeEnabled(false);
    AppState::resetShared();
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(m_tree->dir(QStringLiteral("config"))));
    qputenv("XDG_DATA_HOME", QFile::encodeName(m_tree->dir(QStringLiteral("data"))));
    m_tree->dir(QStringLiteral("runtime"));
    m_tree->chmod(QStringLiteral("runtime"), 0700);
    qputenv("XDG_RUNTIME_DIR", QFile::encodeName(runtimeDirectory()));
    qputenv("QUILLMAR_API", "http://127.0.0.1:1");
    qunsetenv("QUILLMAR_SHOW_ONBOARDING");
}

StateSandbox::~StateSandbox() {
    AppState::resetShared();
}

void StateSandbox::storeToken() {
    QCoro::waitFor(Keychain::saveToken(QStringLiteral("tok-shell-test")));
}

bool StateSandbox::hasToken() const {
    return QCoro::waitFor(Keychain::loadToken()).token.has_value();
}

QString StateSandbox::folder(const QString& name) const {
    return m_tree->dir(QStringLiteral("folders/") + name);
}

QString StateSandbox::runtimeDirectory() const {
    return m_tree->path(QStringLiteral("runtime"));
}
