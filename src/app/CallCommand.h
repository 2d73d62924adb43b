#pragma once

#include <QStringList>
#include <QTextStream>

// `quillmar-companion call METHOD [PARAMS_JSON] [--folder NAME=PATH]...`: one tool call, its
// result printed as one line of compact JSON. Exit status 0 for a result, 1 for an error
// result, 2 for bad usage.
class CallCommand {
public:
    static int run(const QStringList& arguments, QTextStream& out, QTextStream& err);
    static QString usage();
};
