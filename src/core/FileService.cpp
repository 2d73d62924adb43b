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

QJsonObject FileService::errorObject(const QString& message) {
    return QJsonObject{{QStringLiteral("error"), message}};
}

QCoro::Task<QJsonObject> FileService::handle(QString method, QJsonObject params,
                                             QList<SharedFolder> folders) {
    try {
        if (method == u"local_list_files") {
            const QString path =
                JsonParams::string(params, QStringLiteral("path")).value_or(QString());
            co_return FolderLister::list(path, folders);
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
