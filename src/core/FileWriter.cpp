#include "FileWriter.h"

#include "FileService.h"
#include "FileSystemError.h"
#include "JsonParams.h"
#include "PathResolver.h"
#include "ToolError.h"
#include "WriteApproval.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

bool isBase64Letter(char16_t c) {
    return (c >= u'A' && c <= u'Z') || (c >= u'a' && c <= u'z') || (c >= u'0' && c <= u'9') ||
           c == u'+' || c == u'/';
}

// mkdir -p for the parent of `path`; existing directories are fine.
int makeParents(const QByteArray& path) {
    const qsizetype lastSlash = path.lastIndexOf('/');
    if (lastSlash <= 0) {
        return 0;
    }
    const QByteArray parent = path.left(lastSlash);
    struct stat info {};
    if (::stat(parent.constData(), &info) == 0) {
        return S_ISDIR(info.st_mode) ? 0 : ENOTDIR;
    }
    if (const int error = makeParents(parent); error != 0) {
        return error;
    }
    if (::mkdir(parent.constData(), 0777) != 0 && errno != EEXIST) {
        return errno;
    }
    return 0;
}

int writeAll(const QByteArray& path, const QByteArray& data) {
    // O_NONBLOCK: a FIFO without a reader fails at once instead of blocking the caller.
    const int fd = ::open(path.constData(),
                          O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0666);
    if (fd < 0) {
        return errno;
    }
    qsizetype written = 0;
    int error = 0;
    while (written < data.size()) {
        const ssize_t n = ::write(fd, data.constData() + written,
                                  static_cast<std::size_t>(data.size() - written));
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            error = errno;
            break;
        }
        written += n;
    }
    if (::close(fd) != 0 && error == 0 && errno != EINTR) {
        error = errno;
    }
    return error;
}

} // namespace

std::optional<QByteArray> FileWriter::decodeStrictBase64(const QString& text) {
    if (text.size() % 4 != 0) {
        return std::nullopt;
    }
    qsizetype padding = 0;
    while (padding < 2 && padding < text.size() && text[text.size() - 1 - padding] == u'=') {
        ++padding;
    }
    for (qsizetype i = 0; i < text.size() - padding; ++i) {
        if (!isBase64Letter(text[i].unicode())) {
            return std::nullopt;
        }
    }
    auto decoded =
        QByteArray::fromBase64Encoding(text.toLatin1(), QByteArray::AbortOnBase64DecodingErrors);
    if (!decoded) {
        return std::nullopt;
    }
    return *decoded;
}

QCoro::Task<QJsonObject> FileWriter::write(QJsonObject params, QList<SharedFolder> folders) {
    const QString path = PathResolver::requirePath(params);
    const PathResolver::Resolved resolved = PathResolver::resolve(path, folders);

    QByteArray data;
    std::optional<QByteArray> decoded;
    if (const auto base64 = JsonParams::string(params, QStringLiteral("content_base64"))) {
        decoded = decodeStrictBase64(*base64);
    }
    if (decoded) {
        data = *decoded;
    } else if (const auto content = JsonParams::string(params, QStringLiteral("content"))) {
        data = content->toUtf8();
    }

    const bool approved = co_await WriteApproval::request(path, data.size());
    if (!approved) {
        co_return FileService::errorObject(QStringLiteral("Write was declined on the user's Mac."));
    }

    const std::optional<QByteArray> native = PathResolver::nativePath(resolved.item);
    if (!native) {
        throw FileSystemError(QStringLiteral("the path contains a NUL character"),
                              QStringLiteral("write"), path);
    }
    if (const int error = makeParents(*native); error != 0) {
        throw FileSystemError(error, QStringLiteral("create the folders for"), path);
    }
    if (const int error = writeAll(*native, data); error != 0) {
        throw FileSystemError(error, QStringLiteral("write"), path);
    }
    co_return QJsonObject{{QStringLiteral("success"), true},
                          {QStringLiteral("path"), path},
                          {QStringLiteral("bytes"), static_cast<qint64>(data.size())}};
}
