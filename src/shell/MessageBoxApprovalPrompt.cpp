#include "MessageBoxApprovalPrompt.h"

#include <QCoroSignal>
#include <QLabel>
#include <QMessageBox>
#include <QPushButton>
#include <QWindow>

#include <algorithm>
#include <memory>
#include <utility>

namespace {

// Beyond this the informative text wraps.
constexpr int longestLineWidth = 480;

// The alert is resumed from inside its own signal, so it is deleted later, never in place.
struct DeleteLater {
    void operator()(QObject* object) const { object->deleteLater(); }
};

} // namespace

MessageBoxApprovalPrompt::MessageBoxApprovalPrompt(std::function<QWindow*()> parentWindow)
    : m_parentWindow(std::move(parentWindow)) {}

QString MessageBoxApprovalPrompt::alertObjectName() {
    return QStringLiteral("writeApprovalAlert");
}

QCoro::Task<bool> MessageBoxApprovalPrompt::ask(QString path, qint64 bytes) {
    const std::unique_ptr<QMessageBox, DeleteLater> box(new QMessageBox());
    box->setObjectName(alertObjectName());
    box->setWindowTitle(QStringLiteral("Quillmar OS"));
    box->setIcon(QMessageBox::Warning);
    box->setTextFormat(Qt::PlainText);
    box->setText(messageText());
    box->setInformativeText(informativeText(path, bytes));
    // The path is shown exactly as given, line feeds and angle brackets included, never read as
    // markup.
    if (auto* informative = box->findChild<QLabel*>(QStringLiteral("qt_msgbox_informativelabel"))) {
        informative->setTextFormat(Qt::PlainText);
        // Wide enough that "An agent wants to write N bytes to:" and a usual path each keep a
        // line of their own; only longer paths wrap.
        int widest = 0;
        for (const QString& line : informative->text().split(u'\n')) {
            widest = std::max(widest, informative->fontMetrics().horizontalAdvance(line));
        }
        informative->setMinimumWidth(std::min(widest + 2, longestLineWidth));
    }
    QPushButton* allow = box->addButton(QStringLiteral("Allow"), QMessageBox::AcceptRole);
    QPushButton* deny = box->addButton(QStringLiteral("Deny"), QMessageBox::RejectRole);
    box->setDefaultButton(allow);
    box->setEscapeButton(deny);

    // Modal for the whole application, like the write it guards, but shown rather than exec()'d.
    // Attached to the window when it is open, so the desktop keeps it above the window.
    box->setWindowModality(Qt::ApplicationModal);
    if (QWindow* parent = m_parentWindow ? m_parentWindow() : nullptr) {
        box->winId();
        box->windowHandle()->setTransientParent(parent);
    }
    box->show();
    box->raise();
    box->activateWindow();

    co_await qCoro(box.get(), &QMessageBox::finished);
    co_return box->clickedButton() == allow;
}
