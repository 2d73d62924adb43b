#include "SharedFolderListModel.h"

#include "AppState.h"

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
        return folderId(folder);
    case NameRole:
    case Qt::DisplayRole:
        return folder.name;
    case PathRole:
        return folder.path;
    default:
        return {};
    }
}

QHash<int, QByteArray> SharedFolderListModel::roleNames() const {
    return {{FolderIdRole, "folderId"}, {NameRole, "name"}, {PathRole, "path"}};
}

QString SharedFolderListModel::folderId(const SharedFolder& folder) {
    return folder.id.toString(QUuid::WithoutBraces).toUpper();
}

void SharedFolderListModel::reload() {
    const qsizetype before = m_folders.size();
    beginResetModel();
    m_folders = m_state ? m_state->folders() : QList<SharedFolder>();
    endResetModel();
    if (m_folders.size() != before) {
        emit countChanged();
    }
}
