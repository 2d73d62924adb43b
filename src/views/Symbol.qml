import QtQuick

// One symbol from the Symbols table, set at `size` as if it were type of that size (at the
// default font; it grows with the window's scale). Decorative: what it means is said in text.
Item {
    id: symbol

    property string name
    property real size: 13
    property color color: Theme.primary
    property bool bold: false

    readonly property string glyph: Symbols.glyph(name)
    readonly property bool enclosed: Symbols.enclosed(name)
    readonly property int pixelSize: Math.round(size * Theme.scale * Symbols.scale)

    implicitWidth: Symbols.available ? pixelSize : label.implicitWidth
    implicitHeight: Symbols.available ? pixelSize : label.implicitHeight
    Accessible.ignored: true

    Rectangle {
        visible: symbol.enclosed && Symbols.available
        anchors.centerIn: parent
        width: symbol.pixelSize * 0.86
        height: width
        radius: width / 2
        color: symbol.color
    }

    Text {
        id: label
        anchors.centerIn: parent
        text: symbol.glyph
        color: symbol.enclosed && Symbols.available ? "white" : symbol.color
        font.family: Symbols.available ? Symbols.family : ""
        font.pixelSize: Symbols.available ? Math.round(symbol.pixelSize * (symbol.enclosed ? 0.56 : 1))
                                          : Math.round(symbol.size * Theme.scale)
        font.bold: symbol.bold && !Symbols.available
        // The icon font has one weight; a thin outline in the same colour stands in for bold.
        style: symbol.bold && Symbols.available ? Text.Outline : Text.Normal
        styleColor: label.color
        rotation: symbol.enclosed && Symbols.available ? -45 : 0
        Accessible.ignored: true
    }
}
