// quillmar-screenshots [--scale N] [--dark] [--font-scale F] [output-dir]
//
// Walks the window through every page with a throw-away state (temporary settings, token file,
// folders and a local stand-in for the pairing service) and saves one PNG per page. Runs
// offscreen unless QT_QPA_PLATFORM says otherwise. --scale renders at N device pixels per
// pixel, --dark on a dark desktop palette, --font-scale with the desktop font F times the
// default. The output directory defaults to "screenshots" in the current directory.

#include "ActivityLog.h"
#include "AppState.h"
#include "BridgeClient.h"
#include "ClaimStub.h"
#include "FileDescriptor.h"
#include "FileState.h"
#include "FolderChooser.h"
#include "Keychain.h"
#include "OnboardingStep.h"
#include "OnboardingWindowController.h"

#include <QDateTime>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFileInfo>
#include <QFont>
#include <QGuiApplication>
#include <QImage>
#include <QPalette>
#include <QQuickItem>
#include <QQuickWindow>
#include <QTemporaryDir>
#include <QTextStream>
#include <QTimer>

#include <functional>

#include <fcntl.h>
#include <sys/stat.h>

namespace {

const QByteArray okClaim = R"({"device_token":"tok-screenshots","device_id":"dev","org_id":"org"})";

void settle(int milliseconds = 250) {
    QEventLoop loop;
    QTimer::singleShot(milliseconds, &loop, &QEventLoop::quit);
    loop.exec();
}

bool waitFor(const std::function<bool()>& condition, int milliseconds = 10000) {
    QElapsedTimer timer;
    timer.start();
    while (!condition()) {
        if (timer.elapsed() > milliseconds) {
            return false;
        }
        settle(20);
    }
    return true;
}

QQuickItem* findItem(QQuickItem* item, const QString& name) {
    if (!item) {
        return nullptr;
    }
    if (item->objectName() == name) {
        return item;
    }
    const QList<QQuickItem*> children = item->childItems();
    for (QQuickItem* child : children) {
        if (QQuickItem* found = findItem(child, name)) {
            return found;
        }
    }
    return nullptr;
}

class QueueChooser : public FolderChooser {
public:
    QStringList answers;
    QCoro::Task<std::optional<QString>> chooseFolder(QString, QString) override {
        if (answers.isEmpty()) {
            co_return std::nullopt;
        }
        co_return answers.takeFirst();
    }
};

class Tour {
public:
    Tour(OnboardingWindowController& controller, QString outputDir)
        : m_controller(controller), m_outputDir(std::move(outputDir)) {}

    bool shoot(const QString& name) {
        settle();
        const QImage image = m_controller.window()->grabWindow();
        const QString path = QDir(m_outputDir).filePath(name + QStringLiteral(".png"));
        const bool saved = image.save(path);
        QTextStream(stdout) << (saved ? "wrote " : "FAILED ") << path << "\n";
        m_ok = m_ok && saved;
        return saved;
    }

    QQuickItem* item(const QString& name) const {
        return findItem(m_controller.window()->contentItem(), name);
    }

    bool ok() const { return m_ok; }

private:
    OnboardingWindowController& m_controller;
    QString m_outputDir;
    bool m_ok = true;
};

QStringList makeFolders(const QTemporaryDir& home) {
    const QStringList relative = {
        QStringLiteral("alex/Documents/Contracts"),
        QStringLiteral("alex/Clients/Northwind Traders/2024/Quarterly Reports/Board Pack"),
    };
    QStringList paths;
    for (const QString& path : relative) {
        QDir().mkpath(home.filePath(path));
        paths.append(home.filePath(path));
    }
    return paths;
}

// A file in `folder` that an agent then overwrites, its previous contents kept as a real version
// (so that restoring it works); the version's id, empty on failure.
QString keepAndOverwrite(AppState& state, const QString& path, const QString& agentPath) {
    QFile original(path);
    if (!original.open(QIODevice::WriteOnly)) {
        return QString();
    }
    original.write("# Q3 summary\n\nRevenue up 4%.\n");
    original.close();
    FileDescriptor previous(::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC));
    struct stat before {};
    if (!previous.valid() || ::fstat(previous.get(), &before) != 0) {
        return QString();
    }
    const VersionStore::Kept kept =
        state.versions().keep(agentPath, QFile::encodeName(QFileInfo(path).canonicalFilePath()),
                              previous.get(), FileState::of(before));
    QFile rewritten(path);
    if (kept.id.isEmpty() || !rewritten.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        return QString();
    }
    rewritten.write(QByteArray(2210, 'x'));
    rewritten.close();
    struct stat after {};
    if (::stat(QFile::encodeName(path).constData(), &after) != 0) {
        return QString();
    }
    state.versions().finish(kept.id, FileState::of(after));
    return kept.id;
}

// A few minutes of an agent's work in the two folders, the last a write that can be undone;
// returns that write's version id.
QString addActivity(AppState& state, const QStringList& folders) {
    const QDateTime start = QDateTime::currentDateTime().addSecs(-300);
    int second = 0;
    const auto add = [&](const QString& tool, const QString& subject,
                         ActivityEntry::Outcome outcome = ActivityEntry::Outcome::Done) {
        ActivityEntry entry;
        second += 23;
        entry.time = start.addSecs(second);
        entry.tool = tool;
        entry.subject = subject;
        entry.outcome = outcome;
        return entry;
    };
    ActivityEntry listed = add(QStringLiteral("local_list_files"), QStringLiteral("Board Pack"));
    listed.items = 12;
    state.activity().append(listed);
    ActivityEntry read =
        add(QStringLiteral("local_read_file"),
            QStringLiteral(
                "Contracts/2024/Master Services Agreement - Northwind Traders (signed).pdf"));
    read.bytes = 48213;
    state.activity().append(read);
    ActivityEntry searched =
        add(QStringLiteral("local_search_files"), QStringLiteral("quarterly revenue"));
    searched.items = 3;
    state.activity().append(searched);
    ActivityEntry missing =
        add(QStringLiteral("local_read_file"), QStringLiteral("Contracts/2023/old-terms.docx"),
            ActivityEntry::Outcome::Failed);
    missing.error = QStringLiteral(
        "Could not read 'Contracts/2023/old-terms.docx': No such file or directory.");
    state.activity().append(missing);
    ActivityEntry refused =
        add(QStringLiteral("local_write_file"), QStringLiteral("Contracts/notes.txt"),
            ActivityEntry::Outcome::Failed);
    refused.error = QStringLiteral("The folder 'Contracts' is shared read-only.");
    state.activity().append(refused);
    state.activity().append(add(QStringLiteral("local_write_file"),
                                QStringLiteral("Board Pack/draft minutes.md"),
                                ActivityEntry::Outcome::Declined));

    const QString agentPath = QStringLiteral("Board Pack/Q3 summary.md");
    ActivityEntry written = add(QStringLiteral("local_write_file"), agentPath);
    written.bytes = 2210;
    written.versionId =
        keepAndOverwrite(state, folders.value(1) + QStringLiteral("/Q3 summary.md"), agentPath);
    state.activity().append(written);
    return written.versionId;
}

// Agents on this computer, through `quillmar-companion mcp`, beside the service's.
void addLocalAgentActivity(AppState& state) {
    const QDateTime now = QDateTime::currentDateTime();
    const auto add = [&](int secondsAgo, const QString& agent, const QString& tool,
                         const QString& subject) {
        ActivityEntry entry;
        entry.time = now.addSecs(-secondsAgo);
        entry.agent = agent;
        entry.tool = tool;
        entry.subject = subject;
        return entry;
    };
    const QString desktop = QStringLiteral("Local agent: Claude Desktop");
    const QString editor = QStringLiteral("Local agent: Visual Studio Code");
    ActivityEntry searched =
        add(50, desktop, QStringLiteral("local_search_files"), QStringLiteral("*.md"));
    searched.items = 7;
    state.activity().append(searched);
    ActivityEntry read = add(41, desktop, QStringLiteral("local_read_file"),
                             QStringLiteral("Board Pack/Q3 summary.md"));
    read.bytes = 2210;
    state.activity().append(read);
    ActivityEntry escaped = add(30, editor, QStringLiteral("local_read_file"),
                                QStringLiteral("Board Pack/shortcut/.ssh/id_ed25519"));
    escaped.outcome = ActivityEntry::Outcome::Failed;
    escaped.error = QStringLiteral("Path leads outside the shared folders.");
    state.activity().append(escaped);
    ActivityEntry wrote = add(12, editor, QStringLiteral("local_write_file"),
                              QStringLiteral("Board Pack/notes/action items.md"));
    wrote.bytes = 913;
    wrote.versionNote = QStringLiteral("new file");
    state.activity().append(wrote);
}

// A dark desktop's palette, as a dark theme gives it to Qt.
QPalette darkPalette() {
    QPalette palette;
    const QColor window(0x2b, 0x2b, 0x2b);
    const QColor base(0x1e, 0x1e, 0x1e);
    const QColor text(0xee, 0xee, 0xee);
    palette.setColor(QPalette::Window, window);
    palette.setColor(QPalette::WindowText, text);
    palette.setColor(QPalette::Base, base);
    palette.setColor(QPalette::AlternateBase, window);
    palette.setColor(QPalette::Text, text);
    palette.setColor(QPalette::Button, QColor(0x3a, 0x3a, 0x3a));
    palette.setColor(QPalette::ButtonText, text);
    palette.setColor(QPalette::Mid, QColor(0x55, 0x55, 0x55));
    palette.setColor(QPalette::Dark, QColor(0x18, 0x18, 0x18));
    palette.setColor(QPalette::Light, QColor(0x60, 0x60, 0x60));
    palette.setColor(QPalette::Highlight, QColor(0x05, 0x96, 0x69));
    palette.setColor(QPalette::HighlightedText, Qt::white);
    palette.setColor(QPalette::ToolTipBase, base);
    palette.setColor(QPalette::ToolTipText, text);
    palette.setColor(QPalette::PlaceholderText, QColor(0x88, 0x88, 0x88));
    return palette;
}

} // namespace

int main(int argc, char* argv[]) {
    QString outputDir = QStringLiteral("screenshots");
    QByteArray scale;
    bool dark = false;
    qreal fontScale = 1;
    for (int i = 1; i < argc; ++i) {
        const QByteArray argument(argv[i]);
        if (argument == "--scale" && i + 1 < argc) {
            scale = argv[++i];
        } else if (argument == "--dark") {
            dark = true;
        } else if (argument == "--font-scale" && i + 1 < argc) {
            fontScale = qBound(0.5, QByteArray(argv[++i]).toDouble(), 4.0);
        } else {
            outputDir = QString::fromLocal8Bit(argument);
        }
    }
    if (!qEnvironmentVariableIsSet("QT_QPA_PLATFORM")) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
    }
    if (!scale.isEmpty()) {
        qputenv("QT_SCALE_FACTOR", scale);
    }

    // Everything the tour touches lives in a temporary home.
    QTemporaryDir home;
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(home.filePath(QStringLiteral("config"))));
    qputenv("XDG_DATA_HOME", QFile::encodeName(home.filePath(QStringLiteral("data"))));
    QDir().mkpath(home.filePath(QStringLiteral("runtime")));
    QFile::setPermissions(home.filePath(QStringLiteral("runtime")),
                          QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
    qputenv("XDG_RUNTIME_DIR", QFile::encodeName(home.filePath(QStringLiteral("runtime"))));

    QGuiApplication app(argc, argv);
    QDir().mkpath(outputDir);
    if (dark) {
        QGuiApplication::setPalette(darkPalette());
    }
    if (fontScale != 1) {
        QFont font = QGuiApplication::font();
        font.setPointSizeF(font.pointSizeF() * fontScale);
        QGuiApplication::setFont(font);
    }

    ClaimStub service;
    qputenv("QUILLMAR_API", service.base().toUtf8());
    // The file tools as built next to the companion, so the window shows their real protection.
    qputenv("QUILLMAR_FILE_WORKER", QUILLMAR_FILE_WORKER_BUILT);
    auto chooser = std::make_shared<QueueChooser>();
    const QStringList folders = makeFolders(home);

    // The bridge stays idle; the tour reports its status itself.
    AppState state(AppServices{nullptr, chooser, Keychain(Keychain::Backend::TokenFile)},
                   AppOptions{false, true});
    OnboardingWindowController controller;
    controller.show();
    Tour tour(controller, outputDir);
    QQuickItem* onboarding = tour.item(QStringLiteral("onboardingView"));
    if (!onboarding) {
        QTextStream(stderr) << "the onboarding view did not load\n";
        return 1;
    }

    tour.shoot(QStringLiteral("01-welcome"));

    onboarding->setProperty("step", OnboardingStep::Pair);
    tour.shoot(QStringLiteral("02-pair-empty"));
    onboarding->setProperty("code", QStringLiteral("7kq2-m9"));
    tour.shoot(QStringLiteral("03-pair-code"));

    service.respond(400, "{}");
    service.hold();
    onboarding->setProperty("code", QStringLiteral("7kq2-m9xd"));
    QMetaObject::invokeMethod(onboarding, "submitPair");
    tour.shoot(QStringLiteral("04-pairing"));
    service.release();
    waitFor([&] { return state.hasPairError(); });
    tour.shoot(QStringLiteral("05-pair-error"));

    service.respond(200, okClaim);
    QMetaObject::invokeMethod(onboarding, "submitPair");
    waitFor([&] { return state.paired(); });
    tour.shoot(QStringLiteral("06-folders-empty"));
    chooser->answers = folders;
    state.addFolder();
    state.addFolder();
    tour.shoot(QStringLiteral("07-folders-two"));

    onboarding->setProperty("step", OnboardingStep::Done);
    tour.shoot(QStringLiteral("08-done"));

    QMetaObject::invokeMethod(onboarding, "finish");
    settle();
    emit state.bridge().statusChanged(true, QStringLiteral("Connected to Quillmar"));
    tour.shoot(QStringLiteral("09-home-online"));
    emit state.bridge().statusChanged(false, QStringLiteral("Reconnecting in 4s…"));
    tour.shoot(QStringLiteral("10-home-offline"));

    emit state.bridge().statusChanged(true, QStringLiteral("Connected to Quillmar"));
    // Ten in all, with the two from onboarding.
    for (int i = 1; i <= 8; ++i) {
        const QString path = home.filePath(QStringLiteral("alex/Projects/Project %1").arg(i));
        QDir().mkpath(path);
        state.addFolderAt(path);
    }
    tour.shoot(QStringLiteral("11-home-ten-folders"));
    while (!state.folders().isEmpty()) {
        state.removeFolder(state.folders().constFirst());
    }
    tour.shoot(QStringLiteral("12-home-no-folders"));

    // One folder agents may only read, one they may also write.
    chooser->answers = folders;
    state.addFolder();
    state.addFolder();
    state.setFolderReadOnly(state.folders().constFirst(), true);
    tour.shoot(QStringLiteral("14-folders-access"));

    state.setPaused(true);
    tour.shoot(QStringLiteral("15-home-paused"));
    state.setPaused(false);
    emit state.bridge().statusChanged(true, QStringLiteral("Connected to Quillmar"));

    QQuickItem* homeView = tour.item(QStringLiteral("homeView"));
    QMetaObject::invokeMethod(homeView, "showActivity");
    tour.shoot(QStringLiteral("16-activity-empty"));
    const QString versionId = addActivity(state, folders);
    tour.shoot(QStringLiteral("17-activity"));
    state.restoreVersion(versionId);
    waitFor([&] { return state.activity().size() > 0 && state.activity().at(0).restored; });
    tour.shoot(QStringLiteral("18-activity-restored"));
    addLocalAgentActivity(state);
    tour.shoot(QStringLiteral("19-activity-local-agents"));
    QMetaObject::invokeMethod(homeView, "showHome", Q_ARG(QVariant, QVariant(false)));
    // As after Tab: the focus ring on the first folder's access.
    if (QQuickItem* toggle = tour.item(QStringLiteral("accessToggle"))) {
        toggle->forceActiveFocus(Qt::TabFocusReason);
    }
    tour.shoot(QStringLiteral("20-home-keyboard-focus"));

    state.unpair();
    tour.shoot(QStringLiteral("13-after-unpair"));

    return tour.ok() ? 0 : 1;
}
