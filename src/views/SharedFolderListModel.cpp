#include "SharedFolderListModel.h"

#include "AppState.h"

#include <algorithm>

SharedFolderListModel::SharedFolderListModel(QObject* parent) : QAbstractListModel(parent) {
    m_state = &AppState::shared();
    m_folders = m_state->folders();
    connect(m_state, &AppState::foldersChanged, this, &SharedFolderListModel::reload);
}

int SharedFolderListModel::rowCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : count();
}

QVariant SharedFolderListModel::data(const QModelIndex& index, int role) const {
    if (!checkIndex(index, CheckIndexOption::IndexIsValid | CheckIndexOption::ParentIsInvalid)) {
        return {};
    }
    const SharedFolder& folder = m_folders.at(index.row());
    switch (role) {
    case FolderIdRole:
        return folder.idString();
    case NameRole:
    case Qt::DisplayRole:
        return folder.name;
    case PathRole:
        return folder.path;
    case ReadOnlyRole:
        return folder.readOnly;
    default:
        return {};
    }
}

QHash<int, QByteArray> SharedFolderListModel::roleNames() const {
    return {{FolderIdRole, "folderId"},
            {NameRole, "name"},
            {PathRole, "path"},
            {ReadOnlyRole, "readOnly"}};
}

void SharedFolderListModel::reload() {
    const QList<SharedFolder> next = m_state ? m_state->folders() : QList<SharedFolder>();
    // The same folders in the same order, only their details changed (a folder made read-only):
    // the rows stay, so the control the user just used keeps the keyboard focus.
    const bool sameRows =
        std::equal(m_folders.cbegin(), m_folders.cend(), next.cbegin(), next.cend(),
                   [](const SharedFolder& a, const SharedFolder& b) { return a.id == b.id; });
    if (sameRows) {
        for (qsizetype row = 0; row < next.size(); ++row) {
            if (!(m_folders.at(row) == next.at(row))) {
                m_folders[row] = next.at(row);
                const QModelIndex changed = index(int(row));
                emit dataChanged(changed, changed);
            }
        }
        return;
    }
    const qsizetype before = m_folders.size();
    beginResetModel();
    m_folders = next;
    endResetModel();
    if (m_folders.size() != before) {
        emit countChanged();
    }
}
