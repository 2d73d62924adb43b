#pragma once

#include "WindowPresenter.h"

#include <memory>
#include <utility>

// Owns a window controller that has a show() of its own and presents it, so that the tray
// needs nothing more of the controller than that:
//     std::make_unique<WindowPresenterFor<OnboardingWindowController>>()
template <class Controller> class WindowPresenterFor : public WindowPresenter {
public:
    template <class... Args>
    explicit WindowPresenterFor(Args&&... args)
        : m_controller(std::make_unique<Controller>(std::forward<Args>(args)...)) {}

    void show() override { m_controller->show(); }
    QWindow* openWindow() const override { return m_controller->openWindow(); }
    Controller& controller() { return *m_controller; }

private:
    std::unique_ptr<Controller> m_controller;
};
