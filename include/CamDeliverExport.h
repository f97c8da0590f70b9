#pragma once
// Symbols of liborvcam_camdeliver that its clients link against. Everything else in the
// library is hidden.
#define ORVCAM_CAMDELIVER_API __attribute__((visibility("default")))
