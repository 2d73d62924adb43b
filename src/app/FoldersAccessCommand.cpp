#include "FoldersAccessCommand.h"

#include "AppState.h"
#include "OfflineState.h"

FoldersAccessCommand::FoldersAccessCommand()
    : Command(QStringLiteral("access"),
              QStringLiteral("let agents only read that folder, or also write it")) {
    addArgument(QStringLiteral("NAME"), QStringLiteral("the folder's name, as folders lists it"));
    addChoiceArgument(QStringLiteral("ACCESS"),
                      QStringLiteral("read-only: agents may read it; read-write: also write in it"),
                      {QStringLiteral("read-only"), QStringLiteral("read-write")});
}

int FoldersAccessCommand::execute(const QCommandLineParser& parser, QTextStream& out,
                                  QTextStream& err) const {
    const QString name = parser.positionalArguments().at(0);
    const QString access = parser.positionalArguments().at(1);
    AppState state(OfflineState::services(), OfflineState::options());
    for (const SharedFolder& folder : state.folders()) {
        if (folder.name == name) {
            const SharedFolder changed = folder;
            state.setFolderReadOnly(changed, access == u"read-only");
            OfflineState::tellRunningCompanion();
            out << changed.name << "\t" << changed.path << "\t" << access << "\n" << Qt::flush;
            return 0;
        }
    }
    return fail(err, QStringLiteral("No shared folder named '%1'.").arg(name));
}
