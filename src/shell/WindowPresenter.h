#pragma once

// The onboarding/home window as the tray sees it: something that can be brought up, created on
// first use, any number of times.
class WindowPresenter {
public:
    virtual ~WindowPresenter();
    virtual void show() = 0;
};
