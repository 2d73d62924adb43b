#include "Unprivileged.h"

#include <QByteArray>
#include <QFile>
#include <QJsonDocument>

#include <cerrno>

#include <grp.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr uid_t nobody = 65534;
constexpr int cannotDrop = 77;

[[noreturn]] void childMain(int out, const QString& directory,
                            const std::function<QJsonObject()>& work) {
    if (::setgroups(0, nullptr) != 0 || ::setgid(nobody) != 0 || ::setuid(nobody) != 0 ||
        ::geteuid() == 0 || ::access(QFile::encodeName(directory).constData(), X_OK) != 0) {
        ::_exit(cannotDrop);
    }
    const QByteArray json = QJsonDocument(work()).toJson(QJsonDocument::Compact);
    qsizetype written = 0;
    while (written < json.size()) {
        const ssize_t n = ::write(out, json.constData() + written,
                                  static_cast<std::size_t>(json.size() - written));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            ::_exit(1);
        }
        written += n;
    }
    // No destructors and no exit handlers: they belong to the parent (the temporary tree).
    ::_exit(0);
}

} // namespace

bool Unprivileged::isRoot() {
    return ::geteuid() == 0;
}

std::optional<QJsonObject> Unprivileged::run(const QString& directory,
                                             const std::function<QJsonObject()>& work) {
    if (!isRoot()) {
        return work();
    }
    int channel[2];
    if (::pipe(channel) != 0) {
        return std::nullopt;
    }
    const pid_t child = ::fork();
    if (child < 0) {
        ::close(channel[0]);
        ::close(channel[1]);
        return std::nullopt;
    }
    if (child == 0) {
        ::close(channel[0]);
        childMain(channel[1], directory, work);
    }
    ::close(channel[1]);
    QByteArray json;
    char buffer[4096];
    while (true) {
        const ssize_t n = ::read(channel[0], buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        json.append(buffer, n);
    }
    ::close(channel[0]);
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status) && WEXITSTATUS(status) == cannotDrop) {
        return std::nullopt;
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        return QJsonObject{
            {QStringLiteral("child"), QStringLiteral("ended with status %1").arg(status)}};
    }
    return QJsonDocument::fromJson(json).object();
}
