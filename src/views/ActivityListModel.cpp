#include "ActivityListModel.h"

#include "ActivityWording.h"
#include "VisibleText.h"

#include <QLoggingCategory>

Q_LOGGING_CATEGORY(lcActivityView, "quillmar.views.activity", QtWarningMsg)

ActivityListModel::ActivityListModel(QObject* parent) : QAbstractListModel(parent) {
    m_state = &AppState::shared();
    m_log = &m_state->activity();
    m_rows = int(m_log->size());
    connect(m_log, &ActivityLog::appended, this, &ActivityListModel::entryAppended);
    connect(m_log, &ActivityLog::entryChanged, this, &ActivityListModel::entryChanged);
    connect(m_log, &QObject::destroyed, this, &ActivityListModel::logGone);
    connect(m_state, &AppState::restoreFinished, this, &ActivityListModel::restoreFinished);
}

int ActivityListModel::rowCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : m_rows;
}

const ActivityEntry* ActivityListModel::entryAt(int row) const {
    if (!m_log || row < 0 || row >= m_rows || row + m_unannounced >= m_log->size()) {
        return nullptr;
    }
    return &m_log->at(row + m_unannounced);
}

QVariant ActivityListModel::data(const QModelIndex& index, int role) const {
    if (!checkIndex(index, CheckIndexOption::IndexIsValid | CheckIndexOption::ParentIsInvalid)) {
        return {};
    }
    const ActivityEntry* found = entryAt(index.row());
    if (!found) {
        return {};
    }
    const ActivityEntry& entry = *found;
    const bool failed = entry.outcome == ActivityEntry::Outcome::Failed;
    const bool declined = entry.outcome == ActivityEntry::Outcome::Declined;
    switch (role) {
    case TimeTextRole:
        return ActivityWording::timeText(entry);
    case ToolRole:
        return entry.tool;
    case ToolLabelRole:
        return ActivityWording::toolLabel(entry);
    // What an agent chose is shown, never obeyed: no control or direction characters.
    case SubjectRole:
    case Qt::DisplayRole:
        return VisibleText::oneLine(entry.subject);
    case OutcomeTextRole:
        return entry.outcomeText();
    case OutcomeKindRole:
        return failed     ? QStringLiteral("failed")
               : declined ? QStringLiteral("declined")
                          : QStringLiteral("done");
    case FailedRole:
        return failed || declined;
    case DeclinedRole:
        return declined;
    case ErrorTextRole:
        return VisibleText::oneLine(entry.error);
    case AmountTextRole:
        return entry.amountText();
    case AgentRole:
        return VisibleText::oneLine(entry.agent);
    case VersionIdRole:
        return entry.versionId;
    case VersionNoteRole:
        return entry.versionNote;
    case RestorableRole:
        return !entry.versionId.isEmpty() && !entry.restored;
    case RestoredRole:
        return entry.restored;
    case RestoringRole:
        return !entry.versionId.isEmpty() && m_restoring.contains(entry.versionId);
    default:
        return {};
    }
}

QHash<int, QByteArray> ActivityListModel::roleNames() const {
    return {{TimeTextRole, "timeText"},
            {ToolRole, "tool"},
            {ToolLabelRole, "toolLabel"},
            {SubjectRole, "subject"},
            {OutcomeTextRole, "outcomeText"},
            {OutcomeKindRole, "outcomeKind"},
            {FailedRole, "failed"},
            {DeclinedRole, "declined"},
            {ErrorTextRole, "errorText"},
            {AmountTextRole, "amountText"},
            {AgentRole, "agent"},
            {VersionIdRole, "versionId"},
            {VersionNoteRole, "versionNote"},
            {RestorableRole, "restorable"},
            {RestoredRole, "restored"},
            {RestoringRole, "restoring"}};
}

void ActivityListModel::entryAppended(bool droppedOldest) {
    m_unannounced = 1;
    if (droppedOldest && m_rows > 0) {
        beginRemoveRows(QModelIndex(), m_rows - 1, m_rows - 1);
        --m_rows;
        endRemoveRows();
    }
    beginInsertRows(QModelIndex(), 0, 0);
    m_unannounced = 0;
    ++m_rows;
    endInsertRows();
    emit countChanged();
}

void ActivityListModel::entryChanged(qsizetype index) {
    if (index < 0 || index >= m_rows) {
        return;
    }
    const QModelIndex changed = this->index(int(index));
    emit dataChanged(changed, changed);
}

void ActivityListModel::restore(int row) {
    const ActivityEntry* entry = entryAt(row);
    if (!entry || entry->versionId.isEmpty() || entry->restored || !m_state) {
        qCWarning(lcActivityView) << "nothing to restore in row" << row;
        return;
    }
    const QString versionId = entry->versionId;
    if (m_restoring.contains(versionId)) {
        return;
    }
    m_restoring.insert(versionId);
    const QModelIndex changed = index(row);
    emit dataChanged(changed, changed, {RestoringRole});
    dismissNotice();
    m_state->restoreVersion(versionId);
}

void ActivityListModel::restoreFinished(const QString& versionId, bool ok, const QString& message) {
    m_restoring.remove(versionId);
    if (const int row = rowOfVersion(versionId); row >= 0) {
        const QModelIndex changed = index(row);
        emit dataChanged(changed, changed, {RestoringRole});
    }
    if (ok) {
        setNotice(message, false);
    } else {
        setNotice(message.isEmpty() ? tr("The previous version could not be restored.") : message,
                  true);
    }
}

int ActivityListModel::rowOfVersion(const QString& versionId) const {
    for (int row = 0; row < m_rows; ++row) {
        if (const ActivityEntry* entry = entryAt(row); entry && entry->versionId == versionId) {
            return row;
        }
    }
    return -1;
}

void ActivityListModel::dismissNotice() {
    setNotice(QString(), false);
}

void ActivityListModel::setNotice(const QString& text, bool isError) {
    if (m_notice == VisibleText::escaped(text) && m_noticeIsError == isError) {
        return;
    }
    // The message quotes the agent's path: shown, never obeyed.
    m_notice = VisibleText::escaped(text);
    m_noticeIsError = isError;
    emit noticeChanged();
}

void ActivityListModel::logGone() {
    beginResetModel();
    m_rows = 0;
    m_unannounced = 0;
    m_restoring.clear();
    endResetModel();
    emit countChanged();
}
