#pragma once

#include <QStringList>
#include <QTextStream>

// `quillmar-companion bridge [--api URL] [--folder NAME=PATH]...`: keeps the bridge to the
// service open for the given folders until the process is ended. The device token comes from
// QUILLMAR_DEVICE_TOKEN (never the command line, where other users could read it); the base from
// --api, else QUILLMAR_API. Every status change is printed as one line, "online TEXT" or
// "offline TEXT". Writes are refused: nobody is there to approve them. Exit status 2 for bad
// usage.
class BridgeCommand {
public:
    static int run(const QStringList& arguments, QTextStream& out, QTextStream& err);
    static QString usage();
};
