#pragma once

#include <QString>

// How the file tools are kept inside the shared folders: always by the companion's own checks,
// and also by the kernel (Landlock) where it can. What status and the window show.
class Confinement {
public:
    enum class Kind {
        Kernel,        // the worker is confined by the kernel
        CompanionOnly, // no usable Landlock: the companion's checks alone
        TurnedOff,     // kernel confinement switched off by QUILLMAR_KERNEL_CONFINEMENT=off
    };

    Confinement() = default;
    Confinement(Kind kind, int abi, QString reason = QString());

    Kind kind() const { return m_kind; }
    int abi() const { return m_abi; }
    // Why the kernel does not confine the tools, when it does not.
    const QString& reason() const { return m_reason; }

    // "File access: confined by the kernel", or which checks apply instead.
    QString text() const;

    // Whether kernel confinement is wanted (it is, unless the environment turns it off).
    static bool wanted();
    // What a worker started now would report, without starting one.
    static Confinement expected();

    friend bool operator==(const Confinement& a, const Confinement& b) {
        return a.m_kind == b.m_kind && a.m_abi == b.m_abi && a.m_reason == b.m_reason;
    }

private:
    Kind m_kind = Kind::CompanionOnly;
    int m_abi = 0;
    QString m_reason;
};
