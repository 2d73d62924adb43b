#pragma once

#include "ClaimStub.h"
#include "Keychain.h"
#include "OnboardingWindowController.h"
#include "QueuedFolderChooser.h"
#include "TempTree.h"

#include <QColor>
#include <QList>
#include <QString>
#include <QStringList>

#include <memory>

class AppState;
class QQuickItem;
class QQuickWindow;

// One companion window on a throw-away state: settings, token file and folders in a temporary
// home (the token in the file unless another store is asked for), the pairing service played by a
// local stub, the bridge left idle, and a folder chooser that answers from a queue. Finds the
// window's items by object name and drives them with mouse and keyboard events.
class ViewHarness {
public:
    explicit ViewHarness(Keychain::Backend backend = Keychain::Backend::TokenFile);
    ~ViewHarness();
    ViewHarness(const ViewHarness&) = delete;
    ViewHarness& operator=(const ViewHarness&) = delete;

    // Stores a device token, so that the next state starts paired.
    void storeToken();
    // Shows the window on the state.
    AppState& start();
    // The state, made from what is stored on first use.
    AppState& state();
    OnboardingWindowController& controller() { return *m_controller; }
    QQuickWindow* window() const;

    // The first item named `name` in the window, searched depth first; nullptr if none.
    QQuickItem* item(const QString& name) const;
    QList<QQuickItem*> items(const QString& name) const;
    // The same, below `root`.
    static QQuickItem* find(QQuickItem* root, const QString& name);
    // Every text the window's items hold, shown or on a hidden page, depth first.
    QStringList texts() const;
    // The item's QML property, by name.
    QVariant value(const QString& name, const char* property) const;
    int step() const;

    void click(QQuickItem* item);
    void click(const QString& name);
    // Gives the pairing code field the keyboard focus and types into it.
    void typeCode(const QString& text);
    void pressReturn();
    // Presses Tab; the item that then has the keyboard focus (nullptr if none).
    QQuickItem* tab();
    // `item` shows its keyboard focus ring.
    static bool showsFocusRing(QQuickItem* item);
    // Lets bindings, layout and rendering catch up.
    static void settle(int milliseconds = 50);

    // Shares a new folder called `name` directly, as the command line does.
    QString addFolder(const QString& name);
    // A directory that exists, for the chooser to give.
    QString folderPath(const QString& name);
    // The bridge reports (online, text), as it would after a hello or a failure.
    void reportStatus(bool online, const QString& text);

    // The views' own singletons, for what tests change in them.
    QObject* singleton(const char* name) const;

    ClaimStub& service() { return *m_service; }
    QueuedFolderChooser& chooser() { return *m_chooser; }
    int changes = 0;

    static QColor brand() { return QColor(16, 185, 129); }
    static QColor brandDeep() { return QColor(5, 150, 105); }
    static const QByteArray okClaim;
    static const QByteArray badClaim;

private:
    std::unique_ptr<TempTree> m_home;
    Keychain m_keychain;
    std::unique_ptr<ClaimStub> m_service;
    std::shared_ptr<QueuedFolderChooser> m_chooser;
    std::unique_ptr<AppState> m_state;
    std::unique_ptr<OnboardingWindowController> m_controller;
};
