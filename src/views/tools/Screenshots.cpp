// quillmar-screenshots [--scale N] [output-dir]
//
// Walks the window through every page with a throw-away state (temporary settings, token file,
// folders and a local stand-in for the pairing service) and saves one PNG per page. Runs
// offscreen unless QT_QPA_PLATFORM says otherwise. The output directory defaults to
// "screenshots" in the current directory.

#include "AppState.h"
#include "BridgeClient.h"
#include "ClaimStub.h"
#include "FolderChooser.h"
#include "Keychain.h"
#include "OnboardingStep.h"
#include "OnboardingWindowController.h"

#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QGuiApplication>
#include <QImage>
#include <QQuickItem>
#include <QQuickWindow>
#include <QTemporaryDir>
#include <QTextStream>
#include <QTimer>

#include <functional>

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
    std::optional<QString> chooseFolder(const QString&, const QString&) override {
        if (answers.isEmpty()) {
            return std::nullopt;
        }
        return answers.takeFirst();
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

} // namespace

int main(int argc, char* argv[]) {
    QString outputDir = QStringLiteral("screenshots");
    QByteArray scale;
    for (int i = 1; i < argc; ++i) {
        const QByteArray argument(argv[i]);
        if (argument == "--scale" && i + 1 < argc) {
            scale = argv[++i];
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

    ClaimStub service;
    qputenv("QUILLMAR_API", service.base().toUtf8());
    // The file tools as built next to the companion, so the window shows their real protection.
    qputenv("QUILLMAR_FILE_WORKER", QUILLMAR_FILE_WORKER_BUILT);
    Keychain::setBackend(Keychain::Backend::TokenFile);
    // The bridge stays idle; the tour reports its status itself.
    AppState::setBridgeEnabled(false);
    auto chooser = std::make_shared<QueueChooser>();
    FolderChooser::install(chooser);
    const QStringList folders = makeFolders(home);

    AppState& state = AppState::shared();
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
    state.bridge().onStatus(true, QStringLiteral("Connected to Quillmar"));
    tour.shoot(QStringLiteral("09-home-online"));
    state.bridge().onStatus(false, QStringLiteral("Reconnecting in 4s…"));
    tour.shoot(QStringLiteral("10-home-offline"));

    state.bridge().onStatus(true, QStringLiteral("Connected to Quillmar"));
    for (int i = 1; i <= 8; ++i) {
        const QString path = home.filePath(QStringLiteral("alex/Projects/Project %1").arg(i));
        QDir().mkpath(path);
        state.addFolderAt(path);
    }
    tour.shoot(QStringLiteral("11-home-many-folders"));
    while (!state.folders().isEmpty()) {
        state.removeFolder(state.folders().constFirst());
    }
    tour.shoot(QStringLiteral("12-home-no-folders"));

    state.unpair();
    tour.shoot(QStringLiteral("13-after-unpair"));

    return tour.ok() ? 0 : 1;
}
