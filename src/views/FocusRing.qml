import QtQuick

// The ring around a control that has the keyboard focus because the user came by keyboard. Put
// in the control's background; it is drawn `gap` outside of it.
Rectangle {
    objectName: "focusRing"
    property bool shown: false
    property real gap: Theme.px(3)

    anchors.fill: parent
    anchors.margins: -gap
    visible: shown
    color: "transparent"
    border.width: 2
    border.color: Theme.focusRing
}
