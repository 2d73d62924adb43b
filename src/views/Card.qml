import QtQuick
import QtQuick.Controls.Basic

// The card style: a barely tinted rounded panel, derived from the text colour so that it suits
// light and dark desktops. Callers give it the full width and put the content in contentItem,
// which starts at the leading edge.
Control {
    padding: Theme.px(14)

    background: Rectangle {
        radius: Theme.px(12)
        color: Theme.alpha(Theme.primary, 0.045)
        border.width: 1
        border.color: Theme.alpha(Theme.primary, 0.08)
    }
}
