import QtQuick

// sectionLabel(text): a section's caption, written in capitals by the caller.
Text {
    color: Theme.secondary
    font.pixelSize: Theme.px(11)
    font.weight: Font.DemiBold
    font.letterSpacing: 0.6
    Accessible.role: Accessible.StaticText
    Accessible.name: text
}
