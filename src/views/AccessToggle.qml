import QtQuick
import QtQuick.Controls.Basic

// One shared folder's access: shows "Read only" or "Read & write" and flips it when used.
// Checked is read-only. The caller writes the change to the state and binds `checked` back.
AbstractButton {
    id: toggle

    // Named in what assistive technology reads, since every folder row has one.
    property string folderName

    readonly property color tint: checked ? Theme.amber : Theme.secondary

    checkable: true
    text: checked ? qsTr("Read only") : qsTr("Read & write")
    implicitHeight: Math.max(Theme.px(24), label.implicitHeight + Theme.px(8))
    // As wide as the longer text, so that the rows' paths line up whatever their access.
    implicitWidth: Math.max(readOnlyMetrics.advanceWidth, readWriteMetrics.advanceWidth) + Theme.px(34)
    focusPolicy: Qt.StrongFocus
    hoverEnabled: true
    opacity: down ? 0.7 : 1

    Accessible.role: Accessible.CheckBox
    Accessible.name: qsTr("Read only: %1").arg(folderName)
    Accessible.description: checked
                            ? qsTr("Agents can read the files in %1 but not change them.").arg(folderName)
                            : qsTr("Agents can read and change the files in %1.").arg(folderName)
    Accessible.checkable: true
    Accessible.checked: checked

    ToolTip.text: checked ? qsTr("Agents can read but not change files here. Click to allow writing.")
                          : qsTr("Agents can read and change files here. Click to make it read-only.")
    ToolTip.visible: hovered
    ToolTip.delay: 600

    TextMetrics {
        id: readOnlyMetrics
        font: label.font
        text: qsTr("Read only")
    }
    TextMetrics {
        id: readWriteMetrics
        font: label.font
        text: qsTr("Read & write")
    }

    contentItem: Item {
        Row {
            anchors.centerIn: parent
            spacing: Theme.px(4)

            Symbol {
                anchors.verticalCenter: parent.verticalCenter
                name: toggle.checked ? "lock.fill" : "pencil"
                size: 11
                color: toggle.tint
            }
            Text {
                id: label
                objectName: "accessText"
                anchors.verticalCenter: parent.verticalCenter
                text: toggle.text
                color: toggle.tint
                font.pixelSize: Theme.px(11)
                font.weight: Font.Medium
            }
        }
    }

    background: Rectangle {
        radius: height / 2
        color: toggle.checked ? Theme.alpha(Theme.amber, toggle.hovered ? 0.18 : 0.12)
                              : Theme.alpha(Theme.primary, toggle.hovered ? 0.07 : 0.04)
        border.width: 1
        border.color: toggle.checked ? Theme.alpha(Theme.amber, 0.35) : Theme.alpha(Theme.primary, 0.1)

        FocusRing {
            shown: toggle.visualFocus
            radius: height / 2
        }
    }
}
