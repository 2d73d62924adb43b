#pragma once

#include "AppState.h"
#include "SharedFolder.h"

#include <QAbstractListModel>
#include <QList>
#include <QPointer>
#include <QtQml/qqmlregistration.h>

// The shared folders of the application state as a list model, in the state's order. Follows
// every change of the list. Roles: folderId (upper-case UUID), name, path, readOnly.
class SharedFolderListModel : public QAbstractListModel {
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(int count READ count NOTIFY countChanged)

public:
    enum Role { FolderIdRole = Qt::UserRole + 1, NameRole, PathRole, ReadOnlyRole };
    Q_ENUM(Role)

    explicit SharedFolderListModel(QObject* parent = nullptr);

    int rowCount(const QModelIndex& parent = QModelIndex()) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;

    int count() const { return static_cast<int>(m_folders.size()); }

signals:
    void countChanged();

private:
    void reload();

    QPointer<AppState> m_state;
    QList<SharedFolder> m_folders;
};
