#pragma once

#include "ClaimDecodeError.h"
#include "ClaimResponse.h"
#include "PairError.h"

#include <QCoroTask>
#include <QString>
#include <QUrl>

#include <chrono>
#include <optional>

// Exchanges a one-time pairing code from the web app for a device token: one POST, no state,
// no retry.
namespace PairingClient {

inline constexpr std::chrono::seconds requestTimeout{60};

// Throws PairError (its message is the text to show), or ClaimDecodeError when the
// service answered 200 with a body that is not a claim response. Every error's what() is
// its user-facing text in UTF-8, so a caller may simply catch std::exception.
// `timeout` bounds each wait for the server; callers keep the default.
QCoro::Task<ClaimResponse> claim(QString apiBase, QString code, QString deviceName,
                                 std::chrono::milliseconds timeout = requestTimeout);

// The base with the endpoint's path appended as text, so a base ending in "/" gives a path
// of "//api/...". Nothing when that is not an absolute URL (with a host, for http and https).
// Qt's HTTP stack collapses the doubled slash on the wire.
std::optional<QUrl> claimUrl(const QString& apiBase);

// The request body: the code trimmed and upper-cased, the name as given, compact JSON.
QByteArray claimBody(const QString& code, const QString& deviceName);

} // namespace PairingClient
