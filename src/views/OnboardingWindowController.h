#pragma once

#include <QObject>
#include <QSize>
#include <QUrl>

#include <memory>

class QQuickItem;
class QQuickView;
class QQuickWindow;
class QWindow;

// Owns the companion's one window, which hosts RootView: onboarding until the user finishes it,
// the home page afterwards. The window is created on the first show() and never destroyed;
// closing it only hides it, so the next show() returns to the same page with what was typed.
class OnboardingWindowController : public QObject {
    Q_OBJECT

public:
    explicit OnboardingWindowController(QObject* parent = nullptr);
    ~OnboardingWindowController() override;

    // Shows the window (creating it the first time, centred on the screen) and brings it to the
    // front with the keyboard focus. Safe to call any number of times.
    void show();
    bool isVisible() const;
    // The window, or nullptr before the first show().
    QQuickWindow* window() const;
    // The window while it is on screen (for dialogs to attach to), else nullptr.
    QWindow* openWindow() const;
    // The hosted RootView, or nullptr before the first show() or when it failed to load.
    QQuickItem* rootView() const;

    // 460 x 600 at the default font, larger with a larger desktop font.
    static QSize contentSize();
    static QString title();
    static QUrl rootViewUrl();

signals:
    // The window came up. On a desktop with a dock or task bar this is when the companion shows
    // up there.
    void shown();
    // The user closed the window; it is hidden, not destroyed.
    void closed();

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    void createWindow();

    std::unique_ptr<QQuickView> m_window;
};
