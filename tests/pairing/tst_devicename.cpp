#include "DeviceName.h"
#include "TempTree.h"

#include <QSysInfo>
#include <QTest>

class DeviceNameTest : public QObject {
    Q_OBJECT

    TempTree tree;

private slots:
    void prettyHostNameIsRead_data() {
        QTest::addColumn<QByteArray>("contents");
        QTest::addColumn<QString>("expected");
        QTest::newRow("double quotes")
            << QByteArray("PRETTY_HOSTNAME=\"Anna's Laptop\"\n") << QStringLiteral("Anna's Laptop");
        QTest::newRow("single quotes") << QByteArray("PRETTY_HOSTNAME='Lab \"Box\" \\n'\n")
                                       << QStringLiteral("Lab \"Box\" \\n");
        QTest::newRow("escaped blank")
            << QByteArray("PRETTY_HOSTNAME=Plain\\ Name\n") << QStringLiteral("Plain Name");
        QTest::newRow("escapes in double quotes")
            << QByteArray("PRETTY_HOSTNAME=\"A \\\"b\\\" \\\\ \\$x \\q\"")
            << QStringLiteral("A \"b\" \\ $x \\q");
        QTest::newRow("among others")
            << QByteArray(
                   "# set by hostnamectl\nCHASSIS=laptop\n  PRETTY_HOSTNAME = \"Büro 日本\"  \n"
                   "DEPLOYMENT=production\n")
            << QStringLiteral("Büro 日本");
        QTest::newRow("unquoted trailing blanks")
            << QByteArray("PRETTY_HOSTNAME=  two words\t \n") << QStringLiteral("two words");
        QTest::newRow("joined quoting") << QByteArray("PRETTY_HOSTNAME=Kim\\'s\\ \"big\"' box'\n")
                                        << QStringLiteral("Kim's big box");
        QTest::newRow("last one wins")
            << QByteArray("PRETTY_HOSTNAME=first\nPRETTY_HOSTNAME=second\n")
            << QStringLiteral("second");
        QTest::newRow("crlf") << QByteArray("PRETTY_HOSTNAME=\"Win Box\"\r\n")
                              << QStringLiteral("Win Box");
    }
    void prettyHostNameIsRead() {
        QFETCH(QByteArray, contents);
        QFETCH(QString, expected);
        const QString path = tree.file(QStringLiteral("machine-info"), contents);
        QCOMPARE(DeviceName::prettyHostName(path), std::optional<QString>(expected));
        QCOMPARE(DeviceName::current(path), expected);
    }

    void unusablePrettyHostNameIsNone_data() {
        QTest::addColumn<QByteArray>("contents");
        QTest::newRow("empty file") << QByteArray();
        QTest::newRow("other keys") << QByteArray("CHASSIS=desktop\nICON_NAME=computer\n");
        QTest::newRow("commented") << QByteArray("#PRETTY_HOSTNAME=Hidden\n;PRETTY_HOSTNAME=Too\n");
        QTest::newRow("empty value") << QByteArray("PRETTY_HOSTNAME=\n");
        QTest::newRow("empty quotes") << QByteArray("PRETTY_HOSTNAME=\"\"\n");
        QTest::newRow("blank value") << QByteArray("PRETTY_HOSTNAME=\"   \"\n");
        QTest::newRow("unterminated") << QByteArray("PRETTY_HOSTNAME=\"Half\n");
        QTest::newRow("similar key") << QByteArray("PRETTY_HOSTNAME_OLD=Old\n");
    }
    void unusablePrettyHostNameIsNone() {
        QFETCH(QByteArray, contents);
        const QString path = tree.file(QStringLiteral("machine-info"), contents);
        QCOMPARE(DeviceName::prettyHostName(path), std::nullopt);
    }

    void missingFileFallsBackToHostName() {
        const QString path = tree.path(QStringLiteral("no-such-machine-info"));
        QCOMPARE(DeviceName::prettyHostName(path), std::nullopt);
        const QString host = QSysInfo::machineHostName();
        QCOMPARE(DeviceName::current(path), host.isEmpty() ? QStringLiteral("My computer") : host);
    }

    void choiceOrder() {
        QCOMPARE(DeviceName::choose(QStringLiteral("Pretty"), QStringLiteral("host")),
                 QStringLiteral("Pretty"));
        QCOMPARE(DeviceName::choose(std::nullopt, QStringLiteral("host")), QStringLiteral("host"));
        QCOMPARE(DeviceName::choose(QStringLiteral(" "), QStringLiteral("host")),
                 QStringLiteral("host"));
        QCOMPARE(DeviceName::choose(std::nullopt, QString()), QStringLiteral("My computer"));
        QCOMPARE(DeviceName::choose(std::nullopt, QStringLiteral("  ")),
                 QStringLiteral("My computer"));
    }

    void defaultLocation() {
        QCOMPARE(DeviceName::defaultMachineInfoPath(), QStringLiteral("/etc/machine-info"));
        QVERIFY(!DeviceName::current().isEmpty());
    }
};

QTEST_GUILESS_MAIN(DeviceNameTest)
#include "tst_devicename.moc"
