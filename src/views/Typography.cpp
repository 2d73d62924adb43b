#include "Typography.h"

#include <QFontDatabase>
#include <QGuiApplication>
#include <QScreen>

Typography::Typography(QObject* parent) : QObject(parent) {}

qreal Typography::points(qreal pixels) {
    // The same DPI QFont uses to turn points into pixels.
    qreal dpi = 96;
    if (QCoreApplication::testAttribute(Qt::AA_Use96Dpi)) {
        dpi = 96;
    } else if (const QScreen* screen = QGuiApplication::primaryScreen()) {
        dpi = qRound(screen->logicalDotsPerInchY());
    }
    return pixels * 72.0 / dpi;
}

QString Typography::monospaceFamily() {
    return QFontDatabase::systemFont(QFontDatabase::FixedFont).family();
}
