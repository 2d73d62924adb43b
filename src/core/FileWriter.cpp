#include "FileWriter.h"

#include "FileDescriptor.h"
#include "FileNameCodec.h"
#include "FileService.h"
#include "FileSystemError.h"
#include "JsonParams.h"
#include "PathResolver.h"
#include "Platform.h"
#include "ToolError.h"
#include "WriteRecorder.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

bool isBase64Letter(char16_t c) {
    return (c >= u'A' && c <= u'Z') || (c >= u'a' && c <= u'z') || (c >= u'0' && c <= u'9') ||
           c == u'+' || c == u'/';
}

int writeAll(int fd, const QByteArray& data) {
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

PendingWrite FileWriter::prepare(const QJsonObject& params, const AccessPolicy& policy) {
    PendingWrite pending;
    pending.path = PathResolver::requirePath(params);
    const PathResolver::Resolved resolved = PathResolver::resolve(pending.path, policy.folders());

    std::optional<QByteArray> decoded;
    if (const auto base64 = JsonParams::string(params, QStringLiteral("content_base64"))) {
        decoded = decodeStrictBase64(*base64);
    }
    if (decoded) {
        pending.data = std::move(*decoded);
    } else if (const auto content = JsonParams::string(params, QStringLiteral("content"))) {
        pending.data = content->toUtf8();
    }

    // A read-only folder refuses before anything else is looked at, whether the path names it
    // or a link leads into it.
    if (const SharedFolder& named = policy.folders().at(resolved.folderIndex); named.readOnly) {
        throw ToolError(readOnlyMessage(named.name));
    }
    pending.target = policy.locate(resolved.item, AccessPolicy::Purpose::Write);
    if (const SharedFolder* real = policy.folderAt(pending.target.realPath);
        real && real->readOnly && !pending.target.realPath.isEmpty()) {
        throw ToolError(readOnlyMessage(real->name));
    }
    pending.shownPath = pending.path;
    // Where no link was followed the real place is the folder's place plus the same inner
    // path; otherwise the user is told where the write really goes.
    QString inner = resolved.item.mid(resolved.root.size());
    QByteArray expected = AccessPolicy::realOrLexical(resolved.root);
    if (resolved.root == u"/" && !inner.isEmpty()) {
        inner.prepend(u'/');
    }
    if (expected == "/" && !inner.isEmpty()) {
        expected.clear();
    }
    expected += FileNameCodec::encode(inner);
    if (!pending.target.realPath.isEmpty() && pending.target.realPath != expected) {
        if (const std::optional<QString> real = policy.agentPath(pending.target.realPath)) {
            pending.shownPath += QStringLiteral(" (a link to ") + *real + u')';
        }
    }
    return pending;
}

QJsonObject FileWriter::commit(PendingWrite& write, const AccessPolicy& policy,
                               WriteRecorder* recorder) {
    const QString& path = write.path;
    FileLocation& target = write.target;
    if (target.error == EINVAL) {
        throw FileSystemError(QStringLiteral("the path contains a NUL character"),
                              QStringLiteral("write"), path);
    }
    if (!target.directory.valid() || (target.error != 0 && target.error != ENOENT)) {
        const int error = target.error != 0 ? target.error : ENOENT;
        throw FileSystemError(error,
                              error == ENOTDIR ? QStringLiteral("create the folders for")
                                               : QStringLiteral("write"),
                              path);
    }
    // Missing folders are made one level at a time below the checked directory, each opened
    // without following links before the next is made in it. Whatever is made is checked where
    // it would appear right before: the user may have taken a while to answer, and folders can
    // move meanwhile. (An existing target is checked itself once it is open.)
    FileDescriptor directory(::dup(target.directory.get()));
    for (const QByteArray& folder : std::as_const(target.missing)) {
        policy.confirmNew(directory.get(), folder);
        if (::mkdirat(directory.get(), folder.constData(), 0777) != 0 && errno != EEXIST) {
            throw FileSystemError(errno, QStringLiteral("create the folders for"), path);
        }
        directory = FileDescriptor(::openat(directory.get(), folder.constData(),
                                            O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!directory.valid()) {
            throw FileSystemError(errno, QStringLiteral("create the folders for"), path);
        }
    }

    // O_NONBLOCK: a FIFO without a reader fails at once instead of blocking the caller.
    const int flags = O_WRONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK | O_NOFOLLOW;
    const char* name = target.name.constData();
    bool created = false;
    FileDescriptor file(::openat(directory.get(), name, flags));
    if (!file.valid() && errno == ENOENT) {
        policy.confirmNew(directory.get(), target.name);
        file = FileDescriptor(::openat(directory.get(), name, flags | O_CREAT | O_EXCL, 0666));
        created = file.valid();
    }
    if (!file.valid()) {
        throw FileSystemError(errno, QStringLiteral("write"), path);
    }
    policy.confirm(file.get());
    struct stat info {};
    const bool haveStatus = ::fstat(file.get(), &info) == 0;
    const bool regular = haveStatus && S_ISREG(info.st_mode);
    if (recorder && regular && !created) {
        // Read through a descriptor of its own, checked to be the very file about to be cut.
        FileDescriptor previous(
            ::openat(directory.get(), name, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NOFOLLOW));
        struct stat previousInfo {};
        if (previous.valid() &&
            (::fstat(previous.get(), &previousInfo) != 0 || previousInfo.st_dev != info.st_dev ||
             previousInfo.st_ino != info.st_ino)) {
            previous = FileDescriptor();
        }
        recorder->replacing(write, previous.get(), info);
    }
    // Replaced in full: truncated, then written. Only files have a length to cut.
    int error = 0;
    if (regular && ::ftruncate(file.get(), 0) != 0) {
        error = errno;
    }
    if (error == 0) {
        error = writeAll(file.get(), write.data);
    }
    if (recorder && (regular || created)) {
        struct stat after {};
        const bool haveAfter = ::fstat(file.get(), &after) == 0;
        recorder->written(write, created, haveAfter ? &after : nullptr);
    }
    if (::close(file.release()) != 0 && error == 0 && errno != EINTR) {
        error = errno;
    }
    if (error != 0) {
        throw FileSystemError(error, QStringLiteral("write"), path);
    }
    return QJsonObject{{QStringLiteral("success"), true},
                       {QStringLiteral("path"), path},
                       {QStringLiteral("bytes"), static_cast<qint64>(write.data.size())}};
}

QString FileWriter::readOnlyMessage(const QString& folderName) {
    return QStringLiteral("The folder '%1' is shared read-only.").arg(folderName);
}

QJsonObject FileWriter::declined() {
    return FileService::errorObject(QStringLiteral("Write was declined on the user's ") +
                                    Platform::device() + u'.');
}

QCoro::Task<QJsonObject> FileWriter::write(QJsonObject params, AccessPolicy policy,
                                           WriteApprover approve) {
    PendingWrite pending = prepare(params, policy);
    if (!approve) {
        co_return declined();
    }
    const bool approved = co_await approve(pending.shownPath, pending.data.size());
    if (!approved) {
        co_return declined();
    }
    co_return commit(pending, policy);
}
