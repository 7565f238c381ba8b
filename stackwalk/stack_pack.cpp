// The online stack body, shared by the walker that writes it and the tests and tools that read it back.
#include "stack_walk.h"
#include "vorx_traceformat.h"

extern "C" {

int vorx_pack_online_frames(const uint32_t* frames, uint32_t count, uint8_t* out, uint32_t capacity,
                            uint32_t* out_size) {
  // The packer writes its array from the last entry down: frames go to it reversed, so that the body
  // starts with the innermost frame.
  uint32_t reversed[VORX_STACK_MAX_FRAMES];
  if (count > VORX_STACK_MAX_FRAMES) count = VORX_STACK_MAX_FRAMES;
  for (uint32_t i = 0; i < count; ++i) reversed[count - 1 - i] = frames[i];
  uint32_t size = capacity;
  int r = tf_record_online_stack_pack(reversed, count, out, &size);
  *out_size = size;
  return r;
}

int vorx_unpack_online_frames(const uint8_t* body, uint32_t size, uint32_t* frames, uint32_t capacity) {
  uint32_t pos = 0, count = 0, previous = 0;
  bool absolute = true;
  while (pos < size) {
    uint8_t head = body[pos++];
    uint32_t k = head & 0x0F;
    if (k > 4 || (head & ~0x4Fu) || size - pos < k || count == capacity) return -1;
    uint32_t v = (head & 0x40) ? 0xFFFFFFFFu : 0;
    for (uint32_t i = 0; i < k; ++i) v = (v & ~(0xFFu << (8 * i))) | (uint32_t(body[pos + i]) << (8 * i));
    pos += k;
    uint32_t frame = absolute ? v : previous + v;
    frames[count++] = frame;
    absolute = frame == 0;
    previous = frame;
  }
  return int(count);
}

}  // extern "C"
