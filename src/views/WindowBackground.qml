import QtQuick

// The window's background: the desktop's window colour at the top, fading to a faint brand tint
// at the bottom.
Rectangle {
    id: background

    property real tint: 0.05

    objectName: "windowBackground"

    anchors.fill: parent
    color: Theme.windowBackground

    Rectangle {
        anchors.fill: parent
        gradient: Gradient {
            GradientStop {
                position: 0
                color: Theme.alpha(Theme.brand, 0)
            }
            GradientStop {
                position: 1
                color: Theme.alpha(Theme.brand, background.tint)
            }
        }
    }
}
