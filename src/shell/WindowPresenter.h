#pragma once

// The onboarding/home window as the tray sees it: something that can be brought up, created on
// first use, any number of times.
class QWindow;

class WindowPresenter {
public:
    virtual ~WindowPresenter();
    virtual void show() = 0;
    // The window while it is on screen, for dialogs to attach to; nothing while it is closed.
    virtual QWindow* openWindow() const;
};
