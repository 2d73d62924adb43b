#pragma once

#include <QCoroTask>
#include <QDBusConnection>
#include <QObject>
#include <QString>
#include <QVariantMap>

class QDBusMessage;
class QWindow;

// Asks for one folder through the XDG desktop portal's file chooser, so that the user gets the
// desktop's own dialog (GNOME's, KDE's, …) whatever toolkit the desktop uses. Says when the
// portal cannot answer, so that the caller can fall back to a dialog of its own.
class PortalFolderChooser : public QObject {
    Q_OBJECT

public:
    enum class Outcome { Chosen, Cancelled, Unavailable };
    struct Answer {
        Outcome outcome = Outcome::Unavailable;
        QString path;
    };

    explicit PortalFolderChooser(QDBusConnection bus = QDBusConnection::sessionBus(),
                                 QObject* parent = nullptr);

    // `acceptLabel` titles the confirming button, `title` the dialog; `parentWindow` is the
    // portal's handle of the window to attach the dialog to ("x11:1e00007"), empty for none.
    // The path chosen is absolute and clean.
    QCoro::Task<Answer> choose(QString acceptLabel, QString title, QString parentWindow);

    // The handle of `window` as the portal expects it; empty where the portal needs more than
    // the window (Wayland) or there is no window.
    static QString parentWindowHandle(const QWindow* window);

    static QString serviceName();
    static QString objectPath();

signals:
    // A request ended: `request` is its object path, `response` the portal's code (0 chosen,
    // 1 cancelled, 2 ended otherwise).
    void requestEnded(const QString& request, uint response, const QVariantMap& results);

private slots:
    void takeResponse(uint response, const QVariantMap& results, const QDBusMessage& message);

private:
    QString requestPath(const QString& token) const;
    bool listenTo(const QString& request);
    void stopListening(const QString& request);

    QDBusConnection m_bus;
};
