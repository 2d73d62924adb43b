#include "ApprovalPrompt.h"

#include "VisibleText.h"

namespace {

std::shared_ptr<ApprovalPrompt>& current() {
    static std::shared_ptr<ApprovalPrompt> prompt;
    return prompt;
}

} // namespace

QString ApprovalPrompt::messageText() {
    return QStringLiteral("Allow agent to write a file?");
}

QString ApprovalPrompt::informativeText(const QString& path, qint64 bytes) {
    // The agent chose the path: nothing in it may redraw the terminal or reorder the alert.
    return QStringLiteral("An agent wants to write ") + QString::number(bytes) +
           QStringLiteral(" bytes to:\n") + VisibleText::escaped(path);
}

void ApprovalPrompt::install(std::shared_ptr<ApprovalPrompt> prompt) {
    current() = std::move(prompt);
}

std::shared_ptr<ApprovalPrompt> ApprovalPrompt::installed() {
    return current();
}
