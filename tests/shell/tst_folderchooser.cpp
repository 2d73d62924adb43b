#include "AppState.h"
#include "FileDialogFolderChooser.h"
#include "FolderChooser.h"
#include "OpenFolderDialog.h"
#include "ShellTestMain.h"
#include "StateSandbox.h"

#include <QApplication>
#include <QFileDialog>
#include <QLineEdit>
#include <QTest>
#include <QTimer>
#include <QWindow>

#include <functional>

namespace {

// What the test saw of the dialog, read while it was open.
struct Seen {
    bool found = false;
    bool nonNative = false;
    bool directories = false;
    bool dirsOnly = false;
    bool modal = false;
    QString acceptLabel;
    QString title;
};

// The chooser runs its own modal loop; this answers it from inside that loop, once it is up.
void answerWhenOpen(Seen* seen, std::function<void(QFileDialog*)> answer, int attempts = 500) {
    QTimer::singleShot(10, [seen, answer = std::move(answer), attempts] {
        QFileDialog* dialog = OpenFolderDialog::find();
        if (!dialog) {
            if (attempts > 0) {
                answerWhenOpen(seen, answer, attempts - 1);
            } else if (QWidget* modal = QApplication::activeModalWidget()) {
                // Something else is up and waits for an answer: end it rather than hang.
                modal->close();
            }
            return;
        }
        seen->found = true;
        seen->nonNative = dialog->testOption(QFileDialog::DontUseNativeDialog);
        seen->directories = dialog->fileMode() == QFileDialog::Directory;
        seen->dirsOnly = dialog->testOption(QFileDialog::ShowDirsOnly);
        seen->modal = dialog->isModal();
        seen->acceptLabel = dialog->labelText(QFileDialog::Accept);
        seen->title = dialog->windowTitle();
        answer(dialog);
    });
}

// Types the full path into the dialog's file name field and confirms.
std::function<void(QFileDialog*)> typePath(const QString& path) {
    return [path](QFileDialog* dialog) {
        auto* edit = dialog->findChild<QLineEdit*>(QStringLiteral("fileNameEdit"));
        QVERIFY(edit);
        edit->setText(path);
        // QFileDialog::accept() is protected; it is QDialog's public slot overridden.
        static_cast<QDialog*>(dialog)->accept();
    };
}

} // namespace

class FolderChooserTest : public QObject {
    Q_OBJECT

    std::unique_ptr<StateSandbox> sandbox;

private slots:
    void init() { sandbox = std::make_unique<StateSandbox>(); }
    void cleanup() { sandbox.reset(); }

    void answeredThroughTheFileNameField() {
        const QString folder = sandbox->folder(QStringLiteral("Projects"));
        Seen seen;
        answerWhenOpen(&seen, typePath(folder));
        FileDialogFolderChooser chooser;
        const std::optional<QString> chosen = QCoro::waitFor(chooser.chooseFolder(
            QStringLiteral("Share with agents"),
            QStringLiteral("Choose a folder Quillmar agents may read and write.")));
        QVERIFY(seen.found);
        // The platform theme's own dialog may stand in; offscreen there is none, so it is Qt's.
        QVERIFY(!seen.nonNative);
        QVERIFY(seen.directories);
        QVERIFY(seen.dirsOnly);
        QVERIFY(seen.modal);
        QCOMPARE(seen.acceptLabel, QStringLiteral("Share with agents"));
        QCOMPARE(seen.title, QStringLiteral("Choose a folder Quillmar agents may read and write."));
        QCOMPARE(chosen, std::optional<QString>(folder));
    }

    void theDialogBelongsToTheOpenWindow() {
        QWindow window;
        window.show();
        QWindow* attachedTo = nullptr;
        Seen seen;
        answerWhenOpen(&seen, [&attachedTo](QFileDialog* dialog) {
            attachedTo =
                dialog->windowHandle() ? dialog->windowHandle()->transientParent() : nullptr;
            dialog->reject();
        });
        FileDialogFolderChooser chooser([&window] { return &window; });
        QCOMPARE(QCoro::waitFor(chooser.chooseFolder(QStringLiteral("Share with agents"),
                                                     QStringLiteral("m"))),
                 std::nullopt);
        QVERIFY(seen.found);
        QCOMPARE(attachedTo, &window);
    }

    void aTrailingSlashIsDropped() {
        const QString folder = sandbox->folder(QStringLiteral("With Slash"));
        Seen seen;
        answerWhenOpen(&seen, typePath(folder + u'/'));
        FileDialogFolderChooser chooser;
        QCOMPARE(QCoro::waitFor(chooser.chooseFolder(QStringLiteral("Share with agents"),
                                                     QStringLiteral("m"))),
                 std::optional<QString>(folder));
    }

    void cancelGivesNothing() {
        Seen seen;
        answerWhenOpen(&seen, [](QFileDialog* dialog) { dialog->reject(); });
        FileDialogFolderChooser chooser;
        QCOMPARE(QCoro::waitFor(chooser.chooseFolder(QStringLiteral("Share with agents"),
                                                     QStringLiteral("m"))),
                 std::nullopt);
        QVERIFY(seen.found);
    }

    void escapeGivesNothing() {
        Seen seen;
        answerWhenOpen(&seen, [](QFileDialog* dialog) { QTest::keyClick(dialog, Qt::Key_Escape); });
        FileDialogFolderChooser chooser;
        QCOMPARE(QCoro::waitFor(chooser.chooseFolder(QStringLiteral("Share with agents"),
                                                     QStringLiteral("m"))),
                 std::nullopt);
    }

    void addingAFolderThroughTheState() {
        sandbox->setFolderChooser(std::make_shared<FileDialogFolderChooser>());
        const QString folder = sandbox->folder(QStringLiteral("Reports"));
        AppState& state = sandbox->state();
        int changes = 0;
        connect(&state, &AppState::changed, this, [&changes] { ++changes; });
        Seen seen;
        answerWhenOpen(&seen, typePath(folder));
        QVERIFY(QCoro::waitFor(state.addFolderAndWait()));
        QCOMPARE(seen.acceptLabel, QStringLiteral("Share with agents"));
        QCOMPARE(seen.title, QStringLiteral("Choose a folder Quillmar agents may read and write."));
        QCOMPARE(state.folders().size(), 1);
        QCOMPARE(state.folders().front().path, folder);
        QCOMPARE(state.folders().front().name, QStringLiteral("Reports"));
        QCOMPARE(changes, 1);

        // Cancelled: no change, no announcement.
        answerWhenOpen(&seen, [](QFileDialog* dialog) { dialog->reject(); });
        QVERIFY(!QCoro::waitFor(state.addFolderAndWait()));
        QCOMPARE(state.folders().size(), 1);
        QCOMPARE(changes, 1);
    }
};

QUILLMAR_SHELL_TEST_MAIN(FolderChooserTest)
#include "tst_folderchooser.moc"
