#include "Confinement.h"

#include "Landlock.h"

Confinement::Confinement(Kind kind, int abi, QString reason)
    : m_kind(kind), m_abi(abi), m_reason(std::move(reason)) {}

QString Confinement::text() const {
    switch (m_kind) {
    case Kind::Kernel:
        return QStringLiteral("File access: confined by the kernel");
    case Kind::TurnedOff:
        return QStringLiteral(
            "File access: checked by the companion (kernel confinement turned off)");
    case Kind::CompanionOnly:
        break;
    }
    return QStringLiteral("File access: checked by the companion (kernel confinement unavailable)");
}

bool Confinement::wanted() {
    return qEnvironmentVariable("QUILLMAR_KERNEL_CONFINEMENT") != u"off";
}

Confinement Confinement::expected() {
    const int abi = Landlock::abi();
    if (!wanted()) {
        return Confinement(Kind::TurnedOff, abi);
    }
    if (abi <= 0) {
        return Confinement(Kind::CompanionOnly, 0,
                           QStringLiteral("this kernel has no Landlock, or it is disabled"));
    }
    return Confinement(Kind::Kernel, abi);
}
