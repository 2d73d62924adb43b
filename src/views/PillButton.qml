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

    implicitHeight: Math.max(Theme.px(26), row.implicitHeight + Theme.px(8))
    implicitWidth: row.implicitWidth + Theme.px(20)
    focusPolicy: Qt.StrongFocus
    hoverEnabled: true
    opacity: enabled ? (down ? 0.7 : 1) : 0.55
    Accessible.role: Accessible.Button
    Accessible.name: text

    Keys.onReturnPressed: clicked()
    Keys.onEnterPressed: clicked()

    contentItem: Item {
        Row {
            id: row
            anchors.centerIn: parent
            spacing: Theme.px(4)

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
                font.pixelSize: Theme.px(button.pixelSize)
                font.weight: Font.Medium
            }
        }
    }

    background: Rectangle {
        radius: height / 2
        color: button.hovered && button.enabled ? Qt.tint(button.fill, Theme.alpha(Theme.primary, 0.06))
                                                : button.fill
        border.width: 1
        border.color: button.border

        FocusRing {
            shown: button.visualFocus
            radius: height / 2
        }
    }
}
