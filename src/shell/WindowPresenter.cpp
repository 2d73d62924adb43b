#include "WindowPresenter.h"

WindowPresenter::~WindowPresenter() = default;
