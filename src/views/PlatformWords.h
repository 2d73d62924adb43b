#pragma once

#include <QObject>
#include <QString>
#include <QtQml/qqmlregistration.h>

// Shows QML the words of this build's Platform as the singleton `Platform`, so that the window
// names the machine and the icon's place as the tray menu and the service's answers do.
class PlatformWords : public QObject {
    Q_OBJECT
    QML_NAMED_ELEMENT(Platform)
    QML_SINGLETON
    Q_PROPERTY(QString device READ device CONSTANT)
    Q_PROPERTY(QString iconHome READ iconHome CONSTANT)
    Q_PROPERTY(QString iconReach READ iconReach CONSTANT)

public:
    explicit PlatformWords(QObject* parent = nullptr);

    static QString device();
    static QString iconHome();
    static QString iconReach();
};
