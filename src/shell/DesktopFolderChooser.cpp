#include "DesktopFolderChooser.h"

#include <utility>

DesktopFolderChooser::DesktopFolderChooser(std::function<QWindow*()> parentWindow,
                                           QDBusConnection bus)
    : m_parentWindow(parentWindow), m_portal(std::move(bus)), m_dialog(std::move(parentWindow)) {}

QCoro::Task<std::optional<QString>> DesktopFolderChooser::chooseFolder(QString prompt,
                                                                       QString message) {
    const QString parent =
        PortalFolderChooser::parentWindowHandle(m_parentWindow ? m_parentWindow() : nullptr);
    const PortalFolderChooser::Answer answer = co_await m_portal.choose(prompt, message, parent);
    switch (answer.outcome) {
    case PortalFolderChooser::Outcome::Chosen:
        co_return answer.path;
    case PortalFolderChooser::Outcome::Cancelled:
        co_return std::nullopt;
    case PortalFolderChooser::Outcome::Unavailable:
        break;
    }
    const std::optional<QString> chosen = co_await m_dialog.chooseFolder(prompt, message);
    co_return chosen;
}
