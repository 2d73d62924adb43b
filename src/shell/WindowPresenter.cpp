#include "WindowPresenter.h"

WindowPresenter::~WindowPresenter() = default;

QWindow* WindowPresenter::openWindow() const {
    return nullptr;
}
