import QtQuick
import Quillmar.Views

// The window's content: onboarding until the user finishes it, then the home page for as long as
// the computer stays paired.
FocusScope {
    id: root

    // True once the user may see the home page. Set by whoever creates the view (paired at that
    // moment), by onboarding's finish, and cleared whenever the computer is unpaired.
    property bool showHome: false
    readonly property bool showingHome: showHome && AppState.paired

    implicitWidth: Theme.px(460)
    implicitHeight: Theme.px(600)
    focus: true

    Loader {
        id: content
        objectName: "rootContent"
        anchors.fill: parent
        focus: true
        sourceComponent: root.showingHome ? homePage : onboardingPage
    }

    Component {
        id: homePage
        HomeView {}
    }

    Component {
        id: onboardingPage
        OnboardingView {
            onFinish: root.showHome = true
        }
    }

    // Unpairing, here or from the tray, sends the window back to the start of onboarding;
    // pairing alone never opens the home page.
    Connections {
        target: AppState
        function onPairedChanged() {
            if (!AppState.paired)
                root.showHome = false
        }
    }
}
