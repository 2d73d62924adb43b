#pragma once

#include <QProcessEnvironment>
#include <QString>
#include <QTemporaryDir>

// A throwaway home for companion processes: their own HOME and XDG folders, so that a test
// never reads or changes the user's settings, shared folders or device token. Without a session
// bus (the default) the token can only go to the file in the sandbox's data folder; a test that
// runs inside a private session with its own secret service may hand that bus on instead.
class CompanionSandbox {
public:
    enum class Bus { None, Inherited };

    explicit CompanionSandbox(Bus bus = Bus::None);
    CompanionSandbox(const CompanionSandbox&) = delete;
    CompanionSandbox& operator=(const CompanionSandbox&) = delete;

    bool isValid() const { return m_valid; }
    QString root() const { return m_dir.path(); }
    QString home() const;
    QString configHome() const;
    QString dataHome() const;
    QString runtimeDir() const;

    // Where the companion keeps its settings and, without a secret service, its token.
    QString settingsFile() const;
    QString tokenFile() const;

    // QUILLMAR_API for every process started from here on; an empty string unsets it.
    void setApiBase(const QString& apiBase) { m_apiBase = apiBase; }
    // Another variable for every process started from here on (a proxy, an authority).
    void setVariable(const QString& name, const QString& value) { m_extra.insert(name, value); }
    void unsetVariable(const QString& name) { m_extra.remove(name); }

    QProcessEnvironment environment() const;

private:
    QTemporaryDir m_dir;
    Bus m_bus;
    bool m_valid = false;
    QString m_apiBase;
    QProcessEnvironment m_extra;
};
