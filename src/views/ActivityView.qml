import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts
import Quillmar.Views

// The agents' calls since the companion started, newest first, as they happen; a write whose
// previous version was kept can be undone from here. Reached from the home page.
Item {
    id: page

    // The user asked to go back to the home page, by keyboard or not.
    signal back(bool byKeyboard)

    // Where the keyboard goes when the page opens.
    function focusFirst(reason) {
        backButton.forceActiveFocus(reason)
    }

    implicitWidth: 460
    implicitHeight: Theme.px(600)

    // Escape goes back, as the Home button does.
    Keys.onEscapePressed: page.back(true)

    ActivityListModel {
        id: activity
    }

    ColumnLayout {
        anchors.fill: parent
        anchors.margins: Theme.px(24)
        spacing: Theme.px(12)

        RowLayout {
            Layout.fillWidth: true
            spacing: Theme.px(12)

            PillButton {
                id: backButton
                objectName: "activityBackButton"
                symbol: "chevron.left"
                text: qsTr("Home")
                Accessible.name: qsTr("Back to the home page")
                onClicked: page.back(visualFocus)
            }
            Text {
                objectName: "activityTitle"
                Layout.fillWidth: true
                text: qsTr("Recent activity")
                color: Theme.primary
                font.pixelSize: Theme.px(17)
                font.bold: true
                elide: Text.ElideRight
                Accessible.role: Accessible.StaticText
                Accessible.name: text
            }
        }
        Text {
            Layout.fillWidth: true
            text: qsTr("What agents did in your shared folders since Quillmar OS started, newest first.")
            color: Theme.secondary
            font.pixelSize: Theme.px(12)
            wrapMode: Text.WordWrap
            Accessible.role: Accessible.StaticText
            Accessible.name: text
        }

        // The outcome of the last restore, until dismissed or the next one starts.
        Card {
            id: notice
            objectName: "restoreNotice"
            Layout.fillWidth: true
            visible: activity.notice.length > 0
            padding: Theme.px(10)
            leftPadding: Theme.px(12)

            readonly property color tint: activity.noticeIsError ? Theme.red : Theme.brand

            background: Rectangle {
                radius: 12
                color: Theme.alpha(notice.tint, 0.09)
                border.width: 1
                border.color: Theme.alpha(notice.tint, 0.35)
            }
            contentItem: RowLayout {
                spacing: Theme.px(8)

                Symbol {
                    Layout.alignment: Qt.AlignTop
                    Layout.topMargin: Theme.px(1)
                    name: activity.noticeIsError ? "exclamationmark.circle.fill"
                                                 : "checkmark.circle.fill"
                    size: 14
                    color: notice.tint
                }
                Text {
                    objectName: "restoreNoticeText"
                    Layout.fillWidth: true
                    text: activity.notice
                    textFormat: Text.PlainText
                    color: activity.noticeIsError ? Theme.red : Theme.primary
                    font.pixelSize: Theme.px(12)
                    wrapMode: Text.Wrap
                    Accessible.role: Accessible.AlertMessage
                    Accessible.name: text
                }
                PlainButton {
                    objectName: "dismissNoticeButton"
                    Layout.alignment: Qt.AlignTop
                    symbol: "xmark"
                    symbolSize: 13
                    color: Theme.secondary
                    Accessible.name: qsTr("Dismiss")
                    onClicked: activity.dismissNotice()
                }
            }
        }

        Card {
            id: emptyCard
            objectName: "activityEmpty"
            Layout.fillWidth: true
            visible: activity.count === 0

            contentItem: RowLayout {
                spacing: Theme.px(8)

                Symbol {
                    name: "clock.arrow.circlepath"
                    size: 16
                    color: Theme.secondary
                }
                Text {
                    objectName: "activityEmptyText"
                    Layout.fillWidth: true
                    text: qsTr("Nothing yet. When an agent reads, lists, searches or writes files in a shared folder, it shows up here.")
                    color: Theme.secondary
                    font.pointSize: Typography.points(12.5 * Theme.scale)
                    wrapMode: Text.WordWrap
                    Accessible.role: Accessible.StaticText
                    Accessible.name: text
                }
            }
        }
        Item {
            Layout.fillHeight: true
            visible: activity.count === 0
        }

        ListView {
            id: list
            objectName: "activityList"
            Layout.fillWidth: true
            Layout.fillHeight: true
            visible: activity.count > 0
            model: activity
            spacing: Theme.px(6)
            clip: true
            boundsBehavior: Flickable.StopAtBounds
            ScrollBar.vertical: ScrollBar {
                policy: ScrollBar.AlwaysOn
                visible: list.contentHeight > list.height
                Accessible.name: qsTr("Recent activity")
            }
            Accessible.role: Accessible.List
            Accessible.name: qsTr("Recent activity")

            delegate: ActivityRow {
                id: activityRow
                width: ListView.view.width
                onRestoreRequested: activity.restore(activityRow.index)
            }
        }

        Text {
            objectName: "activityFootnote"
            Layout.fillWidth: true
            text: qsTr("Kept in memory only, and cleared when Quillmar OS quits.")
            color: Theme.secondary
            font.pixelSize: Theme.px(11)
            wrapMode: Text.WordWrap
            Accessible.role: Accessible.StaticText
            Accessible.name: text
        }
    }
}
