#pragma once

#include "BridgeClient.h"
#include "FakeService.h"
#include "ManualScheduler.h"
#include "ScriptedCallHandler.h"

#include <QList>
#include <QString>
#include <QStringList>

#include <memory>
#include <utility>

// A BridgeClient on a manual clock, a fake service for it to talk to, and the status reports it
// made, for the client tests.
class BridgeFixture {
public:
    BridgeFixture();
    ~BridgeFixture();

    FakeService service;
    // What answers the service's calls; outlives the client.
    ScriptedCallHandler calls;
    ManualScheduler* scheduler; // owned by the client
    std::unique_ptr<BridgeClient> client;
    QList<std::pair<bool, QString>> statuses;

    QStringList texts() const;
    // Connects to the fake service, has it say hello, and waits until the client is online.
    bool connectAndGreet();
};
