pragma Singleton
import QtQuick

// The one table from the symbol names the views use to glyphs of the Material Icons font
// (Debian: fonts-material-design-icons-iconfont). Each entry also names a plain-text stand-in,
// shown when the font cannot be loaded.
QtObject {
    id: symbols

    property url fontSource: "file:///usr/share/fonts/truetype/material-design-icons-iconfont/MaterialIcons-Regular.ttf"
    readonly property FontLoader loader: FontLoader {
        source: symbols.fontSource
    }
    readonly property bool available: loader.status === FontLoader.Ready
    readonly property string family: loader.font.family

    // Material glyphs sit inside a padded square; at the same size they look smaller than the
    // symbols the sizes were chosen for.
    readonly property real scale: 1.2

    // code: Material code point; enclosed: drawn white on a filled circle of the symbol's colour;
    // text: the stand-in.
    readonly property var table: ({
        "arrow.clockwise": { code: 0xe5d5, text: "\u21bb" },
        "arrow.uturn.backward": { code: 0xe166, text: "\u21b6" },
        "checkmark": { code: 0xe5ca, text: "\u2713" },
        "checkmark.circle.fill": { code: 0xe86c, text: "\u2713" },
        "checkmark.seal": { code: 0xef76, text: "\u2713" },
        "checkmark.shield.fill": { code: 0xe8e8, text: "\u2713" },
        "chevron.left": { code: 0xe5cb, text: "\u2039" },
        "circle.dashed": { code: 0xe836, text: "\u25cc" },
        "clock.arrow.circlepath": { code: 0xe889, text: "\u21ba" },
        "exclamationmark.circle.fill": { code: 0xe000, text: "!" },
        "folder": { code: 0xe2c8, text: "\u25a1" },
        "folder.badge.plus": { code: 0xe2cc, text: "+" },
        "folder.fill": { code: 0xe2c7, text: "\u25a0" },
        "folder.fill.badge.plus": { code: 0xe2cc, text: "+" },
        "link.circle.fill": { code: 0xe157, enclosed: true, text: "\u221e" },
        "lock.fill": { code: 0xe897, text: "\u25a3" },
        "lock.shield": { code: 0xe32a, text: "\u25c6" },
        "nosign": { code: 0xe14b, text: "\u2298" },
        "pause.circle.fill": { code: 0xe035, text: "\u2016" },
        "pause.fill": { code: 0xe034, text: "\u2016" },
        "pencil": { code: 0xe3c9, text: "\u270e" },
        "play.fill": { code: 0xe037, text: "\u25b6" },
        "plus": { code: 0xe145, text: "+" },
        "shield.slash": { code: 0xe9d4, text: "\u2205" },
        "tray": { code: 0xe156, text: "\u25ad" },
        "xmark": { code: 0xe5cd, text: "\u00d7" },
        "xmark.circle.fill": { code: 0xe5c9, text: "\u00d7" }
    })

    function entry(name) {
        return table[name] || { code: 0, text: "?" }
    }
    // The glyph's text in the icon font, or the stand-in when the font is missing.
    function glyph(name) {
        const e = entry(name)
        return available && e.code ? String.fromCodePoint(e.code) : e.text
    }
    function enclosed(name) {
        return entry(name).enclosed === true
    }
}
