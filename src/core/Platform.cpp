#include "Platform.h"

#include <QtGlobal>

namespace {

struct Identity {
    QStringView claimName;
    const char* userAgent;
    QStringView fallbackDeviceName;
    QStringView device;
    QStringView iconHome;
    QStringView iconReach;
};

// The macOS build keeps the companion's first wording; the Linux build names no Mac and no
// menu bar. "My computer" rather than "Linux computer": it reads like "this computer" in the
// texts, and the claim already tells the service the platform.
#if defined(Q_OS_MACOS)
constexpr Identity chosen{
    .claimName = u"macos",
    .userAgent = "QuillmarCompanion/0.1 (macOS)",
    .fallbackDeviceName = u"My Mac",
    .device = u"Mac",
    .iconHome = u"your menu bar",
    .iconReach = u"the menu bar",
};
#else
constexpr Identity chosen{
    .claimName = u"linux",
    .userAgent = "QuillmarCompanion/0.1 (Linux)",
    .fallbackDeviceName = u"My computer",
    .device = u"computer",
    .iconHome = u"the system tray",
    .iconReach = u"the tray or panel",
};
#endif

} // namespace

QString Platform::claimName() {
    return chosen.claimName.toString();
}

QByteArray Platform::userAgent() {
    return QByteArray(chosen.userAgent);
}

QString Platform::fallbackDeviceName() {
    return chosen.fallbackDeviceName.toString();
}

QString Platform::device() {
    return chosen.device.toString();
}

QString Platform::iconHome() {
    return chosen.iconHome.toString();
}

QString Platform::iconReach() {
    return chosen.iconReach.toString();
}
