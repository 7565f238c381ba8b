// i386: the one full Zydis decoder that the instruction queries and the relocation share.
#pragma once

#include <Zydis/Zydis.h>

namespace kel::arch {

// 32-bit legacy mode, full analysis; made once (a function-local static of an inline function is one
// object for the whole engine).
inline const ZydisDecoder& decoder() {
  static ZydisDecoder instance = [] {
    ZydisDecoder d;
    ZydisDecoderInit(&d, ZYDIS_MACHINE_MODE_LEGACY_32, ZYDIS_STACK_WIDTH_32);
    return d;
  }();
  return instance;
}

}  // namespace kel::arch
