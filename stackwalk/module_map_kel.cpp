// The engine-facing edge of the module map: images as the engine reports them, turned into plain ranges.
// Everything past this file works on ranges only.
#include "kel.h"
#include "module_map.h"
#include "module_map_kel.h"
#include "vorx_log.h"

namespace {

// The engine gives inclusive high addresses; the map keeps exclusive ends.
vorx_range_t region(ADDRINT low, ADDRINT high_inclusive) { return {uint64_t(low), uint64_t(high_inclusive) + 1}; }

}  // namespace

void vorx_get_module_full_range(IMG img, vorx_range_t* out) {
    if (!IMG_Valid(img)) return;
    vorx_range_t range = region(IMG_LowAddress(img), IMG_HighAddress(img));
    for (UINT32 n = 0; n < IMG_NumRegions(img); ++n) {
        vorx_range_t region_range = region(IMG_RegionLowAddress(img, n), IMG_RegionHighAddress(img, n));
        VORX_ASSERT(region_range.end > region_range.start);
        if (region_range.start < range.start) range.start = region_range.start;
        if (region_range.end > range.end) range.end = region_range.end;
    }
    *out = range;
}

uint32_t vorx_image_executable_sections(IMG img, vorx_range_t* pieces, uint32_t capacity) {
    uint32_t n = 0;
    for (SEC sec = IMG_SecHead(img); SEC_Valid(sec); sec = SEC_Next(sec)) {
        if (!SEC_IsExecutable(sec) || !SEC_IsReadable(sec) || SEC_Address(sec) == 0 || SEC_Size(sec) == 0) continue;
        vorx_range_t piece{uint64_t(SEC_Address(sec)), uint64_t(SEC_Address(sec)) + SEC_Size(sec)};
        // sections come in address order within an image; touching ones make one piece
        if (n && pieces[n - 1].end >= piece.start) {
            if (piece.end > pieces[n - 1].end) pieces[n - 1].end = piece.end;
            continue;
        }
        if (n == capacity) break;
        pieces[n++] = piece;
    }
    return n;
}

int vorx_module_map_add_image(vorx_module_map_t* map, IMG img) {
    VORX_ASSERT(map != nullptr);
    if (!IMG_Valid(img)) return vorx_mm_not_found;
    vorx_range_t full{0, 0};
    vorx_get_module_full_range(img, &full);
    map->ops->add_module(map, IMG_Name(img).c_str(), full.start, full.end, 0);
    vorx_range_t pieces[32];
    uint32_t n = vorx_image_executable_sections(img, pieces, 32);
    if (n) map->ops->insert_executable(map, pieces, n, 1);
    return vorx_mm_found;
}

int vorx_module_map_remove_image(vorx_module_map_t* map, IMG img) {
    VORX_ASSERT(map != nullptr);
    if (!IMG_Valid(img)) return vorx_mm_not_found;
    vorx_range_t full{0, 0};
    vorx_get_module_full_range(img, &full);
    return map->ops->remove_range(map, &full);
}
