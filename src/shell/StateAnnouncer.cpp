#include "StateAnnouncer.h"

#include "AppState.h"
#include "SingleInstance.h"

StateAnnouncer::StateAnnouncer(AppState& state, SingleInstance& instance, QObject* parent)
    : QObject(parent), m_state(state), m_instance(instance) {
    for (const auto signal :
         {&AppState::onlineChanged, &AppState::pairedChanged, &AppState::statusTextChanged,
          &AppState::foldersChanged, &AppState::requireWriteApprovalChanged,
          &AppState::fileAccessChanged, &AppState::connectionProblemChanged}) {
        QObject::connect(&state, signal, this, &StateAnnouncer::announce);
    }
    QObject::connect(&instance, &SingleInstance::reloadRequested, this,
                     [this] { m_state.reloadFromStore(); });
    announce();
}

void StateAnnouncer::announce() {
    m_instance.setState(m_state.describe());
}
