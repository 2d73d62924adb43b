#pragma once

#include <QCoroTask>
#include <QString>

#include <functional>

// The question put to the local user before an agent's write. The application installs the
// real handler (a prompt, or an immediate yes when the user switched the question off); until
// one is installed every write is refused, so nothing is ever written unasked.
class WriteApproval {
public:
    using Handler = std::function<QCoro::Task<bool>(QString path, qint64 bytes)>;

    static void setHandler(Handler handler);
    static bool hasHandler();
    static QCoro::Task<bool> request(QString path, qint64 bytes);
};
