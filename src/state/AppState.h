#pragma once

#include "AppOptions.h"
#include "AppServices.h"
#include "BridgeCallHandler.h"
#include "KeychainError.h"
#include "SharedFolder.h"
#include "ToolResult.h"
#include "VersionStore.h"

#include <QCoroTask>
#include <QJsonObject>
#include <QList>
#include <QObject>
#include <QString>

#include <functional>
#include <memory>
#include <optional>

class ActivityLog;
class BridgeClient;
class FileWorker;

// The one observable model of the running companion: pairing, the bridge's status, the shared
// folders and the write-approval setting. Every change is announced twice: through the property
// signals (the window) and through the single `changed` signal (the tray menu).
class AppState : public QObject, private BridgeCallHandler {
    Q_OBJECT
    Q_PROPERTY(bool online READ online NOTIFY onlineChanged)
    Q_PROPERTY(bool paired READ paired NOTIFY pairedChanged)
    Q_PROPERTY(QString statusText READ statusText NOTIFY statusTextChanged)
    Q_PROPERTY(bool pairing READ pairing NOTIFY pairingChanged)
    Q_PROPERTY(QString pairError READ pairErrorText NOTIFY pairErrorChanged)
    Q_PROPERTY(bool hasPairError READ hasPairError NOTIFY pairErrorChanged)
    Q_PROPERTY(bool requireWriteApproval READ requireWriteApproval WRITE setRequireWriteApproval
                   NOTIFY requireWriteApprovalChanged)
    Q_PROPERTY(QString apiBase READ apiBase CONSTANT)
    Q_PROPERTY(QString fileAccessText READ fileAccessText NOTIFY fileAccessChanged)
    Q_PROPERTY(QString connectionProblem READ connectionProblem NOTIFY connectionProblemChanged)
    Q_PROPERTY(QString keyringProblem READ keyringProblem NOTIFY keyringProblemChanged)
    Q_PROPERTY(bool paused READ paused NOTIFY pausedChanged)

public:
    // Initialised from settings, token store and environment. The store may first ask the user
    // to unlock it; the constructor waits for its answer, bounded by the store's time-out.
    // Becomes the process's current state until it is destroyed.
    explicit AppState(AppServices services, AppOptions options = {}, QObject* parent = nullptr);
    ~AppState() override;

    // The state the running application created (its entry point, the window's singleton).
    static AppState& shared();

    // Used when QUILLMAR_API is not set.
    static QString defaultApiBase();
    static QString approvalSettingKey();
    static QString pausedSettingKey();
    // The status text while sharing is paused.
    static QString pausedStatusText();

    bool online() const { return m_online; }
    bool paired() const { return m_paired; }
    QString statusText() const { return m_statusText; }
    const QList<SharedFolder>& folders() const { return m_folders; }
    bool pairing() const { return m_pairing; }
    std::optional<QString> pairError() const { return m_pairError; }
    QString pairErrorText() const { return m_pairError.value_or(QString()); }
    bool hasPairError() const { return m_pairError.has_value(); }
    bool requireWriteApproval() const { return m_requireWriteApproval; }
    // Announces the change only; whoever flips the setting also stores it.
    void setRequireWriteApproval(bool value);
    QString apiBase() const { return m_apiBase; }
    // How the file tools are kept inside the shared folders, in one line for the user.
    QString fileAccessText() const;
    // Why the bridge is not connected, in plain words; empty while connected or not paired.
    QString connectionProblem() const;
    // Set while unpaired because the token store could not be read (a locked keyring): whether
    // this computer is paired is then unknown.
    const std::optional<KeychainError>& tokenUnreadable() const { return m_tokenUnreadable; }
    // The same for the window, as a sentence that says what to do; empty when the store was read.
    QString keyringProblem() const;
    // Sharing is paused: the bridge stays closed until it is resumed, even across restarts.
    bool paused() const { return m_paused; }

    // Claims `code` in the background; `pairing`, then `paired` or `pairError` tell the outcome.
    Q_INVOKABLE void pair(const QString& code);
    // The same, awaitable (the command line waits for the outcome).
    QCoro::Task<> pairAndWait(QString code);
    Q_INVOKABLE void unpair();
    // The same, finishing when the token is gone from the store; the store's failure, if any.
    QCoro::Task<std::optional<KeychainError>> unpairAndWait();
    // Reads the token store again, after the user unlocked it.
    Q_INVOKABLE void retryKeyring();
    // Asks the user for a folder through the chooser and shares it.
    Q_INVOKABLE void addFolder();
    // The same, awaitable; the record added, or nothing when no folder was chosen. While the
    // chooser is open, another request adds nothing and asks nothing.
    QCoro::Task<std::optional<SharedFolder>> addFolderAndWait();
    // Shares `path` directly (the command line); returns the record added.
    SharedFolder addFolderAt(const QString& path, bool readOnly = false);
    void removeFolder(const SharedFolder& folder);
    Q_INVOKABLE void removeFolderById(const QString& id);
    // Flips the setting, stores it and emits `changed` (the tray menu and the window's switch).
    Q_INVOKABLE void storeRequireWriteApproval(bool value);
    // Shares the folder read-only (agents may read, never write) or read-write; stored.
    void setFolderReadOnly(const SharedFolder& folder, bool readOnly);
    Q_INVOKABLE void setFolderReadOnlyById(const QString& id, bool readOnly);
    // Pauses or resumes sharing: closes or reopens the bridge; stored.
    Q_INVOKABLE void setPaused(bool paused);

    // Runs one agent call through the confined worker and records it in the activity.
    // `agent` names who asked (empty for the service's agents).
    // `approver`, when given, decides this call's write instead of the user's setting and prompt
    // alone (the bridge also checks that the socket the call came over is still there).
    QCoro::Task<ToolResult>
    runAgentCall(QString method, QJsonObject params, QString agent,
                 std::function<QCoro::Task<bool>(QString, qint64)> approver = {});
    // The agents' recent calls, newest first; in memory only.
    ActivityLog& activity() { return *m_activity; }
    // Where writes keep what they replace.
    VersionStore& versions() { return m_versions; }
    // Puts back the version `versionId` (the user's action, never an agent's), off the main
    // thread; restoreFinished tells the outcome.
    Q_INVOKABLE void restoreVersion(const QString& versionId);
    QCoro::Task<VersionStore::Restored> restoreVersionAndWait(QString versionId);

    // Reads the settings, the shared folders and the pairing again, after a command changed
    // them; connects or disconnects the bridge when the pairing changed.
    QCoro::Task<> reloadFromStore();
    // The state as other processes (status) are to see it.
    QJsonObject describe() const;

    // True when the write may go ahead: at once when approval is off, else the user's answer.
    QCoro::Task<bool> requestWriteApproval(QString path, qint64 bytes);

    BridgeClient& bridge() { return *m_bridge; }
    // Runs the agents' tool calls in a confined process of their own.
    FileWorker& fileWorker() { return *m_worker; }

signals:
    void onlineChanged();
    void pairedChanged();
    void statusTextChanged();
    void foldersChanged();
    void pairingChanged();
    void pairErrorChanged();
    void requireWriteApprovalChanged();
    void fileAccessChanged();
    void connectionProblemChanged();
    void keyringProblemChanged();
    void pausedChanged();
    void restoreFinished(const QString& versionId, bool ok, const QString& message);
    // After every change made here (the tray menu follows it).
    void changed();

private:
    QCoro::Task<ToolResult> runCall(QString method, QJsonObject params) override;
    void notify();
    void setOnline(bool value);
    void setPaired(bool value);
    void setStatusText(const QString& value);
    void setFolders(const QList<SharedFolder>& value);
    void setPairing(bool value);
    void setPairError(const std::optional<QString>& value);
    void setTokenUnreadable(const std::optional<KeychainError>& value);
    void applyPaused(bool value);
    void connectBridge(const QString& token);
    QCoro::Task<bool> approveBridgeWrite(quint64 connection, QString path, qint64 bytes);

    AppServices m_services;
    AppOptions m_options;
    bool m_online = false;
    bool m_paired = false;
    QString m_statusText = QStringLiteral("Not connected");
    QList<SharedFolder> m_folders;
    bool m_pairing = false;
    bool m_choosingFolder = false;
    std::optional<QString> m_pairError;
    std::optional<KeychainError> m_tokenUnreadable;
    bool m_requireWriteApproval = true;
    QString m_apiBase;
    std::unique_ptr<BridgeClient> m_bridge;
    std::unique_ptr<FileWorker> m_worker;
    bool m_paused = false;
    std::unique_ptr<ActivityLog> m_activity;
    VersionStore m_versions{VersionStore::defaultDirectory(), VersionStore::defaultBudget()};
};
