#include "WriteApproval.h"

namespace {

WriteApproval::Handler& installed() {
    static WriteApproval::Handler handler;
    return handler;
}

} // namespace

void WriteApproval::setHandler(Handler handler) {
    installed() = std::move(handler);
}

bool WriteApproval::hasHandler() {
    return static_cast<bool>(installed());
}

QCoro::Task<bool> WriteApproval::request(QString path, qint64 bytes) {
    // Copied so that a handler replaced while the question is open stays alive.
    const Handler handler = installed();
    if (!handler) {
        co_return false;
    }
    co_return co_await handler(std::move(path), bytes);
}
