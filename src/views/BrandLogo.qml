import QtQuick

// brandLogo(): the logo image, or the "circle.dashed" symbol in its frame when the image is
// missing or does not load. Callers give the frame (40 x 40 in the home header, 92 x 92 on the
// welcome page).
Item {
    id: logo

    readonly property bool showsImage: image.status === Image.Ready

    implicitWidth: Theme.px(92)
    implicitHeight: Theme.px(92)
    // Decorative: the product's name is written beside it.
    Accessible.ignored: true

    Image {
        id: image
        anchors.fill: parent
        source: Theme.brandLogo()
        fillMode: Image.PreserveAspectFit
        // Decoded at the size shown, so that the large image is scaled down smoothly once.
        sourceSize.width: Math.ceil(logo.width * Screen.devicePixelRatio)
        sourceSize.height: Math.ceil(logo.height * Screen.devicePixelRatio)
        smooth: true
        visible: logo.showsImage
    }

    Symbol {
        objectName: "logoFallback"
        anchors.centerIn: parent
        visible: !logo.showsImage
        name: "circle.dashed"
        size: Math.min(logo.width, logo.height) / Symbols.scale / Theme.scale
    }
}
