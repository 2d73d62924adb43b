import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts
import Quillmar.Views

// One call an agent made: how it ended (symbol and colour), what and where, when, and for a
// write whose previous version was kept, the way to put that version back.
Item {
    id: row

    required property int index
    required property string timeText
    required property string toolLabel
    required property string subject
    required property string outcomeKind
    required property string errorText
    required property string amountText
    required property string agent
    required property string versionNote
    required property bool restorable
    required property bool restored
    required property bool restoring

    signal restoreRequested()

    readonly property bool failed: outcomeKind === "failed"
    readonly property bool declined: outcomeKind === "declined"
    readonly property color outcomeColor: failed ? Theme.red : declined ? Theme.amber : Theme.brand
    readonly property string outcomeWords: failed ? qsTr("failed")
                                                  : declined ? qsTr("declined") : qsTr("done")
    // The second line: what went wrong, or what was moved and what became of the old version.
    readonly property string detail: {
        const who = agent.length > 0 ? " \u00b7 " + agent : ""
        if (failed)
            return (errorText.length > 0 ? errorText : qsTr("Failed")) + who
        if (declined)
            return qsTr("Declined on this %1").arg(Platform.device) + who
        const parts = []
        if (amountText.length > 0)
            parts.push(amountText)
        if (restored)
            parts.push(qsTr("previous version restored"))
        else if (versionNote === "new file" && restorable)
            parts.push(qsTr("new file; restoring removes it"))
        else if (versionNote.length > 0)
            parts.push(versionNote)
        if (agent.length > 0)
            parts.push(agent)
        return parts.join(" \u00b7 ")
    }

    objectName: "activityRow"
    implicitHeight: card.implicitHeight
    // On this item, not the card: a control sets its own role when assistive technology starts.
    Accessible.role: Accessible.ListItem
    Accessible.name: toolLabel + " " + (subject.length > 0 ? subject : "") + ", " + outcomeWords
                     + ", " + timeText + (detail.length > 0 ? ", " + detail : "")

    Card {
        id: card
        width: row.width
        padding: Theme.px(10)
        leftPadding: Theme.px(12)
        rightPadding: Theme.px(12)

        contentItem: RowLayout {
            spacing: Theme.px(10)

            Symbol {
                objectName: "activityOutcomeSymbol"
                Layout.alignment: Qt.AlignTop
                Layout.topMargin: Theme.px(1)
                name: row.failed ? "exclamationmark.circle.fill"
                                 : row.declined ? "nosign" : "checkmark.circle.fill"
                size: 14
                color: row.outcomeColor
            }
            ColumnLayout {
                Layout.fillWidth: true
                spacing: Theme.px(3)

                RowLayout {
                    Layout.fillWidth: true
                    spacing: Theme.px(6)

                    Text {
                        objectName: "activityTool"
                        text: row.toolLabel
                        color: Theme.primary
                        font.pixelSize: Theme.px(13)
                        font.weight: Font.DemiBold
                    }
                    Text {
                        objectName: "activitySubject"
                        Layout.fillWidth: true
                        text: row.subject.length > 0 ? row.subject : "\u2014"
                        // An agent's path is text, never markup.
                        textFormat: Text.PlainText
                        color: Theme.alpha(Theme.primary, 0.8)
                        font.pixelSize: Theme.px(13)
                        elide: Text.ElideMiddle
                        maximumLineCount: 1
                    }
                    Text {
                        objectName: "activityTime"
                        text: row.timeText
                        color: Theme.secondary
                        font.pixelSize: Theme.px(11)
                    }
                }
                Text {
                    objectName: "activityDetail"
                    Layout.fillWidth: true
                    visible: text.length > 0
                    text: row.detail
                    textFormat: Text.PlainText
                    color: row.failed ? Theme.red : row.declined ? Theme.amber : Theme.secondary
                    font.pixelSize: Theme.px(11)
                    wrapMode: Text.Wrap
                    maximumLineCount: 3
                    elide: Text.ElideRight
                }
                PillButton {
                    objectName: "restoreButton"
                    Layout.topMargin: Theme.px(3)
                    visible: row.restorable
                    enabled: !row.restoring
                    symbol: "arrow.uturn.backward"
                    text: row.restoring ? qsTr("Restoring…") : qsTr("Restore previous version")
                    pixelSize: 11
                    implicitHeight: Theme.px(24)
                    Accessible.name: qsTr("Restore previous version of %1").arg(row.subject)
                    onClicked: row.restoreRequested()
                }
            }
        }
    }
}
