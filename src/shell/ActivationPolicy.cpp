#include "ActivationPolicy.h"

void ActivationPolicy::accessory() {
    // Nothing to do on Linux; see the header.
}

void ActivationPolicy::regular() {
    // Nothing to do on Linux; see the header.
}
