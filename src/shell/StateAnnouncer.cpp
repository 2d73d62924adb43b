#include "StateAnnouncer.h"

#include "ActivityLog.h"
#include "AppState.h"
#include "SingleInstance.h"

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
    announce();
}

void StateAnnouncer::announce() {
    m_instance.setState(m_state.describe());
}
