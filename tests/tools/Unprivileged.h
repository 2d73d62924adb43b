#pragma once

#include <QJsonObject>
#include <QString>

#include <functional>
#include <optional>

// Runs a piece of work under an account that file permissions apply to. Root ignores them, so
// as root the work runs in a child process that has given up root for "nobody"; otherwise it
// runs right here.
class Unprivileged {
public:
    static bool isRoot();

    // The work's result; nothing when running as root and privileges cannot be dropped here,
    // or when "nobody" cannot reach `directory` (the test then has to be skipped). A child that
    // dies yields {"child": "<how it ended>"}, which no test expects.
    static std::optional<QJsonObject> run(const QString& directory,
                                          const std::function<QJsonObject()>& work);
};
