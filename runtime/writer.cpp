// The process writer. Records are laid out by the generated hand-built writers
// (the same description as the record objects and the reader) into a buffer on
// the stack and handed to the unit as head + tail. A record the unit cannot keep
// (no memory, a results directory that refuses it) is dropped and counted by the
// unit; the process ends its collection with the count, and goes on meanwhile.
#include "writer.h"

#include <string.h>

#include <initializer_list>

#include "sal.h"
#include "sal_allocator.h"
#include "vorx_tmu.h"
#include "vorx_client.h"
#include "vorx_config.h"
#include "vorx_log.h"
#include "vorx_timesource.h"
#include "vorx_probe_params.h"
#include "vorx_probe_table.h"
#include "vorx_traceformat.h"
#include "module_map.h"
#include "workspace.h"

namespace {

constexpr vorx_u16_t kCollectorMajor = 2;
constexpr vorx_u16_t kCollectorMinor = 9;
constexpr vorx_u32_t kCollectorBuild = 11;
constexpr char kCollectorName[] = "vorx";

// The first record of the process that the unit dropped is named in the log; the unit counts them all.
void put_record(vorx_tmu_t *unit, const void *head, vorx_u32_t head_size, const void *tail, vorx_u32_t tail_size,
                const char *function) {
  static int logged;
  if (unit->put_record(unit, head, head_size, tail, tail_size) != 0) return;
  if (!__atomic_exchange_n(&logged, 1, __ATOMIC_RELAXED))
    vorx_log(vorx_log_level_warning, "%s: a record was dropped; the trace goes on without it", function);
}

vorx_u64_t now() { return vorx_timesource()->now(); }

// Each flag bit of the configuration's collections turns on one capability.
struct CapabilityBit {
  vorx_u32_t collection;
  bool low_word;
  vorx_u32_t mask;
};
constexpr CapabilityBit kCapabilityBits[] = {
    {0, true, 0x2000},      {14, true, 1},           {3, false, 1},           {2, false, 2},
    {1, false, 4},          {4, false, 0x20},        {6, false, 0x40},        {10, false, 0x800},
    {13, false, 0x800},     {5, false, 0x2000},      {7, false, 0x400000},    {8, false, 0x800000},
    {9, false, 0x1000000},  {11, false, 0x40000000}, {12, false, 0x80000000u},
};

}  // namespace

extern "C" vorx_u64_t vorx_collector_capabilities(void) {
  const vorx_configuration *conf = g_vorx_conf;
  vorx_u32_t low = 0, high = 0;
  for (const CapabilityBit &bit : kCapabilityBits) {
    if (!vorx_conf_has_collection(conf, bit.collection)) continue;
    if (bit.collection == 0) low = bit.mask;  // assigns: the first rule sets the word
    else if (bit.low_word) low |= bit.mask;
    else high |= bit.mask;
  }
  if (conf->offline_stack_walk == 0 && vorx_conf_has_collection(conf, vorx_cl_cpu)) high |= 0x10;
  if (conf->pytrace_enabled == 1) high |= 0x200;
  return (static_cast<vorx_u64_t>(high) << 32) | low;
}

extern "C" void vorx_put_collector_record(vorx_tmu_t *unit) {
  uint8_t head[TF_COLCFG_HEAD_SIZE + 1];
  constexpr vorx_u32_t name_length = sizeof kCollectorName - 1;
  vorx_u32_t pos = tf_colcfg_put_head(head, kCollectorMajor, kCollectorMinor, kCollectorBuild,
                                      vorx_collector_capabilities(), 1 + name_length);
  head[pos++] = name_length;  // the writer's form: no NUL behind the name
  put_record(unit, head, pos, kCollectorName, name_length, __func__);
}

extern "C" void vorx_put_sysinfo_record(vorx_tmu_t *unit) {
  char brand[SAL_BRAND_STRING_SIZE];
  if (sal_get_brand_string(brand, sizeof brand) != vorx_er_success) {
    vorx_report(vorx_msg_cannot_get_cpu_brand_name);
    return;
  }
  sal_os_version version{};
  sal_get_os_version(&version);

  sal_allocator host_alloc = SAL_ALLOCATOR_INITIALIZER(sal_allocator_type_heap);
  sal_allocator name_alloc = SAL_ALLOCATOR_INITIALIZER(sal_allocator_type_heap);
  const char *host = g_vorx_conf->sysinfo_text ? g_vorx_conf->sysinfo_text : "";
  char *utf8_host_name = nullptr;
  if (sal_vorx_char_to_utf8(host, &utf8_host_name, &host_alloc) == 0 && host[0] != '\0') {
    vorx_report(vorx_msg_cannot_convert_string);
  } else {
    const char *system_id = sal_get_os_name(&name_alloc);
    const char *strings[] = {utf8_host_name ? utf8_host_name : "", brand, system_id ? system_id : "", ""};
    vorx_u32_t tail_size = 0;
    for (const char *text : strings) tail_size += 2 + strlen(text) + 1;
    uint8_t tail[3 * 4096 + 256];
    if (tail_size <= sizeof tail) {
      vorx_u32_t pos = 0;
      for (const char *text : strings) {
        vorx_u16_t length = static_cast<vorx_u16_t>(strlen(text) + 1);
        tf_st16(tail + pos, length);
        memcpy(tail + pos + 2, text, length);
        pos += 2 + length;
      }
      uint8_t head[TF_SYSINFO_HEAD_SIZE];
      vorx_u32_t head_size = tf_sysinfo_put_head(head, static_cast<vorx_u16_t>(sal_get_os_type()), version.major,
                                                 version.minor, version.patch, version.build, tail_size);
      put_record(unit, head, head_size, tail, pos, __func__);
    }
  }
  host_alloc.vtbl->destroy(&host_alloc);
  name_alloc.vtbl->destroy(&name_alloc);
}

extern "C" void vorx_put_cpuinfo_record(vorx_tmu_t *unit) {
  sal_allocator list_alloc = SAL_ALLOCATOR_INITIALIZER(sal_allocator_type_heap);
  sal_allocator body_alloc = SAL_ALLOCATOR_INITIALIZER(sal_allocator_type_mmap);
  sal_cpuid_item *leaves = nullptr;
  vorx_size_t count = 0;
  vorx_er_t res = sal_get_raw_cpuid(&leaves, &count, &list_alloc);
  VORX_ASSERT(res == vorx_er_success);
  // Every CPU gets the leaves of this one.
  vorx_u32_t cpus = sal_get_cpu_number();
  vorx_u32_t body_size = cpus * (2 + count * 24);
  vorx_log(vorx_log_level_trace, "CPUINFO_BODY_SIZE is %lu", static_cast<unsigned long>(body_size));
  vorx_log(vorx_log_level_trace, "Number of CPUs %lu", static_cast<unsigned long>(cpus));
  vorx_log(vorx_log_level_trace, "Number of leaves %lu", static_cast<unsigned long>(count));
  auto *body = static_cast<uint8_t *>(body_alloc.vtbl->mem_alloc(&body_alloc, body_size));
  VORX_ASSERT(body != nullptr);
  vorx_u32_t pos = 0;
  for (vorx_u32_t cpu = 0; cpu < cpus; ++cpu) {
    tf_st16(body + pos, static_cast<vorx_u16_t>(count));
    pos += 2;
    for (vorx_size_t i = 0; i < count; ++i) {
      const sal_cpuid_item &item = leaves[i];
      for (vorx_u32_t word : {item.in_eax, item.in_ecx, item.eax, item.ebx, item.ecx, item.edx}) {
        tf_st32(body + pos, word);
        pos += 4;
      }
    }
  }
  int large = body_size + 16 > 65535;
  uint8_t head[32];
  vorx_u32_t head_size = tf_cpuinfo_put_head(head, large, static_cast<vorx_u32_t>(count), body_size);
  put_record(unit, head, head_size, body, body_size, __func__);
  body_alloc.vtbl->destroy(&body_alloc);
  list_alloc.vtbl->destroy(&list_alloc);
}

extern "C" void vorx_put_hardcfg_record(vorx_tmu_t *unit) {
  vorx_u64_t cpu_frequency = 0;
  if (!sal_cpu_frequency(&cpu_frequency)) {
    vorx_report(vorx_msg_cannot_get_cpu_frequency);
    cpu_frequency = 0;
  }
  vorx_u64_t user_limit = 0x00000000FFFFFFFFull;
  uint8_t pointer_width = 64;
  vorx_arch_t arch = sal_get_os_arch();
  if (arch == vorx_arch_ia32) {
    user_limit = 0xFFFFFFFF80000000ull;
    pointer_width = 32;
  } else {
    VORX_ASSERT(arch == vorx_arch_kex64);
  }
  vorx_u32_t in[4] = {1, 0, 0, 0}, out[4];
  sal_read_cpuid(in, out);
  uint8_t family = (out[0] >> 8) & 0xF, model = (out[0] >> 4) & 0xF, stepping = out[0] & 0xF;
  // Per-CPU groups are stored as zeros: a count, then four bytes a CPU.
  vorx_u32_t cpus = sal_get_cpu_number();
  uint8_t tail[4 + 4 * 256] = {};
  if (cpus > 256) cpus = 256;
  tf_st32(tail, cpus);
  vorx_u32_t tail_size = 4 + 4 * cpus;
  uint8_t head[TF_HARDCFG_HEAD_SIZE];
  vorx_u32_t head_size = tf_hardcfg_put_head(head, cpu_frequency, vorx_timesource()->frequency(), user_limit,
                                             pointer_width, family, model, stepping, tail_size);
  put_record(unit, head, head_size, tail, tail_size, __func__);
}

extern "C" void put_head_marker_record(vorx_tmu_t *unit, vorx_u64_t counter, vorx_u64_t wall) {
  uint8_t record[32];
  vorx_u32_t size = tf_marker_put(record, counter, wall);
  put_record(unit, record, size, nullptr, 0, __func__);
}

extern "C" void vorx_put_head_marker_record(vorx_tmu_t *unit) {
  vorx_u64_t counter = 0, wall = 0;
  if (vorx_timesource()->reference(&counter, &wall) != 1) {
    vorx_report(vorx_msg_cannot_put_marker_record);
    return;
  }
  put_head_marker_record(unit, counter, wall);
}

namespace {

void put_process_record(vorx_tmu_t *unit, vorx_u32_t event_class, const char *function) {
  sal_allocator alloc = SAL_ALLOCATOR_INITIALIZER(sal_allocator_type_heap);
  char *name = nullptr;
  vorx_size_t name_len = sal_executable_name(&name, &alloc);
  if (!name) name_len = 0;
  uint8_t head[TF_PROCESS_HEAD_SIZE];
  vorx_u32_t pos = tf_process_put_head(head, event_class, sal_process_id(), 0, now(), name_len);
  put_record(unit, head, pos, name, name_len, function);
  alloc.vtbl->destroy(&alloc);
}

}  // namespace

extern "C" void vorx_put_new_process_record(vorx_tmu_t *unit) { put_process_record(unit, TF_EC_BEGIN, __func__); }
extern "C" void put_old_process_record(vorx_tmu_t *unit) { put_process_record(unit, TF_EC_END, __func__); }

extern "C" void put_module_map_record(vorx_tmu_t *unit, const void *payload, vorx_u32_t length) {
  uint8_t head[TF_MODULE_MAP_HEAD_SIZE];
  vorx_u32_t head_size = g_vorx_conf->module_map_flags & 1 ? tf_module_map_put_sized_head(head, now(), length)
                                                           : tf_module_map_untimed_put_sized_head(head, length);
  put_record(unit, head, head_size, payload, length, __func__);
}

extern "C" void put_module_info(vorx_tmu_t *unit, const char *name, vorx_address_t start, vorx_address_t end) {
  sal_allocator alloc = SAL_ALLOCATOR_INITIALIZER(sal_allocator_type_heap);
  char *utf8 = nullptr;
  if (sal_vorx_char_to_utf8(name, &utf8, &alloc) == 0 || !utf8) {
    if (name && name[0]) vorx_report(vorx_msg_cannot_convert_string);
    alloc.vtbl->destroy(&alloc);
    return;
  }
  uint8_t payload[0x1000];
  vorx_u32_t length = strlen(utf8);
  if (length > sizeof payload - 15) length = sizeof payload - 15;
  vorx_u32_t pos = 0;
  tf_st32(payload + pos, start);
  tf_st32(payload + pos + 4, end);
  tf_st32(payload + pos + 8, 0);
  payload[pos + 12] = 0;
  tf_st16(payload + pos + 13, static_cast<vorx_u16_t>(length));
  pos += 15;
  memcpy(payload + pos, utf8, length);
  pos += length;
  VORX_ASSERT(pos < 0x1000);
  put_module_map_record(unit, payload, pos);
  alloc.vtbl->destroy(&alloc);
}

extern "C" void put_sample_record(vorx_tmu_t *unit, vorx_u32_t tid, vorx_u64_t timestamp, vorx_u64_t period,
                                  vorx_u32_t last) {
  uint8_t record[48];
  vorx_u32_t size = tf_cpu_sample_put(record, tid, 0, timestamp, period, last);
  put_record(unit, record, size, nullptr, 0, __func__);
}

namespace {

// The module map hands over the modules it knows, one record each.
void put_module_items(void *context, const vorx_module_info_item_t *items, uint32_t count) {
  auto *unit = static_cast<vorx_tmu_t *>(context);
  for (uint32_t i = 0; i < count; ++i)
    put_module_info(unit, items[i].name, static_cast<vorx_address_t>(items[i].start),
                    static_cast<vorx_address_t>(items[i].end));
}

}  // namespace

extern "C" void vorx_put_initial_process_records(vorx_tmu_t *unit) {
  // The unit that opens the process's stream is its trace: its file is opened now, while the program still
  // has the rights it started with, and it takes the buffers of units that later cannot open their files.
  vorx_tmu_keep_as_process_trace(unit);
  vorx_put_collector_record(unit);
  vorx_put_sysinfo_record(unit);
  vorx_put_cpuinfo_record(unit);
  vorx_put_hardcfg_record(unit);
  vorx_put_head_marker_record(unit);
  vorx_put_new_process_record(unit);
  g_vorx_module_map->ops->load(g_vorx_module_map, put_module_items, unit);
}

extern "C" void put_records_lost_record(vorx_tmu_t *unit) {
  vorx_u64_t lost = vorx_tmu_records_lost();
  if (lost == 0) return;
  uint8_t record[32];
  vorx_u32_t size = tf_records_lost_put(record, 0, lost, vorx_tmu_loss_causes());
  unit->put_record(unit, record, size, nullptr, 0);
}

// ---------------------------------------------------------------- threads

extern "C" void put_new_thread_record(vorx_workspace *wsp) {
  uint8_t record[40];
  vorx_u32_t size = tf_thread_writer_put(record, TF_EC_BEGIN, wsp->thread, 0, wsp->registration_kind, now());
  put_record(wsp->master_tmu, record, size, nullptr, 0, __func__);
}

extern "C" void put_old_thread_record(vorx_workspace *wsp) {
  uint8_t record[40];
  vorx_u32_t size = tf_thread_writer_put(record, TF_EC_END, wsp->thread, 0, wsp->registration_kind, now());
  put_record(wsp->master_tmu, record, size, nullptr, 0, __func__);
}

extern "C" void vorx_put_softcfg_record(vorx_workspace *wsp) {
  // One entry: 0, 1, the sampling interval in microseconds, then 16 zero bytes.
  uint8_t tail[2 + 2 + 2 + 28] = {};
  vorx_u32_t pos = 0;
  tf_st16(tail + pos, 0);  // a: no entries
  tf_st16(tail + pos + 2, 0);  // b: no entries
  tf_st16(tail + pos + 4, 1);  // c: one entry
  pos += 6;
  tf_st32(tail + pos, 0);
  tf_st32(tail + pos + 4, 1);
  tf_st32(tail + pos + 8, static_cast<vorx_u32_t>(g_vorx_conf->sampling_interval * 1000));
  pos += 28;
  uint8_t head[32];
  vorx_u32_t head_size = tf_softcfg_put_head(head, wsp->thread, pos);
  put_record(wsp->master_tmu, head, head_size, tail, pos, __func__);
}

extern "C" void vorx_put_initial_thread_records(vorx_workspace *wsp) {
  put_new_thread_record(wsp);
  vorx_put_softcfg_record(wsp);
}

extern "C" void put_thread_name_record(vorx_workspace *wsp) {
  char name[SAL_THREAD_NAME_SIZE + 1];
  vorx_size_t name_size = sal_thread_name(wsp->thread, name);
  if (name_size == 0) return;
  VORX_ASSERT(name_size <= sizeof(name));
  // API record 286 of the first form: the time twice, no stack, the name.
  tf_arg_t args[2];
  tf_arg_set(&args[0], 1, -1, TF_ARG_ARRAY, static_cast<uint64_t>(reinterpret_cast<uintptr_t>(name)));
  tf_arg_set(&args[1], 0, 0, 0, 0);
  uint8_t tail[256];
  vorx_u32_t tail_size = tf_args_encode(tail, 1, args);
  vorx_u64_t time = now();
  uint8_t head[64];
  vorx_u32_t head_size = tf_apiwrap_v1_put_head(head, tf_api_descriptor(wsp->thread, 0), wsp->thread, 0, time, time,
                                                0, 286, tail_size);
  put_record(wsp->master_tmu, head, head_size, tail, tail_size, __func__);
}

// ---------------------------------------------------------------- state

extern "C" void vorx_run_directory_callbacks(uint32_t index, void *wsp, vorx_probe_data_t *data);

extern "C" void vorx_set_profiling_state(void *wsp, vorx_u32_t state) {
  VORX_ASSERT(state == vorx_st_paused || state == vorx_st_resumed);
  vorx_configuration *conf = g_vorx_conf;
  conf->ops->set_state(conf, state);
  vorx_log(vorx_log_level_trace, "runtime switched to %s state ...", state == vorx_st_paused ? "PAUSE" : "RESUME");
  // The pause or resume itself is a record of the pseudo function of that state.
  unsigned id = state == vorx_st_paused ? vorx_pi___ozk_pause : vorx_pi___ozk_resume;
  unsigned idx = (id * 2 + state) * 2 + 1;
  VORX_ASSERT(idx < (2u * 2u * vorx_pi_eof));
  vorx_probe_data_t data;
  memset(&data, 0, sizeof data);
  vorx_run_directory_callbacks(idx, wsp, &data);
  vorx_log(vorx_log_level_trace, "%s record stored in the trace ...", state == vorx_st_paused ? "PAUSE" : "RESUME");
}

// A module loaded after the runtime opened: its record goes to the process unit.
extern "C" void vorx_put_registered_module(void *global, const char *name, uint64_t start, uint64_t end) {
  put_module_info(vorx_global_process_tmu(global), name, static_cast<vorx_address_t>(start),
                  static_cast<vorx_address_t>(end));
}
