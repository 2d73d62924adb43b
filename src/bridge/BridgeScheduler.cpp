#include "BridgeScheduler.h"

BridgeScheduler::~BridgeScheduler() = default;
