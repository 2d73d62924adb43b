#pragma once

#include <QCoroTask>
#include <QString>

#include <functional>

// The question put to the local user before an agent's write, asked once after every check:
// true lets the write happen. An empty approver refuses every write, so that nothing is ever
// written unasked.
using WriteApprover = std::function<QCoro::Task<bool>(QString shownPath, qint64 bytes)>;
