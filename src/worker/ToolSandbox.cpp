#include "ToolSandbox.h"

#include "AccessPolicy.h"
#include "FileSearcher.h"
#include "Landlock.h"
#include "SyscallFilter.h"

#include <QJsonObject>
#include <QLoggingCategory>

Q_LOGGING_CATEGORY(lcSandbox, "quillmar.worker.sandbox", QtWarningMsg)

namespace {

// fnmatch's UTF-8 locale is read from disk on first use; once confined, the process could not
// read it any more. (ICU's data and Qt's character tables are part of their libraries.)
void loadEverythingTheToolsNeed() {
    const AccessPolicy nothing({}, {});
    FileSearcher::search(QJsonObject{{QStringLiteral("query"), QStringLiteral("\u00e9*")}},
                         nothing);
}

} // namespace

Confinement ToolSandbox::enter(const QList<SharedFolder>& folders, bool kernelConfinement) {
    loadEverythingTheToolsNeed();

    Confinement confinement;
    if (kernelConfinement) {
        QList<Landlock::Folder> allowed;
        for (const SharedFolder& folder : folders) {
            allowed.append(
                Landlock::Folder{AccessPolicy::realOrLexical(folder.path), !folder.readOnly});
        }
        const Landlock::Outcome outcome = Landlock::restrictSelf(allowed);
        confinement = outcome.confined ? Confinement(Confinement::Kind::Kernel, outcome.abi)
                                       : Confinement(Confinement::Kind::CompanionOnly, outcome.abi,
                                                     outcome.reason);
    } else {
        confinement = Confinement(Confinement::Kind::TurnedOff, Landlock::abi());
    }
    // Whatever the kernel's file rules cover, the tools never need sockets or programs.
    if (const QString problem = SyscallFilter::install(); !problem.isEmpty()) {
        qCWarning(lcSandbox) << "file tools run without their system call filter:" << problem;
    }
    return confinement;
}
