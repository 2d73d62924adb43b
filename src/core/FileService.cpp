#include "FileService.h"

#include "FileReader.h"
#include "FileSearcher.h"
#include "FileSystemError.h"
#include "FileWriter.h"
#include "FolderLister.h"
#include "JsonParams.h"
#include "PathResolver.h"
#include "ToolError.h"

#include <exception>
#include <new>
#include <utility>

namespace {

ToolResult listFolder(const QJsonObject& params, const QList<SharedFolder>& folders, bool asJson) {
    const QString path = JsonParams::string(params, QStringLiteral("path")).value_or(QString());
    if (asJson) {
        return ToolResult::fromJson(FolderLister::listJson(path, folders));
    }
    return FolderLister::list(path, folders);
}

} // namespace

QJsonObject FileService::errorObject(const QString& message) {
    return QJsonObject{{QStringLiteral("error"), message}};
}

QCoro::Task<QJsonObject> FileService::handle(QString method, QJsonObject params,
                                             QList<SharedFolder> folders) {
    const ToolResult result =
        co_await dispatch(std::move(method), std::move(params), std::move(folders), false);
    co_return result.toObject();
}

QCoro::Task<ToolResult> FileService::run(QString method, QJsonObject params,
                                         QList<SharedFolder> folders) {
    return dispatch(std::move(method), std::move(params), std::move(folders), true);
}

QCoro::Task<ToolResult> FileService::dispatch(QString method, QJsonObject params,
                                              QList<SharedFolder> folders, bool asJson) {
    try {
        if (method == u"local_list_files") {
            co_return listFolder(params, folders, asJson);
        }
        if (method == u"local_read_file") {
            const QString path = PathResolver::requirePath(params);
            co_return FileReader::read(path, folders);
        }
        if (method == u"local_search_files") {
            co_return FileSearcher::search(params, folders);
        }
        if (method == u"local_write_file") {
            co_return co_await FileWriter::write(params, folders);
        }
    } catch (const ToolError& error) {
        co_return errorObject(error.message());
    } catch (const FileSystemError& error) {
        co_return errorObject(error.description());
    } catch (const std::bad_alloc&) {
        co_return errorObject(QStringLiteral("Not enough memory to complete the call."));
    } catch (const std::exception& error) {
        co_return errorObject(QString::fromUtf8(error.what()));
    }
    co_return errorObject(QStringLiteral("Unknown method: ") + method);
}
