/* Collection indexes and their bitmaps, names and numbers. */
#include <stddef.h>
#include <wchar.h>
#include "vorx_log.h"
#include "vorx_probe_table.h"

static const wchar_t* const collection_wide_names[VORX_COLLECTION_EOF] = {
    L"cpu", L"threading", L"io", L"waiting", L"frame", L"task", L"projection", L"opencl",
    L"user_sync", L"cm", L"power", L"opencl_ex", L"memory", L"utimer", L"opengles"};

const vorx_probe_bitmap_t* vorx_collection_to_probe_bitmap(unsigned index) {
    VORX_LOG(vorx_log_level_trace, "vorx_collection_to_probe_bitmap(): call for collection %u", index);
    return index < VORX_COLLECTION_EOF ? g_vorx_collection_probe_bitmaps[index] : NULL;
}

const vorx_probe_bitmap_t* vorx_collection_to_callback_bitmap(unsigned index) {
    VORX_LOG(vorx_log_level_trace, "vorx_collection_to_callback_bitmap(): call for collection %u", index);
    return index < VORX_COLLECTION_EOF ? g_vorx_collection_callback_bitmaps[index] : NULL;
}

const wchar_t* vorx_collection_to_wstring(unsigned index) {
    return index < VORX_COLLECTION_EOF ? collection_wide_names[index] : L"<unknown collection>";
}

unsigned vorx_wstring_to_collection(const wchar_t* text) {
    if (text == NULL) return VORX_COLLECTION_EOF;
    for (unsigned i = 0; i < VORX_COLLECTION_EOF; ++i) {
        /* compared by hand: this runs on application threads, where wcscmp may be probed */
        const wchar_t* a = collection_wide_names[i];
        const wchar_t* b = text;
        while (*a && *a == *b) { ++a; ++b; }
        if (*a == *b) return i;
    }
    return VORX_COLLECTION_EOF;
}
