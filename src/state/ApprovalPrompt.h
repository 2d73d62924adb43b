#pragma once

#include <QCoroTask>
#include <QString>

// Puts one write before the local user. The desktop shell passes an alert to the application
// state, the headless mode a terminal question; tests pass their own answers. Without a prompt
// every write that needs approval is refused.
class ApprovalPrompt {
public:
    virtual ~ApprovalPrompt() = default;

    // True only when the user allowed this write. Must not block the event loop while waiting.
    virtual QCoro::Task<bool> ask(QString path, qint64 bytes) = 0;

    static QString messageText();
    // Control and bidirectional formatting characters in the path are shown, not obeyed (see
    // VisibleText); a line feed still breaks the line.
    static QString informativeText(const QString& path, qint64 bytes);
};
