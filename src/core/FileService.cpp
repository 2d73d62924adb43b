#include "FileService.h"

#include "AppIdentity.h"
#include "CompanionError.h"
#include "FileReader.h"
#include "FileSearcher.h"
#include "FileWriter.h"
#include "FolderLister.h"
#include "JsonParams.h"
#include "PathResolver.h"

#include <exception>
#include <new>
#include <utility>

namespace {

// Every failure becomes the one shape the agent sees.
QJsonObject describeFailure(const std::exception_ptr& failure) {
    try {
        std::rethrow_exception(failure);
    } catch (const CompanionError& error) {
        return FileService::errorObject(error.message());
    } catch (const std::bad_alloc&) {
        return FileService::errorObject(QStringLiteral("Not enough memory to complete the call."));
    } catch (const std::exception& error) {
        return FileService::errorObject(QString::fromUtf8(error.what()));
    } catch (...) {
        return FileService::errorObject(QStringLiteral("The call failed for an unknown reason."));
    }
}

// The tools that never wait for anyone; nothing for a write or an unknown method.
std::optional<ToolResult> runDirect(const QString& method, const QJsonObject& params,
                                    const AccessPolicy& policy, bool asJson) {
    if (method == u"local_list_files") {
        const QString path = JsonParams::string(params, QStringLiteral("path")).value_or(QString());
        if (asJson) {
            return ToolResult::fromJson(FolderLister::listJson(path, policy));
        }
        return ToolResult(FolderLister::list(path, policy));
    }
    if (method == u"local_read_file") {
        const QString path = PathResolver::requirePath(params);
        return ToolResult(FileReader::read(path, policy));
    }
    if (method == u"local_search_files") {
        return ToolResult(FileSearcher::search(params, policy));
    }
    return std::nullopt;
}

ToolResult unknownMethod(const QString& method) {
    return FileService::errorObject(QStringLiteral("Unknown method: ") + method);
}

} // namespace

QJsonObject FileService::errorObject(const QString& message) {
    return QJsonObject{{QStringLiteral("error"), message}};
}

namespace {

QCoro::Task<ToolResult> dispatch(QString method, QJsonObject params, QList<SharedFolder> folders,
                                 WriteApprover approve, bool asJson) {
    const AccessPolicy policy(std::move(folders), AppIdentity::ownFiles());
    std::exception_ptr failure;
    try {
        if (method == u"local_write_file") {
            co_return co_await FileWriter::write(params, policy, std::move(approve));
        }
        if (std::optional<ToolResult> result = runDirect(method, params, policy, asJson)) {
            co_return std::move(*result);
        }
    } catch (...) {
        failure = std::current_exception();
    }
    if (failure) {
        co_return describeFailure(failure);
    }
    co_return unknownMethod(method);
}

} // namespace

QCoro::Task<QJsonObject> FileService::handle(QString method, QJsonObject params,
                                             QList<SharedFolder> folders, WriteApprover approve) {
    const ToolResult result = co_await dispatch(std::move(method), std::move(params),
                                                std::move(folders), std::move(approve), false);
    co_return result.toObject();
}

QCoro::Task<ToolResult> FileService::run(QString method, QJsonObject params,
                                         QList<SharedFolder> folders, WriteApprover approve) {
    return dispatch(std::move(method), std::move(params), std::move(folders), std::move(approve),
                    true);
}

ToolResult FileService::execute(const QString& method, const QJsonObject& params,
                                const AccessPolicy& policy, const Approver& approve,
                                WriteRecorder* recorder) {
    try {
        if (method == u"local_write_file") {
            PendingWrite pending = FileWriter::prepare(params, policy);
            if (!approve || !approve(pending.shownPath, pending.data.size())) {
                return FileWriter::declined();
            }
            return FileWriter::commit(pending, policy, recorder);
        }
        if (std::optional<ToolResult> result = runDirect(method, params, policy, true)) {
            return std::move(*result);
        }
    } catch (...) {
        return describeFailure(std::current_exception());
    }
    return unknownMethod(method);
}
