#pragma once

#include <QObject>
#include <QString>
#include <QtQml/qqmlregistration.h>

// Font facts QML cannot reach by itself. The window is laid out in device-independent pixels;
// text sizes given in fractions of a pixel (12.5) need a point size, which Qt turns back into
// pixels with the screen's logical DPI.
class Typography : public QObject {
    Q_OBJECT
    QML_ELEMENT
    QML_SINGLETON
    Q_PROPERTY(QString monospaceFamily READ monospaceFamily CONSTANT)
    Q_PROPERTY(qreal scale READ scale CONSTANT)

public:
    explicit Typography(QObject* parent = nullptr);

    // The point size that renders `pixels` pixels tall.
    Q_INVOKABLE static qreal points(qreal pixels);
    // The desktop's fixed-pitch family (DejaVu Sans Mono on a stock Debian).
    static QString monospaceFamily();
    // How much larger than Qt's default (9 pt) the application's font is, never below 1: every
    // size in the window is multiplied by it, so that a larger desktop font makes a larger
    // window rather than clipped text.
    static qreal scale();
};
