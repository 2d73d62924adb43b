#include "StateAnnouncer.h"

#include "ActivityLog.h"
#include "AppState.h"
#include "SingleInstance.h"
#include "ToolResult.h"

#include <QJsonDocument>

StateAnnouncer::StateAnnouncer(AppState& state, SingleInstance& instance, QObject* parent)
    : QObject(parent), m_state(state), m_instance(instance) {
    for (const auto signal : {&AppState::onlineChanged, &AppState::pairedChanged,
                              &AppState::statusTextChanged, &AppState::foldersChanged,
                              &AppState::requireWriteApprovalChanged, &AppState::fileAccessChanged,
                              &AppState::connectionProblemChanged, &AppState::pausedChanged}) {
        QObject::connect(&state, signal, this, &StateAnnouncer::announce);
    }
    QObject::connect(&instance, &SingleInstance::reloadRequested, this,
                     [this] { m_state.reloadFromStore(); });
    QObject::connect(&instance, &SingleInstance::versionRestored, this,
                     [this](const QString& id) { m_state.activity().markRestored(id); });
    instance.setActivitySource([this] {
        QJsonArray entries;
        for (const ActivityEntry& entry : m_state.activity().newest()) {
            entries.append(entry.toJson());
        }
        return entries;
    });
    instance.setCallHandler([this](QJsonObject call, std::function<bool()> stillWanted) {
        return runHandedOverCall(std::move(call), std::move(stillWanted));
    });
    announce();
}

QCoro::Task<QByteArray> StateAnnouncer::runHandedOverCall(QJsonObject call,
                                                          std::function<bool()> stillWanted) {
    AppState& state = m_state;
    // A late "Allow" for a local agent that has gone since must not make the write happen.
    auto approver = [&state, stillWanted](QString path, qint64 bytes) -> QCoro::Task<bool> {
        QCoro::Task<bool> asking = state.requestWriteApproval(std::move(path), bytes);
        const bool allowed = co_await asking;
        const bool write = allowed && stillWanted();
        co_return write;
    };
    const ToolResult result =
        co_await state.runAgentCall(call.value(QStringLiteral("method")).toString(),
                                    call.value(QStringLiteral("params")).toObject(),
                                    call.value(QStringLiteral("agent")).toString(), approver);
    if (result.isJson()) {
        co_return '0' + result.json();
    }
    const QJsonObject object = result.toObject();
    const QJsonValue error = object.value(QStringLiteral("error"));
    if (error.isString()) {
        co_return '1' + error.toString().toUtf8();
    }
    co_return '0' + QJsonDocument(object).toJson(QJsonDocument::Compact);
}

void StateAnnouncer::announce() {
    m_instance.setState(m_state.describe());
}
