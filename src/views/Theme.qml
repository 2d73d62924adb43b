pragma Singleton
import QtQuick
import Quillmar.Views

// The window's visual vocabulary: the brand colours, the logo and the desktop's own colours,
// from which the secondary and tertiary text colours are derived so that they follow a light
// or dark desktop; and the size scale, which follows the desktop's font.
QtObject {
    id: theme

    readonly property color brand: Qt.rgba(16 / 255, 185 / 255, 129 / 255, 1)
    readonly property color brandDeep: Qt.rgba(5 / 255, 150 / 255, 105 / 255, 1)

    // Where brandLogo() looks for the logo; a missing image gives the "circle.dashed" symbol.
    property url logoSource: "qrc:/Quillmar/Views/assets/quillmar-logo.png"
    function brandLogo() {
        return logoSource
    }

    readonly property SystemPalette palette: SystemPalette {
        colorGroup: SystemPalette.Active
    }
    readonly property color windowBackground: palette.window
    readonly property color controlBackground: palette.base
    readonly property color primary: palette.windowText
    readonly property color secondary: alpha(primary, 0.5)
    readonly property color tertiary: alpha(primary, 0.26)
    readonly property color separator: alpha(primary, 0.1)
    readonly property color red: "#ff3b30"
    readonly property bool dark: windowBackground.hslLightness < 0.5
    // Declined writes and read-only folders: held back on purpose, not broken.
    // Darker on a light desktop, lighter on a dark one, so that it reads as text on either.
    readonly property color amber: dark ? "#f2a93b" : "#9a5b00"
    // The keyboard focus ring: the deeper green reads on white, the lighter one on black.
    readonly property color focusRing: dark ? brand : brandDeep

    // Every size in the window is a size at the default font times this.
    readonly property real scale: Typography.scale
    function px(size) {
        return Math.round(size * scale)
    }

    function alpha(colour, opacity) {
        return Qt.rgba(colour.r, colour.g, colour.b, colour.a * opacity)
    }
}
