import QtQuick
import QtQuick.Controls.Basic

// A switch without a visible label, tinted with the brand colour when on. The caller names it
// after the label beside it (Accessible.name).
Switch {
    id: control

    implicitWidth: indicator.implicitWidth
    implicitHeight: indicator.implicitHeight
    padding: 0
    spacing: 0
    focusPolicy: Qt.TabFocus
    hoverEnabled: true

    indicator: Rectangle {
        implicitWidth: Theme.px(36)
        implicitHeight: Theme.px(20)
        x: control.leftPadding
        y: control.topPadding + (control.availableHeight - height) / 2
        radius: height / 2
        color: control.checked ? Theme.brand : Theme.alpha(Theme.primary, control.hovered ? 0.2 : 0.14)
        border.width: 1
        border.color: control.checked ? Theme.alpha(Theme.brandDeep, 0.5) : Theme.alpha(Theme.primary, 0.1)

        Behavior on color {
            ColorAnimation {
                duration: 150
            }
        }

        Rectangle {
            width: parent.height - 4
            height: width
            radius: width / 2
            y: 2
            x: control.checked ? parent.width - width - 2 : 2
            color: control.down ? "#f2f2f2" : "white"
            border.width: 1
            border.color: Theme.alpha("black", 0.08)

            Behavior on x {
                NumberAnimation {
                    duration: 150
                    easing.type: Easing.OutCubic
                }
            }
        }

        FocusRing {
            shown: control.visualFocus
            radius: height / 2
        }
    }

    contentItem: Item {}
}
