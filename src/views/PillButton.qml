import QtQuick
import QtQuick.Controls.Basic

// A small rounded button with an optional symbol and a short text, for commands that sit beside
// other content (the header, a row of a list). `fill` tints it; `color` is its text.
AbstractButton {
    id: button

    property string symbol
    property color color: Theme.primary
    property color fill: Theme.controlBackground
    property color border: Theme.alpha(Theme.primary, 0.14)
    property int pixelSize: 12

    implicitHeight: 26
    implicitWidth: row.implicitWidth + 20
    focusPolicy: Qt.StrongFocus
    hoverEnabled: true
    opacity: enabled ? (down ? 0.7 : 1) : 0.55
    Accessible.role: Accessible.Button
    Accessible.name: text

    contentItem: Item {
        Row {
            id: row
            anchors.centerIn: parent
            spacing: 4

            Symbol {
                anchors.verticalCenter: parent.verticalCenter
                visible: button.symbol.length > 0
                name: button.symbol
                size: button.pixelSize
                color: button.color
            }
            Text {
                anchors.verticalCenter: parent.verticalCenter
                text: button.text
                color: button.color
                font.pixelSize: button.pixelSize
                font.weight: Font.Medium
            }
        }
    }

    background: Rectangle {
        radius: height / 2
        color: button.hovered && button.enabled ? Qt.darker(button.fill, 1.04) : button.fill
        border.width: button.visualFocus ? 2 : 1
        border.color: button.visualFocus ? Theme.brandDeep : button.border
    }
}
