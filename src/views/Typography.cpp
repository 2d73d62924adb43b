#include "Typography.h"

#include <QFontDatabase>
#include <QGuiApplication>
#include <QScreen>

#include <algorithm>

Typography::Typography(QObject* parent) : QObject(parent) {}

namespace {

// The same DPI QFont uses to turn points into pixels.
qreal fontDpi() {
    if (QCoreApplication::testAttribute(Qt::AA_Use96Dpi)) {
        return 96;
    }
    if (const QScreen* screen = QGuiApplication::primaryScreen()) {
        return qRound(screen->logicalDotsPerInchY());
    }
    return 96;
}

// The size the window's design was made for: Qt's own default font.
constexpr qreal referencePoints = 9;

} // namespace

qreal Typography::points(qreal pixels) {
    return pixels * 72.0 / fontDpi();
}

qreal Typography::scale() {
    const QFont font = QGuiApplication::font();
    qreal points = font.pointSizeF();
    if (points <= 0) {
        points = font.pixelSize() * 72.0 / fontDpi();
    }
    return std::max<qreal>(1, points / referencePoints);
}

QString Typography::monospaceFamily() {
    return QFontDatabase::systemFont(QFontDatabase::FixedFont).family();
}
