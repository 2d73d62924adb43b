// FileWorker with the real quillmar-file-worker: calls answered, a worker stopped past the time
// limit or killed mid-call taking only that call with it, a new worker whenever the folders
// change, the write question put once per write and its answer obeyed (and dropped with a
// worker that died while the user was asked), a worker that cannot be started, the idle limit,
// and no process left behind. Workers are stopped with SIGSTOP to make a call take as long as
// a case needs, and always killed and reaped by the FileWorker in the end.

#include "FileWorker.h"
#include "TempTree.h"

#include <QCoroFuture>
#include <QCoroTask>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QPromise>
#include <QSignalSpy>
#include <QTest>

#include <csignal>
#include <memory>
#include <optional>

#include <signal.h>

namespace {

const QString workerBin = QStringLiteral(QUILLMAR_FILE_WORKER_BIN);
const QByteArray notes = "first line\nsecond line\n";
const QString killedMidCall =
    QStringLiteral("The file tools stopped unexpectedly while handling this call (stopped by "
                   "signal 9). Try again: they start afresh for the next call.");
const QString declined = QStringLiteral("Write was declined on the user's computer.");

using Answer = std::shared_ptr<std::optional<QJsonObject>>;

QJsonObject errorOnly(const QString& message) {
    return QJsonObject{{QStringLiteral("error"), message}};
}

QJsonObject readParams(const QString& path) {
    return QJsonObject{{QStringLiteral("path"), path}};
}

QJsonObject writeParams(const QString& path, const QString& content) {
    return QJsonObject{{QStringLiteral("path"), path}, {QStringLiteral("content"), content}};
}

QJsonObject written(const QString& path, qint64 bytes) {
    return QJsonObject{{QStringLiteral("success"), true},
                       {QStringLiteral("path"), path},
                       {QStringLiteral("bytes"), bytes}};
}

// The process's state letter from /proc ('T' stopped, 'Z' a zombie); 0 once it is reaped.
char stateOf(qint64 pid) {
    QFile file(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!file.open(QIODevice::ReadOnly)) {
        return 0;
    }
    const QByteArray stat = file.readAll();
    const qsizetype close = stat.lastIndexOf(')');
    return close > 0 && close + 2 < stat.size() ? stat.at(close + 2) : char(0);
}

bool gone(qint64 pid) {
    return stateOf(pid) == 0;
}

bool stop(qint64 pid) {
    return pid > 0 && ::kill(pid_t(pid), SIGSTOP) == 0 &&
           QTest::qWaitFor([&] { return stateOf(pid) == 'T'; }, 5000);
}

QCoro::Task<> runInto(FileWorker& worker, QString method, QJsonObject params, Answer answer) {
    const ToolResult result = co_await worker.run(std::move(method), std::move(params));
    *answer = result.toObject();
}

} // namespace

class FileWorkerTest : public QObject {
    Q_OBJECT

    struct Question {
        QString path;
        qint64 bytes = 0;
        friend bool operator==(const Question&, const Question&) = default;
    };

    std::unique_ptr<TempTree> tree;
    QList<Question> questions;
    // The approver's answer; when a gate is set, it waits for the gate instead.
    bool allow = false;
    std::unique_ptr<QPromise<bool>> gate;

    QCoro::Task<bool> ask(QString path, qint64 bytes) {
        questions.append(Question{path, bytes});
        if (!gate) {
            co_return allow;
        }
        const QFuture<bool> answer = gate->future();
        co_return co_await answer;
    }

    void openGate(bool allowed) {
        gate->addResult(allowed);
        gate->finish();
    }

    SharedFolder folder(const QString& name) const {
        return SharedFolder{QUuid::createUuid(), name, tree->path(name), std::nullopt};
    }

    std::unique_ptr<FileWorker> makeWorker(const QString& program = workerBin) {
        auto worker = std::make_unique<FileWorker>(
            program, [this](QString path, qint64 bytes) { return ask(std::move(path), bytes); });
        worker->setFolders({folder(QStringLiteral("Docs"))});
        return worker;
    }

    // Starts a call; the answer shows once there is one.
    static Answer start(FileWorker& worker, const QString& method, const QJsonObject& params) {
        auto answer = std::make_shared<std::optional<QJsonObject>>();
        runInto(worker, method, params, answer);
        return answer;
    }

    static QJsonObject waitFor(const Answer& answer, int timeoutMs = 20000) {
        if (!QTest::qWaitFor([&] { return answer->has_value(); }, timeoutMs)) {
            return errorOnly(QStringLiteral("<no answer in time>"));
        }
        return **answer;
    }

    static QJsonObject call(FileWorker& worker, const QString& method, const QJsonObject& params) {
        return waitFor(start(worker, method, params));
    }

    static void checkReads(FileWorker& worker) {
        QCOMPARE(call(worker, QStringLiteral("local_read_file"),
                      readParams(QStringLiteral("Docs/notes.txt"))),
                 (QJsonObject{{QStringLiteral("path"), QStringLiteral("Docs/notes.txt")},
                              {QStringLiteral("content"), QString::fromUtf8(notes)},
                              {QStringLiteral("truncated"), false}}));
    }

    QByteArray fileBytes(const QString& relative) const {
        QFile file(tree->path(relative));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
    }

private slots:
    void init() {
        tree = std::make_unique<TempTree>();
        tree->file(QStringLiteral("Docs/notes.txt"), notes);
        tree->file(QStringLiteral("Other/other.txt"), "other\n");
        tree->symlink(QStringLiteral("Other/to-docs.txt"),
                      tree->path(QStringLiteral("Docs/notes.txt")));
        tree->dir(QStringLiteral("More"));
        questions.clear();
        allow = false;
        gate.reset();
    }

    void cleanup() {
        if (gate) {
            openGate(false);
            gate.reset();
        }
    }

    void oneWorkerServesCallAfterCall() {
        const std::unique_ptr<FileWorker> worker = makeWorker();
        QVERIFY(worker->programFound());
        QCOMPARE(worker->processId(), 0);
        checkReads(*worker);
        const qint64 pid = worker->processId();
        QVERIFY(pid > 0);
        checkReads(*worker);
        QCOMPARE(worker->processId(), pid);
    }

    void timeLimitStopsAHungWorker() {
        const std::unique_ptr<FileWorker> worker = makeWorker();
        worker->setLimits(FileWorker::Limits{.call = std::chrono::seconds(2)});
        checkReads(*worker);
        const qint64 pid = worker->processId();
        QVERIFY(stop(pid));

        QSignalSpy lost(worker.get(), &FileWorker::workerLost);
        QElapsedTimer clock;
        clock.start();
        QCOMPARE(call(*worker, QStringLiteral("local_read_file"),
                      readParams(QStringLiteral("Docs/notes.txt"))),
                 errorOnly(QStringLiteral("The call took longer than 2 seconds and was stopped. "
                                          "The file tools start afresh for the next call.")));
        // Not before the limit.
        QVERIFY2(clock.elapsed() >= 1900, qPrintable(QString::number(clock.elapsed())));
        QCOMPARE(lost.size(), 1);
        QCOMPARE(lost.front().front().toString(),
                 QStringLiteral("a call took longer than 2 seconds"));
        QCOMPARE(worker->processId(), 0);
        // Killed and reaped, not left stopped or a zombie.
        QVERIFY(QTest::qWaitFor([&] { return gone(pid); }, 5000));

        checkReads(*worker);
        QVERIFY(worker->processId() > 0);
        QVERIFY(worker->processId() != pid);
    }

    void killedMidCallTakesOnlyItsCall() {
        const std::unique_ptr<FileWorker> worker = makeWorker();
        checkReads(*worker);
        const qint64 pid = worker->processId();
        QVERIFY(stop(pid));
        QSignalSpy lost(worker.get(), &FileWorker::workerLost);
        // The call is in the worker's socket once run() has begun.
        const Answer answer =
            start(*worker, QStringLiteral("local_list_files"), readParams(QStringLiteral("Docs")));
        QCOMPARE(::kill(pid_t(pid), SIGKILL), 0);
        QCOMPARE(waitFor(answer), errorOnly(killedMidCall));
        QCOMPARE(lost.size(), 1);
        QCOMPARE(lost.front().front().toString(), QStringLiteral("stopped by signal 9"));
        QVERIFY(QTest::qWaitFor([&] { return gone(pid); }, 5000));

        checkReads(*worker);
        QVERIFY(worker->processId() > 0);
        QVERIFY(worker->processId() != pid);
    }

    void killedBetweenCallsIsReplaced() {
        const std::unique_ptr<FileWorker> worker = makeWorker();
        checkReads(*worker);
        const qint64 pid = worker->processId();
        QSignalSpy lost(worker.get(), &FileWorker::workerLost);
        QCOMPARE(::kill(pid_t(pid), SIGKILL), 0);
        QVERIFY(lost.wait(5000));
        QCOMPARE(worker->processId(), 0);
        QVERIFY(QTest::qWaitFor([&] { return gone(pid); }, 5000));
        checkReads(*worker);
        QVERIFY(worker->processId() != pid);
    }

    void changedFoldersGetANewWorker() {
        const std::unique_ptr<FileWorker> worker = makeWorker();
        const QList<SharedFolder> docs{folder(QStringLiteral("Docs"))};
        worker->setFolders(docs);
        checkReads(*worker);
        const qint64 first = worker->processId();
        worker->setFolders(docs);
        checkReads(*worker);
        QCOMPARE(worker->processId(), first);

        worker->setFolders({folder(QStringLiteral("Other")), folder(QStringLiteral("More"))});
        QCOMPARE(call(*worker, QStringLiteral("local_read_file"),
                      readParams(QStringLiteral("Other/other.txt"))),
                 (QJsonObject{{QStringLiteral("path"), QStringLiteral("Other/other.txt")},
                              {QStringLiteral("content"), QStringLiteral("other\n")},
                              {QStringLiteral("truncated"), false}}));
        const qint64 second = worker->processId();
        QVERIFY(second > 0);
        QVERIFY(second != first);
        QVERIFY(QTest::qWaitFor([&] { return gone(first); }, 5000));
        QCOMPARE(call(*worker, QStringLiteral("local_read_file"),
                      readParams(QStringLiteral("Docs/notes.txt"))),
                 errorOnly(QStringLiteral("No shared folder named 'Docs'. Prefix the path with a "
                                          "folder name. Shared folders: Other, More.")));
        // Nor through a link from a folder still shared.
        QCOMPARE(call(*worker, QStringLiteral("local_read_file"),
                      readParams(QStringLiteral("Other/to-docs.txt"))),
                 errorOnly(QStringLiteral("Path leads outside the shared folders.")));
        QCOMPARE(worker->processId(), second);
    }

    void eachWriteIsAskedAboutOnce() {
        const std::unique_ptr<FileWorker> worker = makeWorker();
        allow = false;
        QCOMPARE(call(*worker, QStringLiteral("local_write_file"),
                      writeParams(QStringLiteral("Docs/new.txt"), QStringLiteral("hello"))),
                 errorOnly(declined));
        QCOMPARE(questions, (QList<Question>{{QStringLiteral("Docs/new.txt"), 5}}));
        QVERIFY(!QFile::exists(tree->path(QStringLiteral("Docs/new.txt"))));

        QCOMPARE(call(*worker, QStringLiteral("local_write_file"),
                      writeParams(QStringLiteral("Docs/notes.txt"), QStringLiteral("changed!"))),
                 errorOnly(declined));
        QCOMPARE(questions.size(), 2);
        QCOMPARE(questions.back(), (Question{QStringLiteral("Docs/notes.txt"), 8}));
        QCOMPARE(fileBytes(QStringLiteral("Docs/notes.txt")), notes);

        allow = true;
        QCOMPARE(call(*worker, QStringLiteral("local_write_file"),
                      writeParams(QStringLiteral("Docs/new.txt"), QStringLiteral("hello"))),
                 written(QStringLiteral("Docs/new.txt"), 5));
        QCOMPARE(questions.size(), 3);
        QCOMPARE(fileBytes(QStringLiteral("Docs/new.txt")), QByteArray("hello"));

        // Reads ask nothing.
        checkReads(*worker);
        QCOMPARE(questions.size(), 3);
    }

    void waitingForTheUserDoesNotCountTowardsTheLimit() {
        const std::unique_ptr<FileWorker> worker = makeWorker();
        worker->setLimits(FileWorker::Limits{.call = std::chrono::seconds(1)});
        gate = std::make_unique<QPromise<bool>>();
        gate->start();
        const Answer answer =
            start(*worker, QStringLiteral("local_write_file"),
                  writeParams(QStringLiteral("Docs/slow.txt"), QStringLiteral("ok")));
        QVERIFY(QTest::qWaitFor([&] { return !questions.isEmpty(); }, 10000));
        QTest::qWait(2000);
        QVERIFY(!answer->has_value());
        openGate(true);
        gate.reset();
        QCOMPARE(waitFor(answer), written(QStringLiteral("Docs/slow.txt"), 2));
        QCOMPARE(fileBytes(QStringLiteral("Docs/slow.txt")), QByteArray("ok"));
    }

    void workerKilledWhileAskingTakesTheAnswerWithIt() {
        const std::unique_ptr<FileWorker> worker = makeWorker();
        gate = std::make_unique<QPromise<bool>>();
        gate->start();
        const Answer answer =
            start(*worker, QStringLiteral("local_write_file"),
                  writeParams(QStringLiteral("Docs/asked.txt"), QStringLiteral("no")));
        QVERIFY(QTest::qWaitFor([&] { return !questions.isEmpty(); }, 10000));
        const qint64 pid = worker->processId();
        QVERIFY(pid > 0);
        QSignalSpy lost(worker.get(), &FileWorker::workerLost);
        QCOMPARE(::kill(pid_t(pid), SIGKILL), 0);
        // The companion has seen it end before the user answers.
        QVERIFY(QTest::qWaitFor([&] { return worker->processId() == 0; }, 5000));
        QVERIFY(QTest::qWaitFor([&] { return gone(pid); }, 5000));
        QVERIFY(!answer->has_value());
        openGate(true);
        gate.reset();
        QCOMPARE(waitFor(answer), errorOnly(killedMidCall));
        QVERIFY(!QFile::exists(tree->path(QStringLiteral("Docs/asked.txt"))));
        QCOMPARE(questions.size(), 1);
        QCOMPARE(lost.size(), 1);
        QCOMPARE(lost.front().front().toString(), QStringLiteral("stopped by signal 9"));

        allow = true;
        QCOMPARE(call(*worker, QStringLiteral("local_write_file"),
                      writeParams(QStringLiteral("Docs/asked.txt"), QStringLiteral("yes"))),
                 written(QStringLiteral("Docs/asked.txt"), 3));
        QVERIFY(worker->processId() != pid);
    }

    void workerThatCannotStart_data() {
        QTest::addColumn<QString>("program");
        QTest::addColumn<QString>("problem");
        QTest::newRow("missing") << QStringLiteral("/nonexistent/quillmar-file-worker")
                                 << QStringLiteral("/nonexistent/quillmar-file-worker is missing");
        QTest::newRow("not executable")
            << QStringLiteral("{tree}/plain") << QStringLiteral("{tree}/plain is missing");
        QTest::newRow("ends at once")
            << QStringLiteral("/bin/true") << QStringLiteral("exit status 0");
        // cat sends the setup straight back: not the answer a worker gives.
        QTest::newRow("answers wrongly")
            << QStringLiteral("/bin/cat") << QStringLiteral("it did not start properly");
        QTest::newRow("never answers") << QStringLiteral("{tree}/silent")
                                       << QStringLiteral("it did not answer within 1 second");
    }
    void workerThatCannotStart() {
        QFETCH(QString, program);
        QFETCH(QString, problem);
        tree->file(QStringLiteral("plain"), "#!/bin/sh\nexit 0\n");
        tree->chmod(QStringLiteral("plain"), 0644);
        tree->file(QStringLiteral("silent"), "#!/bin/sh\nexec sleep 60\n");
        tree->chmod(QStringLiteral("silent"), 0755);
        program.replace(QStringLiteral("{tree}"), tree->path());
        problem.replace(QStringLiteral("{tree}"), tree->path());

        const std::unique_ptr<FileWorker> worker = makeWorker(program);
        worker->setLimits(FileWorker::Limits{.start = std::chrono::seconds(1)});
        QCOMPARE(
            call(*worker, QStringLiteral("local_read_file"),
                 readParams(QStringLiteral("Docs/notes.txt"))),
            errorOnly(QStringLiteral("The file tools could not be started: ") + problem + u'.'));
        QCOMPARE(worker->processId(), 0);
        // Asked again, it tries again and says the same.
        QCOMPARE(
            call(*worker, QStringLiteral("local_list_files"), readParams(QStringLiteral("Docs"))),
            errorOnly(QStringLiteral("The file tools could not be started: ") + problem + u'.'));
    }

    void idleWorkerEnds() {
        const std::unique_ptr<FileWorker> worker = makeWorker();
        worker->setLimits(FileWorker::Limits{.idle = std::chrono::seconds(1)});
        checkReads(*worker);
        const qint64 pid = worker->processId();
        QVERIFY(pid > 0);
        QSignalSpy lost(worker.get(), &FileWorker::workerLost);
        QTest::qWait(1500);
        QVERIFY(QTest::qWaitFor([&] { return worker->processId() == 0; }, 5000));
        QVERIFY(QTest::qWaitFor([&] { return gone(pid); }, 5000));
        // Ended on purpose: nothing was lost.
        QCOMPARE(lost.size(), 0);
        checkReads(*worker);
        QVERIFY(worker->processId() != pid);
    }

    void destroyedWorkerLeavesNoProcess_data() {
        QTest::addColumn<bool>("stopped");
        QTest::newRow("idle") << false;
        QTest::newRow("stopped") << true;
    }
    void destroyedWorkerLeavesNoProcess() {
        QFETCH(bool, stopped);
        auto worker = makeWorker();
        checkReads(*worker);
        const qint64 pid = worker->processId();
        QVERIFY(pid > 0);
        if (stopped) {
            QVERIFY(stop(pid));
        }
        worker.reset();
        QVERIFY(QTest::qWaitFor([&] { return gone(pid); }, 5000));
    }
};

QTEST_GUILESS_MAIN(FileWorkerTest)
#include "tst_fileworker.moc"
