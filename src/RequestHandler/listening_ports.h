// The TCP ports at which this process itself listens.
#pragma once

#include <cstdint>

// Writes those ports to `ports`, `size` of them at most, each once. `except` is left out. Returns how many
// there are. It reads the kernel's tables and the names of the process's descriptors; opens QorOpenProcNet's
// files no further. Worker, or the initialisation thread.
int32_t QorListeningPorts(uint16_t *ports, int32_t size, uint16_t except);
