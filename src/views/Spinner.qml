import QtQuick

// A small spinning activity indicator: eight spokes fading round the circle.
Item {
    id: spinner

    property color color: "white"
    property bool running: visible

    implicitWidth: Theme.px(14)
    implicitHeight: Theme.px(14)
    Accessible.ignored: true

    Repeater {
        model: 8
        Rectangle {
            required property int index
            x: (spinner.width - width) / 2
            width: Math.max(1.5, spinner.width * 0.14)
            height: spinner.height * 0.3
            radius: width / 2
            color: spinner.color
            opacity: 0.2 + 0.8 * index / 7
            transform: Rotation {
                origin.x: width / 2
                origin.y: spinner.height / 2
                angle: index * 45
            }
        }
    }

    Timer {
        interval: 100
        repeat: true
        running: spinner.running
        onTriggered: spinner.rotation = (spinner.rotation + 45) % 360
    }
}
