#include "ViewHarness.h"

#include "AppState.h"
#include "BridgeClient.h"
#include "Keychain.h"

#include <QCoroTask>
#include <QDir>
#include <QFile>
#include <QQmlContext>
#include <QQmlEngine>
#include <QQmlExpression>
#include <QQuickItem>
#include <QQuickWindow>
#include <QTest>

const QByteArray ViewHarness::okClaim =
    R"({"device_token":"tok-views-1","device_id":"dev-1","org_id":"org-1"})";
const QByteArray ViewHarness::badClaim = "{}";

namespace {

void collect(QQuickItem* item, const QString& name, QList<QQuickItem*>& found) {
    if (!item) {
        return;
    }
    if (item->objectName() == name) {
        found.append(item);
    }
    const QList<QQuickItem*> children = item->childItems();
    for (QQuickItem* child : children) {
        collect(child, name, found);
    }
}

void collectTexts(QQuickItem* item, QStringList& found) {
    if (!item) {
        return;
    }
    const QVariant text = item->property("text");
    if (text.typeId() == QMetaType::QString && !text.toString().isEmpty()) {
        found.append(text.toString());
    }
    const QList<QQuickItem*> children = item->childItems();
    for (QQuickItem* child : children) {
        collectTexts(child, found);
    }
}

} // namespace

ViewHarness::ViewHarness(Keychain::Backend backend)
    : m_home(std::make_unique<TempTree>()), m_keychain(backend) {
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(m_home->dir(QStringLiteral("config"))));
    qputenv("XDG_DATA_HOME", QFile::encodeName(m_home->dir(QStringLiteral("data"))));
    m_service = std::make_unique<ClaimStub>();
    m_service->respond(200, okClaim);
    qputenv("QUILLMAR_API", m_service->base().toUtf8());
    m_chooser = std::make_shared<QueuedFolderChooser>();
}

ViewHarness::~ViewHarness() {
    // The window's engine holds the state; it goes first.
    m_controller.reset();
    m_state.reset();
}

void ViewHarness::storeToken() {
    const std::optional<KeychainError> error =
        QCoro::waitFor(m_keychain.saveToken(QStringLiteral("tok-stored")));
    if (error) {
        QTest::qFail(qPrintable(error->reason()), __FILE__, __LINE__);
    }
}

AppState& ViewHarness::start() {
    AppState& state = this->state();
    m_controller = std::make_unique<OnboardingWindowController>();
    m_controller->show();
    if (!QTest::qWaitForWindowExposed(window())) {
        qWarning("the window was not exposed");
    }
    window()->requestActivate();
    if (!QTest::qWaitForWindowActive(window())) {
        qWarning("the window did not become active");
    }
    settle();
    return state;
}

AppState& ViewHarness::state() {
    if (!m_state) {
        // The bridge stays idle.
        m_state = std::make_unique<AppState>(AppServices{nullptr, m_chooser, m_keychain},
                                             AppOptions{false, true});
        QObject::connect(m_state.get(), &AppState::changed, [this] { ++changes; });
    }
    return *m_state;
}

QQuickWindow* ViewHarness::window() const {
    return m_controller ? m_controller->window() : nullptr;
}

QQuickItem* ViewHarness::item(const QString& name) const {
    const QList<QQuickItem*> found = items(name);
    return found.isEmpty() ? nullptr : found.constFirst();
}

QList<QQuickItem*> ViewHarness::items(const QString& name) const {
    QList<QQuickItem*> found;
    if (window()) {
        collect(window()->contentItem(), name, found);
    }
    return found;
}

QQuickItem* ViewHarness::find(QQuickItem* root, const QString& name) {
    QList<QQuickItem*> found;
    collect(root, name, found);
    return found.isEmpty() ? nullptr : found.constFirst();
}

QStringList ViewHarness::texts() const {
    QStringList found;
    if (window()) {
        collectTexts(window()->contentItem(), found);
    }
    return found;
}

QVariant ViewHarness::value(const QString& name, const char* property) const {
    QQuickItem* found = item(name);
    return found ? found->property(property) : QVariant();
}

int ViewHarness::step() const {
    return value(QStringLiteral("onboardingView"), "step").toInt();
}

void ViewHarness::click(QQuickItem* target) {
    if (!target) {
        QTest::qFail("clicking an item that does not exist", __FILE__, __LINE__);
        return;
    }
    const QPoint centre =
        target->mapToScene(QPointF(target->width() / 2, target->height() / 2)).toPoint();
    QTest::mouseClick(window(), Qt::LeftButton, Qt::NoModifier, centre);
    settle();
}

void ViewHarness::click(const QString& name) {
    click(item(name));
}

void ViewHarness::typeCode(const QString& text) {
    QQuickItem* field = item(QStringLiteral("codeField"));
    if (!field) {
        QTest::qFail("no code field", __FILE__, __LINE__);
        return;
    }
    field->forceActiveFocus();
    for (const QChar character : text) {
        // Latin-1 is all the tests type; QTest makes the key and its text from the character.
        QTest::keyClick(window(), character.toLatin1());
    }
    settle();
}

void ViewHarness::pressReturn() {
    QTest::keyClick(window(), Qt::Key_Return);
    settle();
}

QQuickItem* ViewHarness::tab() {
    QTest::keyClick(window(), Qt::Key_Tab);
    settle();
    return window()->activeFocusItem();
}

bool ViewHarness::showsFocusRing(QQuickItem* item) {
    QQuickItem* ring = find(item, QStringLiteral("focusRing"));
    return ring && ring->isVisible();
}

void ViewHarness::settle(int milliseconds) {
    QTest::qWait(milliseconds);
}

QString ViewHarness::folderPath(const QString& name) {
    return m_home->dir(QStringLiteral("shared/") + name);
}

QString ViewHarness::addFolder(const QString& name) {
    const QString path = folderPath(name);
    state().addFolderAt(path);
    settle();
    return path;
}

void ViewHarness::reportStatus(bool online, const QString& text) {
    emit state().bridge().statusChanged(online, text);
    settle();
}

QObject* ViewHarness::singleton(const char* name) const {
    // Looked up as the root view itself sees it.
    QQuickItem* root = m_controller->rootView();
    QQmlExpression expression(qmlContext(root), root, QString::fromLatin1(name));
    return expression.evaluate().value<QObject*>();
}
