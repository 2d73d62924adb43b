#include "BridgeFixture.h"

#include <QTest>

BridgeFixture::BridgeFixture() {
    auto manual = std::make_unique<ManualScheduler>();
    scheduler = manual.get();
    client = std::make_unique<BridgeClient>(&calls, std::move(manual));
    QObject::connect(client.get(), &BridgeClient::statusChanged,
                     [this](bool online, const QString& text) {
                         statuses.append({online, text});
                     });
}

BridgeFixture::~BridgeFixture() = default;

QStringList BridgeFixture::texts() const {
    QStringList list;
    for (const auto& status : statuses) {
        list.append(status.second);
    }
    return list;
}

bool BridgeFixture::connectAndGreet() {
    const int before = service.connectionCount();
    client->connect(QStringLiteral("device-token"), service.apiBase());
    if (!QTest::qWaitFor(
            [&] { return service.connectionCount() > before && service.hasOpenSocket(); })) {
        return false;
    }
    service.sendText(QStringLiteral(R"({"type":"hello"})"));
    return QTest::qWaitFor([&] {
        return !statuses.isEmpty() &&
               statuses.back() ==
                   std::pair<bool, QString>(true, QStringLiteral("Connected to Quillmar"));
    });
}
