// kel.h: the tool interface of the kel instrumentation engine (probe mode).
//
// A tool is a shared object with an exported `int main(int argc, char** argv)`. The engine loads it into its
// own link namespace (beside a private copy of the C library), runs `main` on a private stack, and the tool
// registers callbacks, then calls KEL_StartProgramProbed(), which hands the process to the application and
// never returns. From then on the tool lives in callbacks and in the replacement functions of its probes.
//
// Handles (IMG, SEC, SYM, RTN, INS) are plain values; compare them with the *_Valid operations only.
// Everything here is safe to call from any application thread unless said otherwise; operations that walk
// the engine's tables take the client lock themselves where they must.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>

#define KEL_EXPORT extern "C" __attribute__((visibility("default")))

namespace LEVEL_BASE {

typedef void VOID;
typedef bool BOOL;
typedef char CHAR;
typedef int8_t INT8;
typedef uint8_t UINT8;
typedef int16_t INT16;
typedef uint16_t UINT16;
typedef int32_t INT32;
typedef uint32_t UINT32;
typedef int64_t INT64;
typedef uint64_t UINT64;
typedef uintptr_t ADDRINT;
typedef intptr_t ADDRDELTA;
typedef size_t USIZE;
typedef int NATIVE_FD;
typedef int NATIVE_PID;
typedef void (*AFUNPTR)();
using std::string;

// A handle: an index into one of the engine's tables; 0 is never valid.
template <int kind>
class INDEX {
 public:
  constexpr INDEX() : index_(0) {}
  constexpr explicit INDEX(INT32 index) : index_(index) {}
  constexpr INT32 q() const { return index_; }
  constexpr bool operator==(const INDEX& other) const { return index_ == other.index_; }
  constexpr bool operator!=(const INDEX& other) const { return index_ != other.index_; }
  constexpr bool operator<(const INDEX& other) const { return index_ < other.index_; }

 private:
  INT32 index_;
};

// ---------------------------------------------------------------------------------------------------------
// Knobs: command-line switches of the engine (family "kel") and of the tool (any other family).
// A knob is an object of static lifetime; it registers itself with the engine when constructed and is read
// after KEL_Init through Value() (or by conversion).
// ---------------------------------------------------------------------------------------------------------
enum KNOB_MODE {
  KNOB_MODE_INVALID,
  KNOB_MODE_COMMENT,     // a heading in the summary; takes no value
  KNOB_MODE_WRITEONCE,   // a second value on the command line is an error
  KNOB_MODE_OVERWRITE,   // the last value wins
  KNOB_MODE_ACCUMULATE,  // values are joined with ','
  KNOB_MODE_APPEND,      // like ACCUMULATE; kept for tools that name it
};

class KNOB_BASE {
 public:
  KNOB_BASE(KNOB_MODE mode, const string& family, const string& name, const string& default_value,
            const string& purpose);
  virtual ~KNOB_BASE();
  KNOB_BASE(const KNOB_BASE&) = delete;
  KNOB_BASE& operator=(const KNOB_BASE&) = delete;

  const string& Family() const { return family_; }
  const string& Name() const { return name_; }
  const string& Purpose() const { return purpose_; }
  const string& DefaultValue() const { return default_; }
  KNOB_MODE Mode() const { return mode_; }
  BOOL IsSet() const { return set_count_ != 0; }
  // A switch that takes no value on the command line (a BOOL knob may stand alone).
  virtual BOOL TakesOptionalValue() const { return false; }

  // Applies one value from the command line. False with `error` filled when refused.
  BOOL SetFromCommandLine(const string& value, string* error);
  // Back to the default, as before any command line was seen.
  VOID Reset();

  // All registered knobs, as a "-name <default>  purpose" summary.
  static string StringKnobSummary();

 protected:
  // Parses `text` into the value; false if it is not a value of the knob's type.
  virtual BOOL Parse(const string& text, BOOL append) = 0;
  virtual VOID ResetValue() = 0;

 private:
  KNOB_MODE mode_;
  string family_;
  string name_;
  string default_;
  string purpose_;
  UINT32 set_count_ = 0;
};

BOOL KnobParseValue(const string& text, string* out, BOOL append);
BOOL KnobParseValue(const string& text, BOOL* out, BOOL append);
BOOL KnobParseValue(const string& text, INT32* out, BOOL append);
BOOL KnobParseValue(const string& text, UINT32* out, BOOL append);
BOOL KnobParseValue(const string& text, INT64* out, BOOL append);
BOOL KnobParseValue(const string& text, UINT64* out, BOOL append);

template <class T>
class KNOB : public KNOB_BASE {
 public:
  KNOB(KNOB_MODE mode, const string& family, const string& name, const string& default_value,
       const string& purpose, const string& /*prefix*/ = "")
      : KNOB_BASE(mode, family, name, default_value, purpose) {
    KnobParseValue(default_value, &default_parsed_, false);
    value_ = default_parsed_;
  }
  const T& Value() const { return value_; }
  operator const T&() const { return value_; }
  BOOL TakesOptionalValue() const override { return std::is_same_v<T, BOOL>; }

 protected:
  BOOL Parse(const string& text, BOOL append) override {
    T parsed = append ? value_ : T();
    if (!KnobParseValue(text, &parsed, append)) return false;
    value_ = parsed;
    return true;
  }
  VOID ResetValue() override { value_ = default_parsed_; }

 private:
  T value_{};
  T default_parsed_{};
};

}  // namespace LEVEL_BASE

// ---------------------------------------------------------------------------------------------------------
// Instruction queries (decoder level).
// ---------------------------------------------------------------------------------------------------------
namespace LEVEL_CORE {
using namespace LEVEL_BASE;

typedef INDEX<5> INS;
typedef UINT32 OPCODE;

// Opcode numbers returned by INS_Opcode. The named ones are fixed; any other instruction gets
// KEL_OPCODE_OTHER_BASE plus the decoder's own mnemonic number.
enum : OPCODE {
  KEL_OPCODE_INVALID = 0,
  KEL_OPCODE_CALL_NEAR = 75,
  KEL_OPCODE_JMP = 303,
  KEL_OPCODE_RET_NEAR = 590,
  KEL_OPCODE_NOP = 470,
  KEL_OPCODE_OTHER_BASE = 0x10000,
};

BOOL INS_IsBranch(INS ins);              // conditional or unconditional jump (not call/ret)
BOOL INS_IsDirectBranch(INS ins);        // jump with an immediate target
BOOL INS_IsIndirectControlFlow(INS ins); // jump or call through a register or memory
BOOL INS_IsRet(INS ins);
BOOL INS_IsSysret(INS ins);
BOOL INS_HasFallThrough(INS ins);        // execution may continue at the next instruction
BOOL INS_IsCall(INS ins);
OPCODE INS_Opcode(INS ins);
string INS_Mnemonic(INS ins);

}  // namespace LEVEL_CORE

// ---------------------------------------------------------------------------------------------------------
// The tool's interface.
// ---------------------------------------------------------------------------------------------------------
namespace LEVEL_KELCLIENT {
using namespace LEVEL_BASE;
using namespace LEVEL_CORE;

typedef INDEX<1> IMG;
typedef INDEX<2> SEC;
typedef INDEX<3> SYM;
typedef INDEX<4> RTN;
using LEVEL_CORE::INS;

struct KEL_PROTO;           // an allocated signature
typedef KEL_PROTO* PROTO;
struct KEL_CHILD_PROCESS;   // a program about to be started by exec
typedef KEL_CHILD_PROCESS* CHILD_PROCESS;

// Points of a fork callback.
enum FPOINT {
  FPOINT_BEFORE = 0,
  FPOINT_AFTER_IN_PARENT = 1,
  FPOINT_AFTER_IN_CHILD = 2,
};

// How much freedom a probe has.
enum PROBE_MODE {
  PROBE_MODE_DEFAULT = 0,
  PROBE_MODE_ALLOW_RELOCATION = 1,  // the replaced instructions may be relocated into the trampoline
};

enum SEC_TYPE { SEC_TYPE_INVALID, SEC_TYPE_EXEC, SEC_TYPE_DATA, SEC_TYPE_BSS, SEC_TYPE_OTHER };

enum ATTACH_STATUS { ATTACH_INITIATED, ATTACH_FAILED_DETACH };

// Signature description for RTN_ReplaceSignatureProbed.
enum CALLINGSTD_TYPE { CALLINGSTD_INVALID, CALLINGSTD_DEFAULT, CALLINGSTD_CDECL };
enum PARG_KIND { PARG_KIND_END, PARG_KIND_VOID, PARG_KIND_VALUE, PARG_KIND_POINTER };
struct PARG_T {
  PARG_KIND kind;
  UINT32 size;  // bytes of the value
};
#define KEL_PARG(type)                                                                        \
  (LEVEL_KELCLIENT::PARG_T{std::is_void_v<type>      ? LEVEL_KELCLIENT::PARG_KIND_VOID        \
                           : std::is_pointer_v<type> ? LEVEL_KELCLIENT::PARG_KIND_POINTER     \
                                                     : LEVEL_KELCLIENT::PARG_KIND_VALUE,      \
                           LEVEL_KELCLIENT::kel_parg_size<type>()})
#define KEL_PARG_END() (LEVEL_KELCLIENT::PARG_T{LEVEL_KELCLIENT::PARG_KIND_END, 0})
template <class T>
constexpr UINT32 kel_parg_size() {
  if constexpr (std::is_void_v<T>) return 0; else return sizeof(T);
}

// Argument list of RTN_ReplaceSignatureProbed, ended by IARG_END:
//   IARG_PROTOTYPE, PROTO                  the signature (first, required)
//   IARG_FUNCARG_ENTRYPOINT_VALUE, UINT32  the n-th argument of the call, from 0
//   IARG_ORIG_FUNCPTR                      an address that runs the original routine unchanged
//   IARG_PTR, void*                        a constant pointer
//   IARG_UINT32, UINT32 / IARG_ADDRINT, ADDRINT   a constant
//   IARG_RETURN_IP                         the caller's return address
enum IARG_TYPE {
  IARG_END = 0,
  IARG_PROTOTYPE,
  IARG_FUNCARG_ENTRYPOINT_VALUE,
  IARG_ORIG_FUNCPTR,
  IARG_PTR,
  IARG_UINT32,
  IARG_ADDRINT,
  IARG_RETURN_IP,
};

typedef VOID (*IMAGECALLBACK)(IMG img, VOID* arg);
typedef VOID (*FORK_PROBE_MODE_CALLBACK)(UINT32 child_pid, VOID* arg);
typedef BOOL (*FOLLOW_CHILD_PROCESS_CALLBACK)(CHILD_PROCESS child, VOID* arg);
typedef VOID (*DETACH_PROBE_CALLBACK)(VOID* arg);
typedef VOID (*ATTACH_PROBED_CALLBACK)(VOID* arg);
typedef VOID (*APPLICATION_START_CALLBACK)(VOID* arg);
typedef VOID (*THREAD_ATTACH_PROBED_CALLBACK)(VOID* sigmask, VOID* arg);
typedef VOID (*THREAD_DETACH_PROBED_CALLBACK)(VOID* arg);

// *Process control.*
BOOL KEL_Init(INT32 argc, CHAR** argv);  // true means: the command line is wrong (message already printed)
BOOL KEL_IsAttaching();
BOOL KEL_InitSymbols();
[[noreturn]] VOID KEL_StartProgramProbed();
VOID KEL_DetachProbed();
ATTACH_STATUS KEL_AttachProbed(ATTACH_PROBED_CALLBACK callback, VOID* arg);
VOID KEL_LockClient();    // recursive; may be taken on any thread, also one made by raw clone
VOID KEL_UnlockClient();
string KEL_Version();

// *Callback registration.* Each returns true when registered.
// Application start: once the images present have been shown (at the first consistent state of the loader in
// a launched process; after the callback of KEL_AttachProbed).
BOOL KEL_AddApplicationStartFunction(APPLICATION_START_CALLBACK fn, VOID* arg);
// Per-thread callbacks: each thread of the process is visited (on itself, in a handler of the engine's visit
// signal, SIGRTMAX unless -thread_signal says otherwise) when KEL_AttachProbed has re-registered (attach
// callbacks get the thread's signal mask) and when KEL_DetachProbed has removed the probes. A thread that
// blocks the visit signal is skipped.
BOOL KEL_AddThreadAttachProbedFunction(THREAD_ATTACH_PROBED_CALLBACK fn, VOID* arg);
BOOL KEL_AddThreadDetachProbedFunction(THREAD_DETACH_PROBED_CALLBACK fn, VOID* arg);
BOOL KEL_AddDetachFunctionProbed(DETACH_PROBE_CALLBACK fn, VOID* arg);
BOOL KEL_AddForkFunctionProbed(FPOINT point, FORK_PROBE_MODE_CALLBACK fn, VOID* arg);
BOOL KEL_AddFollowChildProcessFunction(FOLLOW_CHILD_PROCESS_CALLBACK fn, VOID* arg);
VOID IMG_AddInstrumentFunction(IMAGECALLBACK fn, VOID* arg);
VOID IMG_AddUnloadFunction(IMAGECALLBACK fn, VOID* arg);

// *Child processes.* argv stays valid for the duration of the follow callback.
BOOL CHILD_PROCESS_GetCommandLine(CHILD_PROCESS child, INT32* argc, const CHAR* const** argv);
string CHILD_PROCESS_GetProgram(CHILD_PROCESS child);

// *Images.*
BOOL IMG_Valid(IMG img);
UINT32 IMG_Id(IMG img);
IMG IMG_FindImgById(UINT32 id);
IMG IMG_FindByAddress(ADDRINT address);
IMG IMG_Invalid();
IMG IMG_Next(IMG img);       // images in load order
IMG APP_ImgHead();
const string& IMG_Name(IMG img);
BOOL IMG_IsMainExecutable(IMG img);
BOOL IMG_IsVDSO(IMG img);
ADDRINT IMG_LowAddress(IMG img);
ADDRINT IMG_HighAddress(IMG img);   // last byte, inclusive
UINT32 IMG_NumRegions(IMG img);
ADDRINT IMG_RegionLowAddress(IMG img, UINT32 n);
ADDRINT IMG_RegionHighAddress(IMG img, UINT32 n);  // last byte, inclusive
ADDRDELTA IMG_LoadOffset(IMG img);
ADDRINT IMG_EntryAddress(IMG img);
SYM IMG_RegsymHead(IMG img);
SEC IMG_SecHead(IMG img);

// *Sections.*
BOOL SEC_Valid(SEC sec);
SEC SEC_Next(SEC sec);
SEC SEC_Invalid();
IMG SEC_Img(SEC sec);
const string& SEC_Name(SEC sec);
ADDRINT SEC_Address(SEC sec);  // run-time address; 0 for sections that are not mapped
USIZE SEC_Size(SEC sec);
BOOL SEC_IsExecutable(SEC sec);
BOOL SEC_IsReadable(SEC sec);
BOOL SEC_IsWriteable(SEC sec);
SEC_TYPE SEC_Type(SEC sec);
RTN SEC_RtnHead(SEC sec);

// *Symbols.* Versioned names read "name@@VER" (the default version) or "name@VER" (another one).
BOOL SYM_Valid(SYM sym);
SYM SYM_Next(SYM sym);
SYM SYM_Invalid();
UINT32 SYM_Index(SYM sym);       // index in its ELF symbol table
const string& SYM_Name(SYM sym);
ADDRINT SYM_Value(SYM sym);      // link-time value; add IMG_LoadOffset for the address
BOOL SYM_Dynamic(SYM sym);       // from .dynsym
BOOL SYM_IFuncResolver(SYM sym);

// *Routines.*
BOOL RTN_Valid(RTN rtn);
RTN RTN_Invalid();
RTN RTN_FindByName(IMG img, const CHAR* name);  // exact name, else the plain name of a versioned symbol
RTN RTN_FindByAddress(ADDRINT address);         // the routine containing the address (takes the client lock)
const string& RTN_Name(RTN rtn);
ADDRINT RTN_Address(RTN rtn);
USIZE RTN_Size(RTN rtn);
USIZE RTN_Range(RTN rtn);
AFUNPTR RTN_Funptr(RTN rtn);
SEC RTN_Sec(RTN rtn);
RTN RTN_Next(RTN rtn);
BOOL RTN_IsDynamic(RTN rtn);
RTN RTN_CreateAt(ADDRINT address, string name);

BOOL RTN_IsSafeForProbedReplacement(RTN rtn);
BOOL RTN_IsSafeForProbedReplacementEx(RTN rtn, PROBE_MODE mode);
AFUNPTR RTN_ReplaceProbed(RTN rtn, AFUNPTR replacement);
AFUNPTR RTN_ReplaceProbedEx(RTN rtn, PROBE_MODE mode, AFUNPTR replacement);
AFUNPTR RTN_ReplaceSignatureProbed(RTN rtn, AFUNPTR replacement, ...);
// Why the last refusal of this routine happened, as a short word ("ok" when it is safe).
const CHAR* RTN_ProbeRefusalReason(RTN rtn, PROBE_MODE mode);

PROTO PROTO_Allocate(PARG_T result, CALLINGSTD_TYPE cstype, const CHAR* name, ...);
VOID PROTO_Free(PROTO proto);

// *Instructions of an open routine.*
VOID RTN_Open(RTN rtn);
VOID RTN_Close(RTN rtn);
INS RTN_InsHead(RTN rtn);
INS RTN_InsHeadOnly(RTN rtn);
INS RTN_InsTail(RTN rtn);
BOOL INS_Valid(INS ins);
INS INS_Invalid();
INS INS_Next(INS ins);
INS INS_Prev(INS ins);
ADDRINT INS_Address(INS ins);
USIZE INS_Size(INS ins);
ADDRINT INS_DirectControlFlowTargetAddress(INS ins);
ADDRINT INS_NextAddress(INS ins);
BOOL INS_IsAddedForFunctionReplacement(INS ins);
string INS_Disassemble(INS ins);

}  // namespace LEVEL_KELCLIENT

// ---------------------------------------------------------------------------------------------------------
// The engine's operating-system layer, usable from any thread (no libc locks, raw system calls).
// ---------------------------------------------------------------------------------------------------------
namespace LEVEL_BASE {

enum OS_RETURN_CODE_GENERIC { OS_RETURN_CODE_NO_ERROR = 0, OS_RETURN_CODE_INVALID_ARGS, OS_RETURN_CODE_FAILED,
                              OS_RETURN_CODE_BUFFER_TOO_SHORT, OS_RETURN_CODE_FILE_QUERY_FAILED };
struct OS_RETURN_CODE {
  OS_RETURN_CODE_GENERIC generic_err;
  INT32 os_specific_err;  // errno of the failing system call
};
#define OS_RETURN_CODE_IS_SUCCESS(rc) ((rc).generic_err == LEVEL_BASE::OS_RETURN_CODE_NO_ERROR)

typedef UINT32 OS_FILE_ATTRIBUTES;
enum : UINT32 {
  OS_FILE_ATTRIBUTES_NONE = 0,
  OS_FILE_ATTRIBUTES_EXIST = 1u << 0,
  OS_FILE_ATTRIBUTES_REGULAR = 1u << 1,
  OS_FILE_ATTRIBUTES_DIRECTORY = 1u << 2,
  OS_FILE_ATTRIBUTES_SYMBOLIC_LINK = 1u << 3,
};

// A futex lock owned by a thread id (so a raw clone thread that shares its creator's TLS is still itself).
struct OS_MUTEX_TYPE {
  volatile INT32 word;    // 0 free, 1 taken, 2 taken with waiters
  volatile INT32 owner;   // thread id of the holder
  INT32 depth;            // recursion depth; used only by recursive mutexes
  INT32 recursive;
};
struct OS_RWLOCK_TYPE {
  volatile INT32 readers;  // active readers, or -1 while a writer holds it
  volatile INT32 seq;      // futex word bumped at every release
};

VOID OS_MutexInit(OS_MUTEX_TYPE* lock);
VOID OS_MutexRecursiveInit(OS_MUTEX_TYPE* lock);
VOID OS_MutexLock(OS_MUTEX_TYPE* lock);
BOOL OS_MutexTryLock(OS_MUTEX_TYPE* lock);
VOID OS_MutexUnlock(OS_MUTEX_TYPE* lock);
VOID OS_MutexFini(OS_MUTEX_TYPE* lock);
VOID OS_RWLockInitialize(OS_RWLOCK_TYPE* lock);
VOID OS_RWLockAcquireRead(OS_RWLOCK_TYPE* lock);
VOID OS_RWLockAcquireWrite(OS_RWLOCK_TYPE* lock);
VOID OS_RWLockRelease(OS_RWLOCK_TYPE* lock);
OS_RETURN_CODE OS_GetKernelRelease(CHAR* buffer, USIZE size);
OS_RETURN_CODE OS_GetHostCPUArch(CHAR* buffer, USIZE size);  // "i686", "x86_64", ...
OS_RETURN_CODE OS_GetFileAttributes(const CHAR* path, OS_FILE_ATTRIBUTES* attributes);
OS_RETURN_CODE OS_FileSizeFD(NATIVE_FD fd, USIZE* size);
NATIVE_PID OS_GetTid();

}  // namespace LEVEL_BASE

// The engine's version, looked up by name (dlsym) by tools that want the engine's file.
KEL_EXPORT const char ZundVersionC[];

using namespace LEVEL_BASE;
using namespace LEVEL_CORE;
using namespace LEVEL_KELCLIENT;
