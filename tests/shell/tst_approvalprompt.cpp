#include "AppState.h"
#include "ApprovalPrompt.h"
#include "MessageBoxApprovalPrompt.h"
#include "ShellTestMain.h"
#include "StateSandbox.h"

#include <QAbstractButton>
#include <QApplication>
#include <QCoroTask>
#include <QLabel>
#include <QMessageBox>
#include <QPushButton>
#include <QTest>
#include <QTimer>
#include <QWindow>

namespace {

// The open approval alerts, oldest first.
QList<QMessageBox*> openAlerts() {
    QList<QMessageBox*> alerts;
    for (QWidget* widget : QApplication::topLevelWidgets()) {
        auto* box = qobject_cast<QMessageBox*>(widget);
        if (box && box->isVisible() &&
            box->objectName() == MessageBoxApprovalPrompt::alertObjectName()) {
            alerts.append(box);
        }
    }
    return alerts;
}

// The one open alert, once it is up; null (and a failed test) if it never comes.
QMessageBox* waitForAlert() {
    if (!QTest::qWaitFor([] { return openAlerts().size() == 1; }, 5000)) {
        QTest::qFail("expected exactly one open approval alert", __FILE__, __LINE__);
        return nullptr;
    }
    return openAlerts().front();
}

QAbstractButton* buttonTitled(QMessageBox* box, const QString& title) {
    for (QAbstractButton* button : box->buttons()) {
        if (button->text() == title) {
            return button;
        }
    }
    return nullptr;
}

// The answer of an approval, collected without blocking the test's event loop.
struct Answer {
    std::optional<bool> value;
};

void collect(QCoro::Task<bool>&& task, std::shared_ptr<Answer> answer) {
    // Keeps the task alive until it finishes; `then` runs when it does.
    auto pending = std::make_shared<QCoro::Task<bool>>(std::move(task));
    pending->then([answer, pending](bool allowed) mutable {
        answer->value = allowed;
        pending.reset();
    });
}

} // namespace

class ApprovalPromptTest : public QObject {
    Q_OBJECT

    MessageBoxApprovalPrompt prompt;

    std::shared_ptr<Answer> ask(const QString& path, qint64 bytes) {
        auto answer = std::make_shared<Answer>();
        collect(prompt.ask(path, bytes), answer);
        return answer;
    }

private slots:
    void cleanup() {
        for (QMessageBox* box : openAlerts()) {
            box->reject();
        }
        QTest::qWait(10);
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }

    void theAlertAsItIsShown() {
        const auto answer = ask(QStringLiteral("Docs/report.txt"), 1536);
        QMessageBox* box = waitForAlert();
        QCOMPARE(box->text(), QStringLiteral("Allow agent to write a file?"));
        QCOMPARE(box->informativeText(),
                 QStringLiteral("An agent wants to write 1536 bytes to:\nDocs/report.txt"));
        QCOMPARE(box->icon(), QMessageBox::Warning);
        QCOMPARE(box->windowModality(), Qt::ApplicationModal);
        QVERIFY(box->isVisible());

        const QList<QAbstractButton*> buttons = box->buttons();
        QCOMPARE(buttons.size(), 2);
        QAbstractButton* allow = buttonTitled(box, QStringLiteral("Allow"));
        QAbstractButton* deny = buttonTitled(box, QStringLiteral("Deny"));
        QVERIFY(allow && deny);
        QCOMPARE(box->buttonRole(allow), QMessageBox::AcceptRole);
        QCOMPARE(box->buttonRole(deny), QMessageBox::RejectRole);
        QCOMPARE(box->defaultButton(), allow);
        QCOMPARE(box->escapeButton(), deny);
        QVERIFY(!answer->value);
    }

    void theAlertBelongsToTheOpenWindow() {
        QWindow window;
        window.resize(460, 600);
        bool windowOpen = false;
        MessageBoxApprovalPrompt attached([&] { return windowOpen ? &window : nullptr; });

        // No window open: the alert stands alone.
        auto alone = std::make_shared<Answer>();
        collect(attached.ask(QStringLiteral("a.txt"), 1), alone);
        QMessageBox* box = waitForAlert();
        QVERIFY(box->windowHandle());
        QCOMPARE(box->windowHandle()->transientParent(), nullptr);
        box->reject();
        QTRY_VERIFY(alone->value.has_value());
        cleanup();

        window.show();
        windowOpen = true;
        auto onTop = std::make_shared<Answer>();
        collect(attached.ask(QStringLiteral("a.txt"), 1), onTop);
        box = waitForAlert();
        QCOMPARE(box->windowHandle()->transientParent(), &window);
        QCOMPARE(box->windowModality(), Qt::ApplicationModal);
        box->reject();
        QTRY_VERIFY(onTop->value.has_value());
    }

    void askingDoesNotBlockTheCaller() {
        // The call returns to its caller (the event loop) as soon as the alert is up: no
        // nested loop runs under it.
        QCoro::Task<bool> task = prompt.ask(QStringLiteral("a.txt"), 1);
        QVERIFY(!task.isReady());
        QCOMPARE(openAlerts().size(), 1);
        bool ticked = false;
        QTimer::singleShot(0, [&ticked] { ticked = true; });
        QTRY_VERIFY(ticked);
        QVERIFY(!task.isReady());
        openAlerts().front()->reject();
        QCOMPARE(QCoro::waitFor(task), false);
    }

    void allowGivesTrue() {
        const auto answer = ask(QStringLiteral("a.txt"), 3);
        buttonTitled(waitForAlert(), QStringLiteral("Allow"))->click();
        QTRY_VERIFY(answer->value.has_value());
        QCOMPARE(*answer->value, true);
        QTRY_VERIFY(openAlerts().isEmpty());
    }

    void returnPicksAllow() {
        const auto answer = ask(QStringLiteral("a.txt"), 3);
        QMessageBox* box = waitForAlert();
        QTest::keyClick(box, Qt::Key_Return);
        QTRY_VERIFY(answer->value.has_value());
        QCOMPARE(*answer->value, true);
    }

    void denyGivesFalse() {
        const auto answer = ask(QStringLiteral("a.txt"), 3);
        buttonTitled(waitForAlert(), QStringLiteral("Deny"))->click();
        QTRY_VERIFY(answer->value.has_value());
        QCOMPARE(*answer->value, false);
    }

    void escapeGivesFalse() {
        const auto answer = ask(QStringLiteral("a.txt"), 3);
        QTest::keyClick(waitForAlert(), Qt::Key_Escape);
        QTRY_VERIFY(answer->value.has_value());
        QCOMPARE(*answer->value, false);
    }

    void closingGivesFalse() {
        const auto answer = ask(QStringLiteral("a.txt"), 3);
        waitForAlert()->close();
        QTRY_VERIFY(answer->value.has_value());
        QCOMPARE(*answer->value, false);
    }

    void anyOtherEndGivesFalse() {
        const auto answer = ask(QStringLiteral("a.txt"), 3);
        waitForAlert()->done(QDialog::Accepted); // finished, but no button pressed
        QTRY_VERIFY(answer->value.has_value());
        QCOMPARE(*answer->value, false);
    }

    void zeroBytes() {
        const auto answer = ask(QStringLiteral("Docs/empty.txt"), 0);
        QMessageBox* box = waitForAlert();
        QCOMPARE(box->informativeText(),
                 QStringLiteral("An agent wants to write 0 bytes to:\nDocs/empty.txt"));
        auto* label = box->findChild<QLabel*>(QStringLiteral("qt_msgbox_informativelabel"));
        QVERIFY(label);
        QVERIFY(label->text().startsWith(QStringLiteral("An agent wants to write 0 bytes to:")));
    }

    void oneByteIsStillBytes() {
        ask(QStringLiteral("x"), 1);
        QCOMPARE(waitForAlert()->informativeText(),
                 QStringLiteral("An agent wants to write 1 bytes to:\nx"));
    }

    void largeCountsHaveNoSeparators() {
        ask(QStringLiteral("x"), 1234567890123);
        QCOMPARE(waitForAlert()->informativeText(),
                 QStringLiteral("An agent wants to write 1234567890123 bytes to:\nx"));
    }

    void aPathWithALineFeedIsShownAsItIs() {
        const QString path = QStringLiteral("Docs/two\nlines <b>not bold</b>.txt");
        ask(path, 5);
        QMessageBox* box = waitForAlert();
        const QString expected = QStringLiteral("An agent wants to write 5 bytes to:\n") + path;
        QCOMPARE(box->informativeText(), expected);
        auto* label = box->findChild<QLabel*>(QStringLiteral("qt_msgbox_informativelabel"));
        QVERIFY(label);
        QCOMPARE(label->textFormat(), Qt::PlainText);
        QCOMPARE(label->text(), expected);
        QCOMPARE(box->textFormat(), Qt::PlainText);
    }

    void controlAndDirectionCharactersAreShownNotObeyed() {
        ask(QStringLiteral("Docs/\x1b[2J\rok\u202etxt.exe"), 4);
        QMessageBox* box = waitForAlert();
        const QString expected = QStringLiteral("An agent wants to write 4 bytes to:\n"
                                                "Docs/\u241b[2J\u240dok\u27e8U+202E\u27e9txt.exe");
        QCOMPARE(box->informativeText(), expected);
        auto* label = box->findChild<QLabel*>(QStringLiteral("qt_msgbox_informativelabel"));
        QVERIFY(label);
        QCOMPARE(label->text(), expected);
    }

    void markupIsShownLiterally() {
        const QString path = QStringLiteral("<b>x</b>");
        // Where Qt guesses the format, this alone would be shown as a bold "x".
        QVERIFY(Qt::mightBeRichText(path));
        ask(path, 1);
        QMessageBox* box = waitForAlert();
        const QString expected = QStringLiteral("An agent wants to write 1 bytes to:\n<b>x</b>");
        QCOMPARE(box->informativeText(), expected);
        QCOMPARE(box->textFormat(), Qt::PlainText);
        auto* label = box->findChild<QLabel*>(QStringLiteral("qt_msgbox_informativelabel"));
        QVERIFY(label);
        QCOMPARE(label->textFormat(), Qt::PlainText);
        QCOMPARE(label->text(), expected);
    }

    void eachRequestGetsItsOwnAlert() {
        const auto first = ask(QStringLiteral("one.txt"), 1);
        const auto second = ask(QStringLiteral("two.txt"), 2);
        QTRY_COMPARE(openAlerts().size(), 2);
        QMessageBox* two = nullptr;
        for (QMessageBox* box : openAlerts()) {
            if (box->informativeText().endsWith(QStringLiteral("two.txt"))) {
                two = box;
            }
        }
        QVERIFY(two);
        buttonTitled(two, QStringLiteral("Allow"))->click();
        QTRY_VERIFY(second->value.has_value());
        QCOMPARE(*second->value, true);
        QVERIFY(!first->value);
        buttonTitled(waitForAlert(), QStringLiteral("Deny"))->click();
        QTRY_VERIFY(first->value.has_value());
        QCOMPARE(*first->value, false);
    }

    void throughTheStateWithApprovalOffNoAlertShows() {
        StateSandbox sandbox;
        sandbox.setApprovalPrompt(std::make_shared<MessageBoxApprovalPrompt>());
        AppState& state = sandbox.state();
        state.storeRequireWriteApproval(false);
        QCOMPARE(QCoro::waitFor(state.requestWriteApproval(QStringLiteral("a\nb"), 0)), true);
        QVERIFY(openAlerts().isEmpty());

        state.storeRequireWriteApproval(true);
        auto answer = std::make_shared<Answer>();
        collect(state.requestWriteApproval(QStringLiteral("Docs/a.txt"), 7), answer);
        QMessageBox* box = waitForAlert();
        QCOMPARE(box->informativeText(),
                 QStringLiteral("An agent wants to write 7 bytes to:\nDocs/a.txt"));
        buttonTitled(box, QStringLiteral("Deny"))->click();
        QTRY_VERIFY(answer->value.has_value());
        QCOMPARE(*answer->value, false);
    }
};

QUILLMAR_SHELL_TEST_MAIN(ApprovalPromptTest)
#include "tst_approvalprompt.moc"
