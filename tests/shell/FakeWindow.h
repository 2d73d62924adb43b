#pragma once

#include "WindowPresenter.h"

#include <memory>

// Stands in for the onboarding/home window and counts how often it was brought up. The count
// outlives the presenter, which the AppDelegate owns.
class FakeWindow : public WindowPresenter {
public:
    explicit FakeWindow(std::shared_ptr<int> shows) : m_shows(std::move(shows)) {}
    void show() override;

private:
    std::shared_ptr<int> m_shows;
};
