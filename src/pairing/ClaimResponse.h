#pragma once

#include <QByteArray>
#include <QString>

// The service's answer to a successful pairing claim. Field names are the JSON keys.
struct ClaimResponse {
    QString device_token;
    QString device_id;
    QString org_id;

    friend bool operator==(const ClaimResponse& a, const ClaimResponse& b) = default;

    // Decodes a response body: a JSON object with all three keys holding strings; other keys
    // are ignored. Throws ClaimDecodeError with a readable text otherwise.
    static ClaimResponse fromJson(const QByteArray& body);
};
