// Reading EYE_LCD (LcdControl.h lists the choices).
#pragma once

#include <memory>

#include "LcdOutput.h"

// The output EYE_LCD names (memory when unset or empty), not yet opened; nullptr after
// logging why the text names none.
std::unique_ptr<LcdOutput> outputFromEnv();
