#include "FakeWindow.h"

void FakeWindow::show() {
    ++*m_shows;
}
