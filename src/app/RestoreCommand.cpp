#include "RestoreCommand.h"

#include "AccessPolicy.h"
#include "AppIdentity.h"
#include "AppState.h"
#include "OfflineState.h"
#include "SingleInstance.h"
#include "VersionStore.h"
#include "VisibleText.h"

RestoreCommand::RestoreCommand()
    : Command(QStringLiteral("restore"),
              QStringLiteral("put a file back as it was before that write (or remove the file "
                             "the write created)")) {
    addArgument(QStringLiteral("ID"), QStringLiteral("the write's ID, as history lists it"));
}

int RestoreCommand::execute(const QCommandLineParser& parser, QTextStream& out,
                            QTextStream& err) const {
    const QString id = parser.positionalArguments().front();
    // The user's own action: read-only folders may be written back too.
    QList<SharedFolder> folders =
        AppState(OfflineState::services(), OfflineState::options()).folders();
    for (SharedFolder& folder : folders) {
        folder.readOnly = false;
    }
    VersionStore versions(VersionStore::defaultDirectory(), VersionStore::defaultBudget());
    const VersionStore::Restored restored =
        versions.restore(id, AccessPolicy(folders, AppIdentity::ownFiles()));
    if (!restored.ok) {
        return fail(err, VisibleText::oneLine(restored.message));
    }
    SingleInstance::ask(SingleInstance::defaultDirectory(),
                        QByteArrayLiteral("restored ") + id.toUtf8());
    out << VisibleText::oneLine(restored.message) << "\n" << Qt::flush;
    return 0;
}
