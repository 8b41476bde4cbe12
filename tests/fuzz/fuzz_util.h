// Shared set-up of the fuzz targets: one small repository file in a scratch
// directory, made once per process and named by HGX_REPOSITORY.
#pragma once

#include <string>

namespace fuzz {

// The instance the stencil target evaluates for.
constexpr char INSTANCE[] = "wrn:/demo/web:default";

// Imports the fixed manifest into a new scratch repository (once) and points
// HGX_REPOSITORY at it. Aborts when that fails: no run would mean anything.
void ensure_repository();

}  // namespace fuzz
