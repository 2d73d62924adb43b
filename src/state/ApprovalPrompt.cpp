#include "ApprovalPrompt.h"

#include "VisibleText.h"

QString ApprovalPrompt::messageText() {
    return QStringLiteral("Allow agent to write a file?");
}

QString ApprovalPrompt::informativeText(const QString& path, qint64 bytes) {
    // The agent chose the path: nothing in it may redraw the terminal or reorder the alert.
    return QStringLiteral("An agent wants to write ") + QString::number(bytes) +
           QStringLiteral(" bytes to:\n") + VisibleText::escaped(path);
}
