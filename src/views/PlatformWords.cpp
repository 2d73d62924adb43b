#include "PlatformWords.h"

#include "Platform.h"

PlatformWords::PlatformWords(QObject* parent) : QObject(parent) {}

QString PlatformWords::device() {
    return Platform::device();
}

QString PlatformWords::iconHome() {
    return Platform::iconHome();
}

QString PlatformWords::iconReach() {
    return Platform::iconReach();
}
