#!/usr/bin/env python3
"""Generates the event callbacks and their two tables from functions.desc.

    gen_callbacks.py <functions.desc> <output.cpp>

functions.desc gives every probe id its name, kind, signature and heap expressions; this script adds what a
call's record carries (the RECORD rules below) and writes, into the build tree, one callback
vorx_tp_<fn>_<order>_cbk per recorded function, the table g_vorx_tp_cbks ("tp_filter") and the stack table
g_vorx_ss_cbks ("ss_filter"). Records are the API records of the trace format: type 7 for calls (begin and
end time), type 9 for annotation points (one time).
"""
import re
import sys

PAUSED, RESUMED = 0, 1
PRE, POST = 0, 1

# Wrappers that make no record of themselves.
NO_RECORD = {
    "__ozk_sync_prepare", "dl_iterate_phdr", "system", "getitimer", "__ozk_stack_callee_enter",
    "__ozk_stack_callee_leave", "__errno_location", "__ozk_model_disable_push", "__ozk_model_disable_pop",
    "setenv", "pthread_mutex_trylock", "pthread_spin_trylock", "pthread_setspecific", "pthread_getspecific",
    "pthread_self", "_pthread_cleanup_push", "_pthread_cleanup_pop", "get_vorx_prof_extension_api",
    "release_vorx_prof_extension_api", "sigaltstack", "syscall", "pthread_getattr_np", "pthread_setcanceltype",
    "__ozk_model_is_collection_disabled", "__ozk_api_init", "__ozk_get_timestamp", "ozkcolext_enter_runtime",
    "ozkcolext_leave_runtime", "ozkcolext_report_state", "__ozk_detach", "ozkcolext_ignore_thread",
    "posix_fallocate", "pthread_key_create", "dlopen", "dlclose", "dlsym",
    # the thread's identity is written by the thread start, which knows the new thread
    "pthread_create",
}

# Calls whose record holds no value: the call and its times say it all.
NO_ARGS = {
    "getchar", "getwchar", "gets", "callrpc", "clnt_broadcast", "clntudp_create", "clntudp_bufcreate",
    "pmap_getmaps", "pmap_getport", "pmap_rmtcall", "pmap_set", "clntraw_create", "svc_run", "svc_sendreply",
    "svcraw_create", "svctcp_create", "svcudp_bufcreate", "svcudp_create", "abort", "_exit", "getch", "wgetch",
    "mvgetch", "pthread_exit", "pthread_key_create", "nanosleep", "pthread_sigmask", "dlopen", "dlclose", "dlsym",
    "sigaction", "signal", "sigprocmask", "sigsuspend", "sigpending", "setitimer", "exit", "alarm", "pause",
    "sigtimedwait", "sigwaitinfo", "clock_nanosleep", "usleep", "ualarm", "user_mark_global", "sigwait",
    "notify_event", "initialize", "getenv", "timer_settime", "__internal_on_collection_started",
    "__internal_on_collection_stopped", "__ozk_heap_allocate_begin", "__ozk_heap_free_begin",
    "__ozk_heap_reallocate_begin", "aio_suspend", "lio_listio", "pmemobj_direct", "profile_hook_rx_burst_cb",
}

# One value: the object of the call (or its result where named so).
ONE_WORD = {
    "socket": ["{ret}"], "shutdown": ["{fd}"], "getwc": ["{stream}"], "getw": ["{stream}"], "_IO_getc": ["{fp}"],
    "fgetc": ["{stream}"], "fgetwc": ["{stream}"], "fgets": ["{stream}"], "fgetws": ["{stream}"],
    "__ozk_sync_cancel": ["{addr}"], "__ozk_sync_acquired": ["{addr}"], "__ozk_sync_releasing": ["{addr}"],
    "__ozk_sync_destroy": ["{addr}"], "msgrcv": ["{msqid}"], "msgsnd": ["{msqid}"], "semop": ["{semid}"],
    "semtimedop": ["{semid}"], "io_getevents": ["{ctx}"], "msgget": ["{ret}"], "semget": ["{ret}"],
    "wait": ["{ret}"], "waitpid": ["{ret}"], "wait3": ["{ret}"], "wait4": ["{ret}"], "ioctl": ["{fd}"],
    "flockfile": ["{stream}"], "funlockfile": ["{stream}"], "lockf": ["{fd}"], "aio_read": ["{aiocbp}"],
    "aio_write": ["{aiocbp}"], "__internal_set_runs_count": ["{count}"],
}

# Records whose values are not the object and the result.
SPECIAL = {
    "pthread_cond_wait": (2, ["{cond}", "{mutex}", "{ret}"]),
    "pthread_cond_timedwait": (2, ["{cond}", "{mutex}", "{ret}"]),
    "waitid": (1, ["{idtype}", "{id}", "{ret}"]),
    "fcntl": (1, ["{fd}", "{cmd}", "{ret}"]),
    "sleep": (1, ["{seconds}", "{ret}"]),
    "read": (1, ["{fd}", "{ret}"]),
    "write": (1, ["{fd}", "{ret}"]),
    "readv": (1, ["{fd}", "{ret}"]),
    "writev": (1, ["{fd}", "{ret}"]),
    "recv": (1, ["{fd}", "{ret}"]),
    "recvfrom": (1, ["{fd}", "{ret}"]),
    "send": (1, ["{fd}", "{ret}"]),
    "sendto": (1, ["{fd}", "{ret}"]),
    "recvmsg": (1, ["{fd}", "{ret}"]),
    "sendmsg": (1, ["{fd}", "{ret}"]),
    "fread": (1, ["{stream}", "{ret}*{size}"]),
    "fwrite": (1, ["{s}", "{ret}*{size}"]),
    "open": (1, ["str:{file}", "{ret}"]),
    "fopen": (1, ["str:{filename}", "{ret}"]),
    "mq_open": (1, ["str:{name}", "{ret}"]),
    "pipe": (1, ["{pipedes}[0]", "{pipedes}[1]", "{ret}"]),
    "io_setup": (1, ["*{ctxp}", "{ret}"]),
    "poll": (1, ["fds:poll"]),
    "ppoll": (1, ["fds:poll"]),
    "select": (1, ["fds:select"]),
    "pselect": (1, ["fds:select"]),
    "munmap": (1, ["{addr}", "pages:{len}"]),
    "mmap": (1, ["pages:{len}", "{ret}"]),
    "pvalloc": (1, ["pages:{size}", "{ret}"]),
    "mremap": (1, ["{addr}", "pages:{old_len}", "pages:{new_len}", "{ret}"]),
    "futex": (1, ["{uaddr}", "{ret}"]),
}

# The annotation API: form (1 call, 2 point), version, values, and the states whose entries it has.
# id:{x} is the id word of a library object, u64:{x} a 64-bit value, ids:{x} the id words of an ozk_id.
BOTH = (PAUSED, RESUMED)
ANNOTATIONS = {
    "__ozk_pause": (1, 0, [], BOTH),
    "__ozk_resume": (1, 0, [], BOTH),
    "__ozk_thread_set_name": (1, 1, ["str:{name}"], BOTH),
    "__ozk_thread_ignore": (1, 0, [], BOTH),
    "__ozk_sync_create": (1, 1, ["{addr}", "str:{objtype}", "str:{objname}", "{attr}"], BOTH),
    "__ozk_sync_set_name": (1, 1, ["{addr}", "str:{objtype}", "str:{objname}", "{attr}"], BOTH),
    "__ozk_sync_rename": (1, 1, ["{addr}", "str:{name}"], BOTH),
    "__ozk_sync_destroy": (1, 1, ["{addr}"], BOTH),
    "__ozk_sync_acquired": (1, 1, ["{addr}"], (RESUMED,)),
    "__ozk_sync_cancel": (1, 1, ["{addr}"], (RESUMED,)),
    "__ozk_sync_releasing": (1, 1, ["{addr}"], (RESUMED,)),
    "__ozk_heap_allocate_begin": (1, 0, [], (RESUMED,)),
    "__ozk_heap_free_begin": (1, 0, [], (RESUMED,)),
    "__ozk_heap_reallocate_begin": (1, 0, [], (RESUMED,)),
    "__ozk_frame_create": (1, 1, ["str:{name}", "id:{ret}"], BOTH),
    "__ozk_frame_begin": (2, 2, ["id:{frame}"], (RESUMED,)),
    "__ozk_frame_end": (2, 2, ["id:{frame}"], (RESUMED,)),
    "__ozk_frame_submit_v3": (2, 3, ["id:{domain}", "ids3:{id}", "u64:{begin}", "u64:{end}", "0"], (RESUMED,)),
    "__ozk_counter_create": (1, 1, ["str:{name}", "str:{domain}", "id:{ret}"], BOTH),
    "__ozk_counter_create_typed": (1, 1, ["str:{name}", "str:{domain}", "id:{ret}", "{type}"], BOTH),
    "__ozk_counter_destroy": (1, 1, ["id:{counter}"], BOTH),
    "__ozk_counter_inc": (1, 1, ["id:{counter}"], BOTH),
    "__ozk_counter_dec": (1, 1, ["id:{counter}"], BOTH),
    "__ozk_counter_inc_delta": (1, 1, ["id:{counter}", "u64:{value}"], BOTH),
    "__ozk_counter_dec_delta": (1, 1, ["id:{counter}", "u64:{value}"], BOTH),
    "__ozk_counter_inc_v3": (1, 1, ["id:{domain}", "id:{name}"], BOTH),
    "__ozk_counter_dec_v3": (1, 1, ["id:{domain}", "id:{name}"], BOTH),
    "__ozk_counter_inc_delta_v3": (1, 1, ["id:{domain}", "id:{name}", "u64:{delta}"], BOTH),
    "__ozk_counter_dec_delta_v3": (1, 1, ["id:{domain}", "id:{name}", "u64:{delta}"], BOTH),
    "__ozk_counter_set_value": (1, 1, ["id:{counter}", "*(const unsigned*){value_ptr}"], BOTH),
    "__ozk_domain_create": (1, 1, ["str:{name}", "id:{ret}"], BOTH),
    "__ozk_string_handle_create": (1, 1, ["str:{name}", "id:{ret}"], BOTH),
    "__ozk_event_create": (1, 1, ["strn:{name}:{namelen}", "{ret}"], BOTH),
    "__ozk_event_start": (2, 2, ["{event}"], (RESUMED,)),
    "__ozk_event_end": (2, 2, ["{event}"], (RESUMED,)),
    "__ozk_task_begin": (2, 3, ["id:{domain}", "ids:{taskid}", "id:{name}"], (RESUMED,)),
    "__ozk_task_begin_fn": (2, 3, ["id:{domain}", "ids:{taskid}", "{fn}"], (RESUMED,)),
    "__ozk_task_end": (2, 2, ["id:{domain}"], (RESUMED,)),
    "__ozk_task_begin_overlapped": (2, 2, ["id:{domain}", "ids:{taskid}", "ids:{parentid}", "id:{name}"], (RESUMED,)),
    "__ozk_task_end_overlapped": (2, 2, ["id:{domain}", "ids:{taskid}"], (RESUMED,)),
    "__ozk_stack_caller_create": (1, 1, ["{ret}"], BOTH),
    "__ozk_stack_caller_destroy": (1, 1, ["{ctx}"], BOTH),
    "__ozk_heap_allocate_end": (1, 1, ["{heap}", "*{addr}", "{size}"], (RESUMED,)),
    "__ozk_heap_free_end": (1, 1, ["{heap}", "{addr}"], (RESUMED,)),
    "__ozk_heap_reallocate_end": (1, 1, ["{heap}", "{addr}", "*{new_addr}", "{new_size}"], (RESUMED,)),
    "user_mark_global": (1, 0, [], BOTH),
    "__internal_set_ring_buffer": (1, 2, ["u64:{buffer}"], (RESUMED,)),
    "__internal_on_collection_started": (1, 0, [], (RESUMED,)),
    "__internal_on_collection_stopped": (1, 0, [], (RESUMED,)),
    "__internal_set_runs_count": (1, 1, ["{count}"], (RESUMED,)),
}

class DescError(Exception):
    pass


RECORDED_KINDS = {"wait", "wait_retry", "event", "heap", "counted", "replaced", "event_only"}
WIDE_TYPES = ("unsigned long long", "uint64_t")


class Function:
    def __init__(self, pid, name, kind, attrs, ret, params):
        self.id, self.name, self.kind, self.attrs = pid, name, kind, attrs
        self.ret, self.params = ret, params  # params: [(type, name)]

    @property
    def cname(self):
        return self.name.replace(".", "_")

    @property
    def cbk_name(self):
        snake = re.sub(r"(?<=[a-z0-9])([A-Z])", r"_\1", self.cname)
        return snake.lower()

    def attr(self, key):
        for a in self.attrs:
            if a.startswith(key + "="):
                return a[len(key) + 1:]
        return None


def split_params(text):
    text = text.strip()
    if text in ("", "void"):
        return []
    out, depth, cur = [], 0, ""
    for ch in text:
        if ch == "(":
            depth += 1
        elif ch == ")":
            depth -= 1
        if ch == "," and depth == 0:
            out.append(cur.strip())
            cur = ""
        else:
            cur += ch
    out.append(cur.strip())
    params = []
    for p in out:
        m = re.match(r"(.*?)([A-Za-z_][A-Za-z_0-9]*)$", p)
        params.append((m.group(1).strip(), m.group(2)))
    return params


def read_description(path):
    functions = []
    for line in open(path, encoding="utf-8"):
        line = line.split("#", 1)[0] if line.lstrip().startswith("#") else line
        line = line.strip()
        if not line or line.startswith("@") or " : " not in line:
            continue
        head, sig = line.split(" : ", 1)
        fields = head.split()
        pid, name, kind = int(fields[0]), fields[1], fields[2]
        attrs = fields[5:]
        m = re.match(r"(.*?)\s*\((.*)\)\s*$", sig.strip())
        functions.append(Function(pid, name, kind, attrs, m.group(1).strip(), split_params(m.group(2))))
    return functions


class Tail:
    """The values behind the head: a fixed part and texts, in order."""

    def __init__(self, fn):
        self.fn, self.fixed, self.texts, self.stmts = fn, 0, [], []

    def param_type(self, placeholder):
        name = placeholder.strip("{}")
        for ctype, pname in self.fn.params:
            if pname == name:
                return ctype.replace(" ", "")
        return ""

    def expand(self, expr):
        expr = expr.replace("{ret}", "p.__result")
        return re.sub(r"\{([A-Za-z_0-9]+)\}", r"p.__\1", expr)

    def word(self, expr):
        value = self.expand(expr)
        self.stmts.append(f"n += vorx_cbk_u32(t + n, (uint32_t)(uintptr_t)({value}));")
        self.fixed += 4

    def add(self, item):
        if item.startswith("strn:"):
            # a text with its length: "strn:{text}:{length}"
            text, length = (self.expand(part) for part in item[5:].split(":"))
            self.texts.append(("n", text, length))
            self.stmts.append(f"n += vorx_cbk_text_n(t + n, (const char*)({text}), (int)({length}));")
        elif item.startswith("str:"):
            value = self.expand(item[4:])
            self.texts.append(value)
            self.stmts.append(f"n += vorx_cbk_text(t + n, (const char*)({value}));")
        elif item.startswith("u64:"):
            self.stmts.append(f"n += vorx_cbk_u64(t + n, (uint64_t)({self.expand(item[4:])}));")
            self.fixed += 8
        elif item.startswith("id:"):
            self.stmts.append(f"n += vorx_cbk_u32(t + n, vorx_cbk_object_id({self.expand(item[3:])}));")
            self.fixed += 4
        elif item.startswith("ids"):
            # the first two (ids:) or all three (ids3:) words of an ozk_id, which the wrapper took by value
            words = 3 if item.startswith("ids3:") else 2
            param = item.split(":", 1)[1]
            if self.param_type(param) != "ozk_id":
                raise DescError(f"{self.fn.name}: {item} needs an ozk_id parameter passed by value, "
                                f"not \"{self.param_type(param) or 'nothing'}\"; declare it \"ozk_id {param[1:-1]}\"")
            value = self.expand(param)
            self.stmts.append(f"n += vorx_cbk_u32(t + n, {words}u);")
            for w in range(words):
                self.stmts.append(f"n += vorx_cbk_u64(t + n, {value}.words[{w}]);")
            self.fixed += 4 + 8 * words
        elif item.startswith("product:"):
            # an element count times an element size: an overflow is the caller's contract broken
            a, b = re.findall(r"\{([A-Za-z_0-9]+)\}", item)
            u = f"data->params.u_{self.fn.cname}"
            self.stmts.append(f"uint32_t object_size = (uint32_t)(p.__{a} * p.__{b});")
            self.stmts.append(f"VORX_ASSERT(object_size >= {u}.__{a} && object_size >= {u}.__{b});")
            self.stmts.append("n += vorx_cbk_u32(t + n, object_size);")
            self.fixed += 4
        elif item.startswith("pages:"):
            self.stmts.append(f"n += vorx_cbk_u32(t + n, vorx_cbk_pages((uint64_t)({self.expand(item[6:])})));")
            self.fixed += 4
        else:
            self.word(item)


def values_of(fn):
    """(version, items) of a plain function's record, or None without one."""
    name = fn.cname
    if name in SPECIAL:
        return SPECIAL[name]
    if fn.cbk_name in NO_ARGS or name in NO_ARGS or (fn.kind == "replaced"):
        return (0, [])
    if name in ONE_WORD:
        return (1, ONE_WORD[name])
    has_ret = fn.ret != "void"
    if fn.kind == "heap":
        size, obj, freed = fn.attr("hsize"), fn.attr("hobj") or "{ret}", fn.attr("hfree")
        if size and re.fullmatch(r"\{\w+\}\*\{\w+\}", size):
            size = "product:" + size
        if size and freed:
            return (1, [freed, size, obj])
        if size:
            return (1, [size, obj])
        return (1, [freed])
    first = fn.params[0][1] if fn.params else None
    items = []
    if first and fn.params[0][0] not in WIDE_TYPES and "timeval" not in fn.params[0][0] and "PMEMoid" != fn.params[0][0]:
        items.append("{%s}" % first)
    if has_ret and fn.ret not in ("PMEMoid",) and fn.ret not in WIDE_TYPES:
        items.append("{ret}")
    return (1 if items else 0, items)


def emit_fd_list_callback(out, fn, cb, how):
    """poll and select: the count, the result and the ready descriptors, gathered in the workspace's vector."""
    out.append(f"  const auto& p = data->params.u_{fn.cname};")
    out.append("  uint32_t count = 0;")
    out.append("  if (p.__result > 0) {")
    if how == "poll":
        out.append("    count = vorx_cbk_poll_fds(wsp, p.__fds, (uint32_t)p.__nfds);")
    else:
        out.append("    vorx_get_signaled_fds(&wsp->fd_vector, p.__readfds, p.__writefds, p.__exceptfds, p.__nfds, &count);")
    out.append("  }")
    out.append("  uint8_t t[9];")
    out.append("  uint32_t n = vorx_cbk_u8(t, 1);")
    out.append("  n += vorx_cbk_u32(t + n, count);")
    out.append("  n += vorx_cbk_u32(t + n, (uint32_t)p.__result);")
    out.append(f"  vorx_cbk_put_call_record_with_list(wsp, data, vorx_cbk_unit(wsp, data), vorx_pi_{fn.cname}, t, n,")
    out.append(f'                                     wsp->fd_vector.entries, count, "{cb}");')
    out.append("}")
    return cb


def text_size(text):
    """The size term of one text of the tail: a plain text, or ("n", text, length) for a counted one."""
    if isinstance(text, tuple):
        return f" + vorx_cbk_text_n_size((const char*)({text[1]}), (int)({text[2]}))"
    return f" + vorx_cbk_text_size((const char*)({text}))"


def emit_callback(out, fn, form, version, items, order):
    cb = f"vorx_tp_{fn.cbk_name}_{'pre' if order == PRE else 'post'}_cbk"
    if items and items[0].startswith("fds:"):
        out.append(f'extern "C" void {cb}(void* w, vorx_probe_data_t* data) {{')
        out.append("  vorx_workspace* wsp = static_cast<vorx_workspace*>(w);")
        return emit_fd_list_callback(out, fn, cb, items[0][4:])
    tail = Tail(fn)
    for item in items:
        tail.add(item)
    out.append(f'extern "C" void {cb}(void* w, vorx_probe_data_t* data) {{')
    out.append("  vorx_workspace* wsp = static_cast<vorx_workspace*>(w);")
    open_record = "vorx_cbk_open_call_record" if form == 1 else "vorx_cbk_open_point_record"
    size = f"{1 + tail.fixed}u" if items else "0u"
    if items:
        out.append(f"  const auto& p = data->params.u_{fn.cname};")
        if tail.texts:
            # texts are measured first: the record is exactly as long as its values
            size = f"{1 + tail.fixed}u" + "".join(text_size(t) for t in tail.texts)
            out.append(f"  const uint32_t size = {size};")
            size = "size"
    # the values are written straight into the unit, behind the head
    out.append("  vorx_cbk_record r;")
    out.append(f"  uint8_t* t = {open_record}(&r, wsp, data, vorx_cbk_unit(wsp, data), vorx_pi_{fn.cname}, {size});")
    out.append("  if (!t) return;")
    if items:
        out.append(f"  uint32_t n = vorx_cbk_u8(t, {version});")
        out.extend("  " + s for s in tail.stmts)
        out.append(f"  VORX_ASSERT(n == {size});")
    out.append(f'  vorx_cbk_close_record(&r, "{cb}");')
    out.append("}")
    return cb


def index(pid, state, order):
    return (pid * 2 + state) * 2 + order


def generate(functions):
    global ID_EOF
    ID_EOF = max(f.id for f in functions) + 1
    out = ["// generated from functions.desc by gen_callbacks.py, do not edit",
           "#include <stdint.h>",
           "#include <string.h>",
           "#include <wchar.h>",
           '#include "event_records.h"',
           '#include "vorx_log.h"',
           "",
           "namespace {",
           "// Lengths of mappings are reported in pages.",
           "inline uint32_t vorx_cbk_pages(uint64_t bytes) {",
           "  uint64_t page = sal_get_page_size();",
           "  VORX_ASSERT(page != 0);",
           "  return (uint32_t)((bytes + page - 1) / page);",
           "}",
           "}  // namespace",
           ""]
    tp, ss = {}, {}
    for fn in functions:
        if fn.kind not in RECORDED_KINDS or fn.cname in NO_RECORD:
            continue
        if fn.cname in ANNOTATIONS:
            form, version, items, states = ANNOTATIONS[fn.cname]
            order = PRE if form == 2 else POST
            cb = emit_callback(out, fn, form, version, items, order)
            for st in states:
                tp[index(fn.id, st, order)] = cb
        elif fn.kind == "event_only" or fn.name.startswith("__ozk_") or fn.name.startswith("__internal_"):
            continue  # handed over by other parts with prepared records
        else:
            version, items = values_of(fn)
            cb = emit_callback(out, fn, 1, version, items, POST)
            tp[index(fn.id, RESUMED, POST)] = cb
            ss[index(fn.id, RESUMED, POST)] = "vorx_ss_stack_cbk"
        out.append("")
    out += ["// Stacks at call points come from the stack walker when it is part of the collector.",
            'extern "C" void vorx_stack_sampling_callback(void* wsp, vorx_probe_data_t* data) __attribute__((weak));',
            'extern "C" void vorx_ss_stack_cbk(void* wsp, vorx_probe_data_t* data) {',
            "  if (vorx_stack_sampling_callback) vorx_stack_sampling_callback(wsp, data);",
            "}", ""]
    for table, entries in (("tp", tp), ("ss", ss)):
        out.append(f"const vorx_callback_t g_vorx_{table}_cbks_generated[VORX_CALLBACK_ENTRIES] = {{")
        for idx in range(0, 4 * ID_EOF, 4):
            row = ", ".join(entries.get(i, "nullptr") for i in range(idx, idx + 4))
            out.append(f"    {row},")
        out.append("};")
        out.append(f'vorx_callback_table g_vorx_{table}_cbks = {{g_vorx_{table}_cbks_generated, {{}}, '
                   f'"{table}_filter", nullptr}};')
        out.append("")
    out.append(f"// {len(tp)} entries in tp_filter, {len(ss)} in ss_filter")
    return "\n".join(out) + "\n"


def main(argv):
    if len(argv) != 3:
        sys.exit("usage: gen_callbacks.py <functions.desc> <output.cpp>")
    try:
        text = generate(read_description(argv[1]))
    except DescError as e:
        sys.exit(f"gen_callbacks.py: error: {argv[1]}: {e}")
    with open(argv[2], "w", encoding="utf-8") as f:
        f.write(text)


if __name__ == "__main__":
    main(sys.argv)
