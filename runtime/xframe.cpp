// Protected frames: the collector reads memory that the program owns (stacks, interpreter structures) and
// may find it gone. A read inside a protected frame that faults resumes at the frame instead of killing the
// program. The frames of a thread form a list in its static TLS, so that threads the collector does not
// know, and code outside any wrapper, can protect their reads as well.
#include <pthread.h>
#include <signal.h>

#include "signal_manager.h"
#include "vorx_log.h"

namespace {

__thread vorx_xframe* t_xframe_top __attribute__((tls_model("initial-exec")));

vorx_u32_t type_of(int signo) {
  if (signo == SIGSEGV) return vorx_xtype_segv;
  if (signo == SIGBUS) return vorx_xtype_bus;
  return vorx_xtype_unknown;
}

bool takes(const vorx_xframe* frame, vorx_u32_t type) {
  for (vorx_u32_t i = 0; i < frame->type_count; ++i)
    if (frame->types[i] == type) return true;
  return false;
}

}  // namespace

extern "C" {

void vorx_xframe_push(vorx_xframe* frame, vorx_u32_t type_count, const vorx_u32_t* types) {
  VORX_ASSERT(type_count <= 4);
  for (vorx_u32_t i = 0; i < type_count; ++i) frame->types[i] = types[i];
  frame->type_count = type_count;
  frame->magic = VORX_XFRAME_MAGIC;
  frame->is_finally = 0;
  frame->caught_type = vorx_xtype_unknown;
  frame->prev = t_xframe_top;
  t_xframe_top = frame;
  __atomic_signal_fence(__ATOMIC_SEQ_CST);  // in place before the first protected access
}

void vorx_xframe_pop(vorx_xframe* frame) {
  __atomic_signal_fence(__ATOMIC_SEQ_CST);  // not before the last protected access
  VORX_ASSERT(t_xframe_top == frame && frame->magic == VORX_XFRAME_MAGIC);
  t_xframe_top = frame->prev;
}

// Leaving the handler by a jump leaves the handler's mask behind: the fault's signal is unblocked first, or
// the next fault in a protected read would find it blocked and end the process.
void vorx_throw_if_protected(int signo) {
  vorx_u32_t type = type_of(signo);
  if (type == vorx_xtype_unknown) return;
  for (vorx_xframe* frame = t_xframe_top; frame; frame = frame->prev) {
    VORX_ASSERT(frame->magic == VORX_XFRAME_MAGIC);
    if (frame->is_finally) return;
    if (!takes(frame, type)) continue;
    t_xframe_top = frame->prev;
    frame->caught_type = type;
    sigset_t fault;
    sigemptyset(&fault);
    sigaddset(&fault, signo);
    pthread_sigmask(SIG_UNBLOCK, &fault, nullptr);
    vorx_xframe_restore_context(frame, (int)type);
  }
}

bool vorx_read_memory_protected(void* to, const void* from, vorx_u32_t size) {
  static const vorx_u32_t kFaults[] = {vorx_xtype_segv, vorx_xtype_bus};
  vorx_xframe frame;
  if (vorx_xframe_save_context(&frame) != vorx_xframe_op_err_init) return false;
  vorx_xframe_push(&frame, 2, kFaults);
  auto* out = static_cast<volatile unsigned char*>(to);
  auto* in = static_cast<const volatile unsigned char*>(from);
  for (vorx_u32_t i = 0; i < size; ++i) out[i] = in[i];
  vorx_xframe_pop(&frame);
  return true;
}

}  // extern "C"
