// Annotated waits on the application's own objects: __ozk_sync_prepare opens a wait in one of the thread's
// 64 slots, __ozk_sync_acquired or __ozk_sync_cancel closes it, and the close's record spans the whole wait.
// A releasing thread reads the slots of every thread (vorx_user_sync_contention_callback), so an object
// enters and leaves its slot with an atomic store.
#include <string.h>

#include "event_filtering.h"
#include "vorx_log.h"
#include "workspace.h"

namespace {

vorx_u32_t address_word(const void* object) { return static_cast<vorx_u32_t>(reinterpret_cast<uintptr_t>(object)); }

vorx_user_sync* slots_of(void* wsp) {
  auto* fd = static_cast<vorx_filtering_data*>(static_cast<vorx_workspace*>(wsp)->filtering_data);
  return fd ? &fd->user_sync : nullptr;
}

int find_slot(const vorx_user_sync* us, vorx_u32_t key) {
  for (vorx_u32_t slot = 0; slot < VORX_SYNC_SLOTS; ++slot)
    if (__atomic_load_n(&us->objects[slot], __ATOMIC_ACQUIRE) == key) return static_cast<int>(slot);
  return -1;
}

vorx_s32_t occupied_slots(const vorx_user_sync* us) {
  vorx_s32_t n = 0;
  for (vorx_u32_t slot = 0; slot < VORX_SYNC_SLOTS; ++slot)
    if (__atomic_load_n(&us->objects[slot], __ATOMIC_ACQUIRE) != 0) ++n;
  return n;
}

}  // namespace

extern "C" {

void vorx_user_sync_open(void* wsp, const vorx_probe_data_t* data, void* object) {
  vorx_user_sync* us = slots_of(wsp);
  if (!us || !object) return;
  vorx_u32_t key = address_word(object);
  if (find_slot(us, key) >= 0) return;  // already open: the first prepare's time stands
  if (us->nested_calls_count >= static_cast<vorx_s32_t>(VORX_SYNC_SLOTS)) {
    // the application forgets its ends; say so once, and keep counting so that the message stays single
    if (us->nested_calls_count == static_cast<vorx_s32_t>(VORX_SYNC_SLOTS) && g_vorx_log_level >= 2)
      vorx_report(vorx_msg_too_many_sync_prepare);
    ++us->nested_calls_count;
    return;
  }
  int slot = find_slot(us, 0);
  VORX_ASSERT(slot >= 0);
  us->waits[slot] = *data;
  us->waits[slot].next_wait = nullptr;
  us->waits[slot].locals.context = nullptr;  // the frame it pointed into is gone when the wait ends
  us->contended[slot] = 0;
  us->paused[slot] = 0;
  __atomic_store_n(&us->objects[slot], key, __ATOMIC_RELEASE);
  ++us->nested_calls_count;
}

void vorx_user_sync_close(void* wsp, void* object, uint64_t* enter_time) {
  vorx_user_sync* us = slots_of(wsp);
  if (!us || !object) return;
  int slot = find_slot(us, address_word(object));
  if (slot < 0) {
    // an end without its prepare, or of one of the prepares past the slots: a wait of no length; only the
    // latter were counted
    if (us->nested_calls_count > occupied_slots(us)) --us->nested_calls_count;
    return;
  }
  *enter_time = us->waits[slot].locals.enter_time;
  __atomic_exchange_n(&us->objects[slot], 0u, __ATOMIC_ACQ_REL);
  --us->nested_calls_count;
  VORX_ASSERT(us->nested_calls_count >= 0);
}

}  // extern "C"
