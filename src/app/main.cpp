#include "BridgeCommand.h"
#include "CallCommand.h"

#include <QCoreApplication>
#include <QTextStream>

#include <cstdio>

int main(int argc, char* argv[]) {
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("app.quillmar.companion"));
    QCoreApplication::setApplicationVersion(QStringLiteral(QUILLMAR_VERSION));

    QTextStream out(stdout);
    QTextStream err(stderr);
    const QStringList arguments = app.arguments().mid(1);
    if (!arguments.isEmpty() && arguments.front() == u"call") {
        return CallCommand::run(arguments.mid(1), out, err);
    }
    if (!arguments.isEmpty() && arguments.front() == u"bridge") {
        return BridgeCommand::run(arguments.mid(1), out, err);
    }
    err << CallCommand::usage() << "\n" << BridgeCommand::usage() << "\n";
    return 2;
}
