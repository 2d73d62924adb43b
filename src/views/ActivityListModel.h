#pragma once

#include "ActivityLog.h"
#include "AppState.h"

#include <QAbstractListModel>
#include <QPointer>
#include <QSet>
#include <QString>
#include <QtQml/qqmlregistration.h>

// The agents' recent calls from the application state's activity log, newest first, following
// it live. Also puts back the previous version of a write for the user and keeps the outcome
// of the last restore as a notice to show next to the list.
class ActivityListModel : public QAbstractListModel {
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(int count READ count NOTIFY countChanged)
    Q_PROPERTY(QString notice READ notice NOTIFY noticeChanged)
    Q_PROPERTY(bool noticeIsError READ noticeIsError NOTIFY noticeChanged)

public:
    enum Role {
        TimeTextRole = Qt::UserRole + 1,
        ToolRole,
        ToolLabelRole,
        SubjectRole,
        // "done", "declined" or the error text.
        OutcomeTextRole,
        // "done", "failed" or "declined".
        OutcomeKindRole,
        // Failed or declined: the call did nothing.
        FailedRole,
        DeclinedRole,
        ErrorTextRole,
        AmountTextRole,
        AgentRole,
        VersionIdRole,
        VersionNoteRole,
        RestorableRole,
        RestoredRole,
        RestoringRole,
    };
    Q_ENUM(Role)

    explicit ActivityListModel(QObject* parent = nullptr);

    int rowCount(const QModelIndex& parent = QModelIndex()) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;

    int count() const { return m_rows; }
    QString notice() const { return m_notice; }
    bool noticeIsError() const { return m_noticeIsError; }

    // Puts back the version the write in `row` replaced; the notice tells the outcome.
    Q_INVOKABLE void restore(int row);
    Q_INVOKABLE void dismissNotice();

signals:
    void countChanged();
    void noticeChanged();

private:
    void entryAppended(bool droppedOldest);
    void entryChanged(qsizetype index);
    void restoreFinished(const QString& versionId, bool ok, const QString& message);
    void logGone();
    void setNotice(const QString& text, bool isError);
    const ActivityEntry* entryAt(int row) const;
    int rowOfVersion(const QString& versionId) const;

    QPointer<AppState> m_state;
    QPointer<ActivityLog> m_log;
    int m_rows = 0;
    // Entries in the log that are not rows yet: the log changes before it tells, so while a
    // dropped entry's row is taken out, the new one is already at the log's front.
    int m_unannounced = 0;
    QSet<QString> m_restoring;
    QString m_notice;
    bool m_noticeIsError = false;
};
