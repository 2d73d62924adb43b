#pragma once

#include <QObject>
#include <QtQml/qqmlregistration.h>

// The pages of the onboarding flow, in the order the flow and its step indicator use.
namespace OnboardingStep {
Q_NAMESPACE
QML_ELEMENT

enum Step { Welcome, Pair, Folders, Done };
Q_ENUM_NS(Step)

inline constexpr int count = 4;

} // namespace OnboardingStep
