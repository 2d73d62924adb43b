// A stand-alone launch for the hand-over tests: takes the runtime folder and a patience in
// milliseconds, prints its role, and as the running instance prints "reopen" for each later
// launch until it is killed.

#include "SingleInstance.h"

#include <QCoreApplication>
#include <QTextStream>

#include <cstdio>

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    const QStringList arguments = app.arguments();
    if (arguments.size() != 3) {
        QTextStream(stderr) << "usage: shell_instance_probe DIRECTORY PATIENCE_MS\n";
        return 64;
    }
    QTextStream out(stdout);
    SingleInstance instance(arguments.at(1));
    const auto role = instance.start(std::chrono::milliseconds(arguments.at(2).toLongLong()));
    switch (role) {
    case SingleInstance::Role::Primary:
        out << "primary\n" << Qt::flush;
        QObject::connect(&instance, &SingleInstance::reopenRequested, &app, [&out] {
            out << "reopen\n" << Qt::flush;
        });
        return QCoreApplication::exec();
    case SingleInstance::Role::HandedOver:
        out << "handed over\n" << Qt::flush;
        return 0;
    case SingleInstance::Role::RunningElsewhere:
        out << "running elsewhere " << instance.runningMode() << " " << instance.runningProcess()
            << "\n"
            << Qt::flush;
        return 1;
    case SingleInstance::Role::Unanswered:
        out << "unanswered\n" << Qt::flush;
        return 1;
    case SingleInstance::Role::Alone:
        out << "alone\n" << Qt::flush;
        return 2;
    }
    return 3;
}
