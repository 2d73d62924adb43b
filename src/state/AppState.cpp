#include "AppState.h"

#include "AccessPolicy.h"
#include "ActivityLog.h"
#include "AppIdentity.h"
#include "AppSettings.h"
#include "ApprovalPrompt.h"
#include "BridgeClient.h"
#include "CompanionError.h"
#include "Confinement.h"
#include "DeviceName.h"
#include "FileService.h"
#include "FileWorker.h"
#include "FolderStore.h"
#include "Keychain.h"
#include "PairingClient.h"
#include "Platform.h"

#include <QLoggingCategory>
#include <QPointer>
#include <QPromise>
#include <QThreadPool>

#include <QCoroFuture>

Q_LOGGING_CATEGORY(lcState, "quillmar.state", QtWarningMsg)

namespace {

// The state the running application created; see shared().
AppState* current = nullptr;

QCoro::Task<bool> refuse() {
    co_return false;
}

QString describeFailure(const std::exception& error) {
    if (const auto* companionError = dynamic_cast<const CompanionError*>(&error)) {
        return companionError->message();
    }
    return QString::fromUtf8(error.what());
}

// The claim used the code up, so whatever failed, only a new code can pair now.
QString unsavedPairingText(const KeychainError& error) {
    if (error.kind() == KeychainError::Kind::Locked) {
        return QStringLiteral("The code worked, but the pairing couldn't be saved: your keyring "
                              "is locked. Unlock it and pair again with a new code; this one is "
                              "used up.");
    }
    return QStringLiteral("The code worked, but the pairing couldn't be saved: %1. Pair again "
                          "with a new code once that is fixed; this one is used up.")
        .arg(error.reason());
}

} // namespace

AppState::AppState(AppServices services, AppOptions options, QObject* parent)
    : QObject(parent), m_services(std::move(services)), m_options(options) {
    if (current) {
        qCWarning(lcState) << "a second application state replaces the current one";
    }
    current = this;

    // Present but empty still counts: the variable is taken as it stands.
    m_apiBase = qEnvironmentVariableIsSet("QUILLMAR_API") ? qEnvironmentVariable("QUILLMAR_API")
                                                          : defaultApiBase();
    m_bridge = std::make_unique<BridgeClient>(static_cast<BridgeCallHandler*>(this));
    m_activity = std::make_unique<ActivityLog>();
    m_requireWriteApproval = AppSettings::boolean(approvalSettingKey()).value_or(true);
    m_paused = AppSettings::boolean(pausedSettingKey()).value_or(false);
    if (m_paused) {
        m_statusText = pausedStatusText();
    }
    m_folders = FolderStore::activate(FolderStore::load());

    QPointer<AppState> self(this);
    m_worker = std::make_unique<FileWorker>(
        FileWorker::defaultProgram(), [self](QString path, qint64 bytes) -> QCoro::Task<bool> {
            return self ? self->requestWriteApproval(std::move(path), bytes) : refuse();
        });
    m_worker->setFolders(m_folders);
    m_worker->setOwnFiles(AppIdentity::ownFiles());
    m_worker->setKernelConfinement(Confinement::wanted());
    m_worker->setVersionStore(&m_versions);
    connect(m_worker.get(), &FileWorker::confinementChanged, this, [this] {
        emit fileAccessChanged();
        notify();
    });
    connect(m_bridge.get(), &BridgeClient::problemChanged, this, [this] {
        emit connectionProblemChanged();
        notify();
    });
    connect(m_bridge.get(), &BridgeClient::statusChanged, this,
            [this](bool online, const QString& text) {
                setOnline(online);
                // Closing the bridge for a pause reports "Disconnected"; the status stays
                // "Paused".
                setStatusText(m_paused ? pausedStatusText() : text);
                notify();
            });

    if (!m_options.pairingUsed) {
        return;
    }
    const TokenLookup stored = QCoro::waitFor(m_services.keychain.loadToken());
    m_tokenUnreadable = stored.error;
    if (stored.token) {
        m_paired = true;
        connectBridge(*stored.token);
    }
}

AppState::~AppState() {
    if (current == this) {
        current = nullptr;
    }
    // Listeners may be gone already; the final "Disconnected" goes to nobody.
    QObject::disconnect(m_bridge.get(), nullptr, this, nullptr);
    m_bridge->disconnect();
}

AppState& AppState::shared() {
    if (!current) {
        qFatal("AppState::shared() before the application created its state");
    }
    return *current;
}

QString AppState::defaultApiBase() {
    return QStringLiteral("https://quillmar.app");
}

QString AppState::approvalSettingKey() {
    return QStringLiteral("require_write_approval");
}

QString AppState::pausedSettingKey() {
    return QStringLiteral("sharing_paused");
}

QString AppState::pausedStatusText() {
    return QStringLiteral("Paused");
}

void AppState::connectBridge(const QString& token) {
    if (m_options.bridgeEnabled && m_options.pairingUsed && !m_paused) {
        m_bridge->connect(token, m_apiBase);
    }
}

void AppState::notify() {
    emit changed();
}

void AppState::pair(const QString& code) {
    // Runs by itself; the outcome arrives through the fields and `changed`.
    pairAndWait(code);
}

QCoro::Task<> AppState::pairAndWait(QString code) {
    setPairing(true);
    setPairError(std::nullopt);
    notify();

    QPointer<AppState> self(this);
    const QString deviceName = DeviceName::current();
    std::optional<QString> token;
    QString failure;
    try {
        const ClaimResponse response = co_await PairingClient::claim(m_apiBase, code, deviceName);
        token = response.device_token;
    } catch (const std::exception& error) {
        failure = describeFailure(error);
    }
    if (!self) {
        co_return;
    }
    if (token) {
        const std::optional<KeychainError> unsaved = co_await m_services.keychain.saveToken(*token);
        if (!self) {
            co_return;
        }
        if (unsaved) {
            setPairing(false);
            setPairError(unsavedPairingText(*unsaved));
            notify();
            co_return;
        }
        setTokenUnreadable(std::nullopt);
        setPaired(true);
        setPairing(false);
        notify();
        connectBridge(*token);
    } else {
        setPairing(false);
        setPairError(failure);
        notify();
    }
}

void AppState::unpair() {
    // The deletion finishes in the background; later token operations queue behind it.
    unpairAndWait();
}

QCoro::Task<std::optional<KeychainError>> AppState::unpairAndWait() {
    const QPointer<AppState> self(this);
    m_bridge->disconnect();
    QCoro::Task<std::optional<KeychainError>> deletion = m_services.keychain.deleteToken();
    setPaired(false);
    setOnline(false);
    setStatusText(m_paused ? pausedStatusText() : QStringLiteral("Not connected"));
    notify();
    const std::optional<KeychainError> failure = co_await deletion;
    // A token the store kept leaves the pairing as unknown as a locked keyring at start does.
    if (self && self->m_tokenUnreadable != failure) {
        setTokenUnreadable(failure);
        notify();
    }
    co_return failure;
}

void AppState::retryKeyring() {
    // Runs by itself; the outcome arrives through the fields and `changed`.
    reloadFromStore();
}

void AppState::addFolder() {
    // Runs by itself; the folder arrives through the fields and `changed`.
    addFolderAndWait();
}

QCoro::Task<std::optional<SharedFolder>> AppState::addFolderAndWait() {
    const std::shared_ptr<FolderChooser> chooser = m_services.folderChooser;
    if (!chooser) {
        qCWarning(lcState) << "no folder chooser: nothing can be chosen";
        co_return std::nullopt;
    }
    // The chooser answers later: a second click meanwhile must not open a second one.
    if (m_choosingFolder) {
        co_return std::nullopt;
    }
    m_choosingFolder = true;
    const QPointer<AppState> self(this);
    const std::optional<QString> chosen = co_await FolderStore::choosePath(*chooser);
    if (!self) {
        co_return std::nullopt;
    }
    m_choosingFolder = false;
    if (!chosen) {
        co_return std::nullopt;
    }
    // Named against the folders shared now: the list may have changed while the user chose.
    const SharedFolder added = addFolderAt(*chosen);
    co_return added;
}

SharedFolder AppState::addFolderAt(const QString& path, bool readOnly) {
    SharedFolder record = FolderStore::makeRecord(path, m_folders);
    record.readOnly = readOnly;
    QList<SharedFolder> folders = m_folders;
    folders.append(record);
    setFolders(folders);
    FolderStore::save(m_folders);
    notify();
    return record;
}

void AppState::removeFolder(const SharedFolder& folder) {
    QList<SharedFolder> folders = m_folders;
    folders.removeIf([&](const SharedFolder& f) { return f.id == folder.id; });
    setFolders(folders);
    FolderStore::save(m_folders);
    notify();
}

void AppState::removeFolderById(const QString& id) {
    for (const SharedFolder& folder : std::as_const(m_folders)) {
        if (folder.idString() == id) {
            removeFolder(folder);
            return;
        }
    }
}

void AppState::storeRequireWriteApproval(bool value) {
    setRequireWriteApproval(value);
    AppSettings::setBoolean(approvalSettingKey(), value);
    notify();
}

void AppState::setFolderReadOnly(const SharedFolder& folder, bool readOnly) {
    QList<SharedFolder> folders = m_folders;
    bool changed = false;
    for (SharedFolder& each : folders) {
        if (each.id == folder.id && each.readOnly != readOnly) {
            each.readOnly = readOnly;
            changed = true;
        }
    }
    if (!changed) {
        return;
    }
    setFolders(folders);
    FolderStore::save(m_folders);
    notify();
}

void AppState::setFolderReadOnlyById(const QString& id, bool readOnly) {
    for (const SharedFolder& folder : std::as_const(m_folders)) {
        if (folder.idString() == id) {
            setFolderReadOnly(folder, readOnly);
            return;
        }
    }
}

void AppState::setPaused(bool paused) {
    AppSettings::setBoolean(pausedSettingKey(), paused);
    applyPaused(paused);
    notify();
}

void AppState::applyPaused(bool value) {
    if (m_paused == value) {
        return;
    }
    m_paused = value;
    emit pausedChanged();
    if (value) {
        m_bridge->disconnect();
        setOnline(false);
        setStatusText(pausedStatusText());
        return;
    }
    setStatusText(QStringLiteral("Not connected"));
    if (m_paired && !m_bridge->token().isEmpty()) {
        connectBridge(m_bridge->token());
    } else if (m_paired) {
        // Paused since the start: the bridge has not been given the token yet.
        reloadFromStore();
    }
}

QCoro::Task<ToolResult>
AppState::runAgentCall(QString method, QJsonObject params, QString agent,
                       std::function<QCoro::Task<bool>(QString, qint64)> approver) {
    const QPointer<AppState> self(this);
    ActivityEntry entry;
    entry.time = QDateTime::currentDateTimeUtc();
    entry.agent = agent;
    entry.tool = ActivityEntry::shortened(method);
    entry.subject = ActivityEntry::shortened(params
                                                 .value(method == u"local_search_files"
                                                            ? QStringLiteral("query")
                                                            : QStringLiteral("path"))
                                                 .toString());
    if (m_paused) {
        entry.outcome = ActivityEntry::Outcome::Failed;
        entry.error =
            QStringLiteral("Sharing is paused on the user's ") + Platform::device() + u'.';
        const ToolResult refused(FileService::errorObject(entry.error));
        m_activity->append(std::move(entry));
        co_return refused;
    }
    // Declared where it is awaited: GCC 12 may lose a value co_awaited into an existing
    // variable inside a branch.
    QCoro::Task<ToolResult> running =
        m_worker->run(std::move(method), std::move(params), std::move(approver));
    ToolResult result = co_await running;
    if (!self) {
        co_return result;
    }
    const FileWorker::CallReport& report = m_worker->lastCall();
    if (!result.isJson()) {
        const QJsonValue error = result.toObject().value(QStringLiteral("error"));
        if (error.isString()) {
            entry.outcome =
                report.declined ? ActivityEntry::Outcome::Declined : ActivityEntry::Outcome::Failed;
            entry.error = ActivityEntry::shortened(error.toString());
        }
    }
    entry.bytes = report.bytes;
    entry.items = report.items;
    entry.versionId = report.versionId;
    entry.versionNote = report.versionNote;
    m_activity->append(std::move(entry));
    co_return result;
}

void AppState::restoreVersion(const QString& versionId) {
    // Runs by itself; restoreFinished tells the outcome.
    restoreVersionAndWait(versionId);
}

QCoro::Task<VersionStore::Restored> AppState::restoreVersionAndWait(QString versionId) {
    const QPointer<AppState> self(this);
    // The user's own action: any shared folder may be written back, read-only ones included.
    QList<SharedFolder> folders = m_folders;
    for (SharedFolder& folder : folders) {
        folder.readOnly = false;
    }
    auto promise = std::make_shared<QPromise<VersionStore::Restored>>();
    QFuture<VersionStore::Restored> restoring = promise->future();
    promise->start();
    QThreadPool::globalInstance()->start([promise, folders, versionId,
                                          directory = m_versions.directory(),
                                          budget = m_versions.budget()] {
        VersionStore store(directory, budget);
        promise->addResult(
            store.restore(versionId, AccessPolicy(folders, AppIdentity::ownFiles())));
        promise->finish();
    });
    const VersionStore::Restored restored = co_await restoring;
    if (self) {
        if (restored.ok) {
            m_activity->markRestored(versionId);
        }
        emit restoreFinished(versionId, restored.ok, restored.message);
    }
    co_return restored;
}

QCoro::Task<bool> AppState::requestWriteApproval(QString path, qint64 bytes) {
    if (!m_requireWriteApproval) {
        co_return true;
    }
    // Kept alive by this call, whatever happens to the state while the user answers.
    const std::shared_ptr<ApprovalPrompt> prompt = m_services.approvalPrompt;
    if (!prompt) {
        qCDebug(lcState) << "a write was refused: there is nobody to ask";
        co_return false;
    }
    co_return co_await prompt->ask(std::move(path), bytes);
}

QCoro::Task<> AppState::reloadFromStore() {
    const QPointer<AppState> self(this);
    setRequireWriteApproval(AppSettings::boolean(approvalSettingKey()).value_or(true));
    applyPaused(AppSettings::boolean(pausedSettingKey()).value_or(false));
    const QList<SharedFolder> stored = FolderStore::activate(FolderStore::load());
    if (stored != m_folders) {
        setFolders(stored);
    }
    const TokenLookup lookup = co_await m_services.keychain.loadToken();
    if (!self) {
        co_return;
    }
    const std::optional<QString>& token = lookup.token;
    if (lookup.error) {
        // An unreadable store says nothing new about a pairing in use: its connection goes on.
        if (!m_paired) {
            setTokenUnreadable(lookup.error);
        }
    } else if (token && (!m_paired || *token != m_bridge->token())) {
        setPaired(true);
        connectBridge(*token);
    } else if (!token && m_paired) {
        m_bridge->disconnect();
        setPaired(false);
        setOnline(false);
        setStatusText(m_paused ? pausedStatusText() : QStringLiteral("Not connected"));
    }
    if (!lookup.error) {
        setTokenUnreadable(std::nullopt);
    }
    notify();
}

QJsonObject AppState::describe() const {
    return QJsonObject{{QStringLiteral("paired"), m_paired},
                       {QStringLiteral("online"), m_online},
                       {QStringLiteral("status"), m_statusText},
                       {QStringLiteral("problem"), connectionProblem()},
                       {QStringLiteral("file_access"), fileAccessText()},
                       {QStringLiteral("folders"), m_folders.size()},
                       {QStringLiteral("ask_before_writing"), m_requireWriteApproval},
                       {QStringLiteral("paused"), m_paused}};
}

QCoro::Task<ToolResult> AppState::runCall(QString method, QJsonObject params) {
    const QPointer<AppState> self(this);
    // The socket the call came over, not the one open when the worker asks: the bridge may have
    // reconnected while the call waited.
    const quint64 connection = m_bridge->connectionId();
    QCoro::Task<ToolResult> running = runAgentCall(
        std::move(method), std::move(params), QString(),
        [self, connection](QString path, qint64 bytes) -> QCoro::Task<bool> {
            return self ? self->approveBridgeWrite(connection, std::move(path), bytes) : refuse();
        });
    ToolResult result = co_await running;
    co_return result;
}

QCoro::Task<bool> AppState::approveBridgeWrite(quint64 connection, QString path, qint64 bytes) {
    const QPointer<AppState> self(this);
    const bool allowed = co_await requestWriteApproval(std::move(path), bytes);
    // The service asked over a socket that has gone since: nobody waits for this write any
    // more, and a late "Allow" must not make it happen.
    const bool stillWanted = self && connection != 0 && m_bridge->connectionId() == connection;
    const bool write = allowed && stillWanted;
    co_return write;
}

QString AppState::connectionProblem() const {
    if (!m_paired || m_online || !m_bridge) {
        return QString();
    }
    return m_bridge->problem().text();
}

QString AppState::keyringProblem() const {
    if (!m_tokenUnreadable) {
        return QString();
    }
    if (m_tokenUnreadable->kind() == KeychainError::Kind::Locked) {
        return QStringLiteral("Your keyring is locked, so the companion can't read its "
                              "pairing. Unlock the keyring, then choose Try Again.");
    }
    return QStringLiteral("The companion can't read its pairing: %1. Choose Try Again once "
                          "that is fixed.")
        .arg(m_tokenUnreadable->reason());
}

QString AppState::fileAccessText() const {
    if (m_worker && !m_worker->programFound()) {
        return QStringLiteral("File access: unavailable (the companion's file tools are missing: "
                              "%1)")
            .arg(m_worker->program());
    }
    return m_worker ? m_worker->confinement().text() : Confinement::expected().text();
}

void AppState::setRequireWriteApproval(bool value) {
    if (m_requireWriteApproval != value) {
        m_requireWriteApproval = value;
        emit requireWriteApprovalChanged();
    }
}

void AppState::setOnline(bool value) {
    if (m_online != value) {
        m_online = value;
        emit onlineChanged();
        emit connectionProblemChanged();
    }
}

void AppState::setPaired(bool value) {
    if (m_paired != value) {
        m_paired = value;
        emit pairedChanged();
        emit connectionProblemChanged();
    }
}

void AppState::setStatusText(const QString& value) {
    if (m_statusText != value) {
        m_statusText = value;
        emit statusTextChanged();
    }
}

void AppState::setFolders(const QList<SharedFolder>& value) {
    m_folders = value;
    if (m_worker) {
        m_worker->setFolders(value);
    }
    emit foldersChanged();
}

void AppState::setPairing(bool value) {
    if (m_pairing != value) {
        m_pairing = value;
        emit pairingChanged();
    }
}

void AppState::setPairError(const std::optional<QString>& value) {
    if (m_pairError != value) {
        m_pairError = value;
        emit pairErrorChanged();
    }
}

void AppState::setTokenUnreadable(const std::optional<KeychainError>& value) {
    if (m_tokenUnreadable != value) {
        m_tokenUnreadable = value;
        emit keyringProblemChanged();
    }
}
