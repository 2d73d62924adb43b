import QtQuick
import Quillmar.Views

// progressDots: one capsule per onboarding step, the current one long and in the brand colour.
Row {
    id: dots

    property int step: OnboardingStep.Welcome

    spacing: Theme.px(7)
    Accessible.ignored: true

    Repeater {
        model: [OnboardingStep.Welcome, OnboardingStep.Pair, OnboardingStep.Folders, OnboardingStep.Done]

        Rectangle {
            required property int modelData
            readonly property bool current: modelData === dots.step

            width: Theme.px(current ? 18 : 7)
            height: Theme.px(7)
            radius: height / 2
            color: current ? Theme.brand : Theme.alpha(Theme.secondary, 0.3)

            // A lightly damped spring (0.3 s, damping 0.825) barely overshoots; an ease-out of
            // the same length looks the same.
            Behavior on width {
                NumberAnimation {
                    duration: 350
                    easing.type: Easing.OutCubic
                }
            }
            Behavior on color {
                ColorAnimation {
                    duration: 350
                    easing.type: Easing.OutCubic
                }
            }
        }
    }
}
