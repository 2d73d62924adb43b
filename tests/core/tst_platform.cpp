#include "Platform.h"

#include <QTest>

// What the Linux build tells the service and how its texts name the machine.
class PlatformTest : public QObject {
    Q_OBJECT

private slots:
    void identityForTheService() {
        QCOMPARE(Platform::claimName(), QStringLiteral("linux"));
        QCOMPARE(Platform::userAgent(), QByteArray("QuillmarCompanion/0.1 (Linux)"));
        QCOMPARE(Platform::fallbackDeviceName(), QStringLiteral("My computer"));
    }

    void wordsForTheTexts() {
        QCOMPARE(Platform::device(), QStringLiteral("computer"));
        QCOMPARE(Platform::iconHome(), QStringLiteral("the system tray"));
        QCOMPARE(Platform::iconReach(), QStringLiteral("the tray or panel"));
    }
};

QTEST_APPLESS_MAIN(PlatformTest)
#include "tst_platform.moc"
