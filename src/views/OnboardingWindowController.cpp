#include "OnboardingWindowController.h"

#include "AppState.h"
#include "Typography.h"
#include "ViewsModule.h"

#include <QEvent>
#include <QGuiApplication>
#include <QIcon>
#include <QQmlEngine>
#include <QQuickItem>
#include <QQuickView>
#include <QScreen>

OnboardingWindowController::OnboardingWindowController(QObject* parent) : QObject(parent) {}

OnboardingWindowController::~OnboardingWindowController() = default;

QSize OnboardingWindowController::contentSize() {
    const qreal scale = Typography::scale();
    return {qRound(460 * scale), qRound(600 * scale)};
}

QString OnboardingWindowController::title() {
    return QStringLiteral("Quillmar OS");
}

QUrl OnboardingWindowController::rootViewUrl() {
    return QUrl(QStringLiteral("qrc:/Quillmar/Views/RootView.qml"));
}

void OnboardingWindowController::show() {
    if (!m_window) {
        createWindow();
    }
    m_window->show();
    m_window->raise();
    m_window->requestActivate();
    emit shown();
}

bool OnboardingWindowController::isVisible() const {
    return m_window && m_window->isVisible();
}

QWindow* OnboardingWindowController::openWindow() const {
    return isVisible() ? m_window.get() : nullptr;
}

QQuickWindow* OnboardingWindowController::window() const {
    return m_window.get();
}

QQuickItem* OnboardingWindowController::rootView() const {
    return m_window ? m_window->rootObject() : nullptr;
}

void OnboardingWindowController::createWindow() {
    ViewsModule::prepare();
    // Small desktop text reads best drawn by the platform's rasteriser. This is the program's
    // only QML, so the process-wide setting is ours to make.
    QQuickWindow::setTextRenderType(QQuickWindow::NativeTextRendering);
    m_window = std::make_unique<QQuickView>();
    ViewsModule::prepare(*m_window->engine());

    // Titled and closable only: no minimise or maximise button, and a fixed size.
    m_window->setFlags(Qt::Window | Qt::CustomizeWindowHint | Qt::WindowTitleHint |
                       Qt::WindowCloseButtonHint);
    m_window->setTitle(title());
    m_window->setIcon(QIcon(ViewsModule::logoResource()));
    m_window->setResizeMode(QQuickView::SizeRootObjectToView);
    m_window->setMinimumSize(contentSize());
    m_window->setMaximumSize(contentSize());
    m_window->resize(contentSize());

    // Which page the window opens on is decided once, here: home when already paired.
    m_window->setInitialProperties({{QStringLiteral("showHome"), AppState::shared().paired()}});
    m_window->setSource(rootViewUrl());
    for (const QQmlError& error : m_window->errors()) {
        qWarning("%s", qPrintable(error.toString()));
    }

    // Centred once, at creation; afterwards the window stays wherever the user moves it.
    if (const QScreen* screen =
            m_window->screen() ? m_window->screen() : QGuiApplication::primaryScreen()) {
        const QRect available = screen->availableGeometry();
        m_window->setPosition(available.center() -
                              QPoint(contentSize().width() / 2, contentSize().height() / 2));
    }

    m_window->installEventFilter(this);
}

bool OnboardingWindowController::eventFilter(QObject* watched, QEvent* event) {
    // Closing only hides the window: the view and its state stay, and a tray application does
    // not take the closing of its last window as the signal to quit.
    if (watched == m_window.get() && event->type() == QEvent::Close) {
        event->ignore();
        m_window->hide();
        emit closed();
        return true;
    }
    return QObject::eventFilter(watched, event);
}
