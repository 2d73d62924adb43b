#pragma once

#include "ApprovalPrompt.h"

#include <functional>

class QWindow;

// Asks about a write in a warning alert with "Allow" (the default) and "Deny". Only "Allow"
// lets the write go ahead; "Deny", Escape or closing the alert refuse it. The alert is shown
// without a nested event loop: the asking call is suspended until the alert finishes, and the
// application (the bridge's keep-alive, the tray, the window) keeps running meanwhile.
class MessageBoxApprovalPrompt : public ApprovalPrompt {
public:
    // `parentWindow` names the window the alert belongs to while one is open (the alert then
    // stays on top of it and moves with it); without one the alert stands alone.
    explicit MessageBoxApprovalPrompt(std::function<QWindow*()> parentWindow = {});

    QCoro::Task<bool> ask(QString path, qint64 bytes) override;

    // The alert's object name, by which tests and accessibility tools find it.
    static QString alertObjectName();

private:
    std::function<QWindow*()> m_parentWindow;
};
