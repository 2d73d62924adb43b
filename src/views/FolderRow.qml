import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts

// One shared folder in a list: its name and path, on the home page its access, and the button
// that stops sharing it. A delegate of SharedFolderListModel.
Item {
    id: row

    required property string folderId
    required property string name
    required property string path
    required property bool readOnly
    // The home page's rows show and change the access; onboarding's do not.
    property bool showsAccess: false

    signal removeRequested
    signal accessChosen(bool readOnly)

    implicitHeight: card.implicitHeight
    // On this item, not the card: a control sets its own role when assistive technology starts.
    Accessible.role: Accessible.ListItem
    // Joined, not put into a translated pattern: a folder name may itself hold "%2".
    Accessible.name: name + ", " + path

    Card {
        id: card
        width: row.width
        padding: Theme.px(row.showsAccess ? 14 : 10)

        background: Rectangle {
            radius: Theme.px(row.showsAccess ? 12 : 10)
            color: row.showsAccess ? Theme.alpha(Theme.primary, 0.045) : Theme.controlBackground
            border.width: 1
            border.color: Theme.alpha(Theme.primary, row.showsAccess ? 0.08 : 0.06)
        }

        contentItem: RowLayout {
            spacing: Theme.px(row.showsAccess ? 8 : 10)

            Symbol {
                name: "folder.fill"
                size: row.showsAccess ? 15 : 13
                color: Theme.brand
            }
            ColumnLayout {
                Layout.fillWidth: true
                spacing: 2

                Text {
                    Layout.fillWidth: true
                    text: row.name
                    textFormat: Text.PlainText
                    color: Theme.primary
                    font.pixelSize: Theme.px(13)
                    font.weight: Font.Medium
                    elide: Text.ElideRight
                }
                Text {
                    objectName: "folderPath"
                    Layout.fillWidth: true
                    text: row.path
                    textFormat: Text.PlainText
                    color: Theme.secondary
                    font.pixelSize: Theme.px(row.showsAccess ? 11 : 13)
                    elide: Text.ElideMiddle
                    maximumLineCount: 1
                }
            }
            AccessToggle {
                id: accessToggle
                objectName: "accessToggle"
                visible: row.showsAccess
                folderName: row.name
                checked: row.readOnly
                // Stores the access; the binding is put back so that the toggle keeps following the
                // state (the tray menu changes it too).
                onToggled: {
                    row.accessChosen(checked)
                    checked = Qt.binding(() => row.readOnly)
                }
            }
            PlainButton {
                id: removeButton
                objectName: "removeFolderButton"
                symbol: "xmark.circle.fill"
                symbolSize: row.showsAccess ? 15 : 13
                color: row.showsAccess ? Theme.tertiary : Theme.secondary
                Accessible.name: qsTr("Stop sharing %1").arg(row.name)
                ToolTip.text: qsTr("Stop sharing this folder")
                ToolTip.visible: hovered && row.showsAccess
                ToolTip.delay: 600
                onClicked: row.removeRequested()
            }
        }
    }
}
