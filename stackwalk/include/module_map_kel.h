// The module map's edge to the engine (C++: the engine's handles are C++ types).
#pragma once
#include "kel.h"
#include "module_map.h"

// The union of the image's regions; an invalid image leaves out as it is.
void vorx_get_module_full_range(IMG img, vorx_range_t* out);
// Executable, readable sections of the image as sorted pieces; returns how many were written.
uint32_t vorx_image_executable_sections(IMG img, vorx_range_t* pieces, uint32_t capacity);
// Load event: the image's module entry and its executable sections as one chain of pieces.
int vorx_module_map_add_image(vorx_module_map_t* map, IMG img);
// Unload event: forgets every range that the image's extent touches, notifying walks in progress.
int vorx_module_map_remove_image(vorx_module_map_t* map, IMG img);
