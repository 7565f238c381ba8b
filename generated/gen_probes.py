#!/usr/bin/env python3
"""Generate the probe catalogue's code from functions.desc.

Reads the one description of every probe id (format in the header of functions.desc) and writes, into an
output directory of the build tree:

  vorx_probe_ids.h         probe ids vorx_pi_*, sizes of the tables
  vorx_probes.def          X-macro list of every id (guarded: define VORX_PROBE before including it)
  vorx_modules.def         X-macro list of the module descriptors (guarded: define VORX_MODULE)
  vorx_probe_table.c       g_vorx_probes_table, g_vorx_pt_id, g_vorx_instrumented_modules, the bitmaps
  vorx_catalogue.md        the catalogue as this build lays it out, for people
  vorx_probe_params.h      one parameter record u_<fn> per function, the probe-data record, call types
  vorx_wrappers_<k>.cpp    one wrapper vorx_<fn>_mod<M>_ver<V> per row, all from wrapper_template.h

Every output starts with a "generated from ..., do not edit" banner.
"""
import argparse
import os
import re
import sys

COLLECTIONS = ['cpu', 'threading', 'io', 'waiting', 'frames', 'tasks', 'projection', 'opencl', 'user_sync', 'cm',
               'power', 'opencl_ex', 'memory', 'utimer', 'opengles']
COLLECTION_WORDS = ['cpu', 'threading', 'io', 'waiting', 'frame', 'task', 'projection', 'opencl', 'user_sync', 'cm',
                    'power', 'opencl_ex', 'memory', 'utimer', 'opengles']
KINDS = ['wait_retry', 'wait', 'event', 'heap', 'counted', 'replaced', 'thin', 'model', 'none', 'event_only']
WRAPPED_KINDS = set(KINDS) - {'none', 'event_only'}
# Libraries whose functions moved into libc.so.6 (glibc 2.34 and later): the stubs that remain export nothing.
MOVED_INTO_LIBC = ('libpthread.so', 'libdl.so', 'librt.so')
BITMAP_BITS = 576
# Parameter names become fields __<name>: these would collide with the compiler's own words.
RESERVED_NAMES = {'int', 'long', 'char', 'short', 'unsigned', 'signed', 'void', 'const', 'struct', 'attribute',
                  'asm', 'typeof', 'extension', 'restrict', 'inline', 'label', 'volatile', 'result', 'none'}
WRAPPER_FILES = 3


class DescError(Exception):
    pass


class Param:
    def __init__(self, ctype, name, size, spelling):
        self.ctype, self.name, self.size, self.spelling = ctype, name, size, spelling


class Module:
    """One place in a function's module list."""
    def __init__(self, text):
        self.listed = not text.startswith('~')          # the descriptor lists the function
        self.has_pointer = not text.startswith('!')     # the row points at the descriptor
        self.name = text.lstrip('~!')


class Function:
    def __init__(self, line_no, pid, name, kind, modules, collections, attrs, ret, params):
        self.line_no, self.id, self.name, self.kind = line_no, pid, name, kind
        self.cname = name.replace('.', '_')
        self.modules, self.collections, self.attrs = modules, collections, attrs
        self.ret, self.params = ret, params
        self.versions = 1 if 'v1' in attrs else 3

    @property
    def wrapped(self):
        return self.kind in WRAPPED_KINDS

    @property
    def args_size(self):
        return sum(p.size for p in self.params)

    @property
    def group_size(self):
        return 1 + self.versions * len(self.modules)

    @property
    def to_aux(self):
        return 0 if 'master' in self.attrs else 1


def split_top(text):
    out, depth, cur = [], 0, ''
    for ch in text:
        depth += (ch == '(') - (ch == ')')
        if ch == ',' and depth == 0:
            out.append(cur.strip())
            cur = ''
        else:
            cur += ch
    if cur.strip():
        out.append(cur.strip())
    return out


class Description:
    def __init__(self, path):
        self.path = path
        self.types = {}
        self.module_names = []
        self.functions = []
        self._read()

    def _fail(self, line_no, text):
        raise DescError('%s:%d: %s' % (self.path, line_no, text))

    def _read(self):
        with open(self.path) as f:
            for line_no, raw in enumerate(f, 1):
                line = raw.rstrip('\n')
                if not line.strip() or line.startswith('#'):
                    continue
                if line.startswith('@type '):
                    m = re.match(r'@type\s+(.+?)\s+(\d+)\s+(.+)$', line)
                    if not m:
                        self._fail(line_no, 'bad @type line')
                    self.types[m.group(1)] = (int(m.group(2)), m.group(3).strip())
                elif line.startswith('@module '):
                    self.module_names.append(line.split(None, 1)[1].strip())
                else:
                    self.functions.append(self._function(line_no, line))
        for k, fn in enumerate(self.functions):
            if fn.id != k:
                self._fail(fn.line_no, 'id %d out of order: ids are dense from 0 and this line must be %d' % (fn.id, k))
        names = {}
        for fn in self.functions:
            if fn.name in names:
                self._fail(fn.line_no, 'name %s already has id %d' % (fn.name, names[fn.name]))
            names[fn.name] = fn.id
        self.by_name = {fn.name: fn for fn in self.functions}

    def _type(self, line_no, ctype):
        """Argument size and C spelling of a type as written in a signature."""
        t = ctype.replace('const ', '').replace(' const', '').strip()
        stars = t.count('*')
        base = t.replace('*', '').strip()
        if stars:
            if base in ('char', 'wchar_t', 'struct timespec', 'struct timeval') or base in self.types:
                spelled = self.types[base][1] if base in self.types else base
                if base == 'struct timeval':
                    spelled = 'struct timeval'
                return 4, spelled + '*' * stars
            return 4, 'void' + '*' * stars
        if base not in self.types:
            self._fail(line_no, 'type "%s" has no @type line' % base)
        return self.types[base]

    def _function(self, line_no, line):
        if ' : ' not in line:
            self._fail(line_no, 'missing " : " before the signature')
        left, sig = line.split(' : ', 1)
        fields = left.split()
        if len(fields) < 5:
            self._fail(line_no, 'expected <id> <name> <kind> <modules> <collections>')
        pid, name, kind, mods, colls = fields[:5]
        attrs = {}
        for a in fields[5:]:
            k, _, v = a.partition('=')
            attrs[k] = v
        if kind not in KINDS:
            self._fail(line_no, 'unknown kind "%s" (one of %s)' % (kind, ', '.join(KINDS)))
        modules = [] if mods == '-' else [Module(m) for m in mods.split(',')]
        collections = [] if colls == '-' else colls.split(',')
        m = re.match(r'(.+?)\s*\((.*)\)\s*$', sig.strip())
        if not m:
            self._fail(line_no, 'bad signature "%s"' % sig)
        ret = m.group(1).strip()
        params = []
        for p in split_top(m.group(2)):
            if p == 'void':
                continue
            pm = re.match(r'(.+?)\s*(\w+)$', p)
            if not pm:
                self._fail(line_no, 'parameter "%s" needs a type and a name' % p)
            size, spelling = self._type(line_no, pm.group(1))
            pname = pm.group(2)
            base = pm.group(1).replace('*', ' ').split()[-1]
            if (pname == base and 'struct' not in pm.group(1)) or pname in RESERVED_NAMES or pname in self.types:
                self._fail(line_no, 'parameter "%s" needs a name of its own (it becomes the field __%s)' % (p, pname))
            params.append(Param(pm.group(1), pname, size, spelling))
        if ret != 'void':
            self._type(line_no, ret)
        return Function(line_no, int(pid), name, kind, modules, collections, attrs, ret, params)

    def spelling(self, ctype):
        return self._type(0, ctype)[1] if ctype != 'void' else 'void'


def platform_module_list(fn, catalogue_layout):
    """The modules whose rows this build gives to fn.

    glibc 2.34 moved the thread, dl and rt functions into libc.so.6 and left libpthread.so.0, libdl.so.2 and
    librt.so.1 as near-empty stubs: a list that names one of them searches libc.so too, appended last so that
    the existing mod indexes and the default-version rules (mod 0 wins ties) stay as they were."""
    mods = list(fn.modules)
    if catalogue_layout or not fn.wrapped:
        return mods
    names = [m.name for m in mods]
    if any(n in MOVED_INTO_LIBC for n in names) and 'libc.so' not in names:
        mods.append(Module('libc.so'))
    return mods


class Layout:
    """Row groups, module lists and bitmaps as this build lays them out."""
    def __init__(self, desc, catalogue_layout):
        self.desc = desc
        self.modules = {fn.id: platform_module_list(fn, catalogue_layout) for fn in desc.functions}
        self.pt_id = []
        row = 0
        for fn in desc.functions:
            self.pt_id.append(row)
            row += 1 + fn.versions * len(self.modules[fn.id])
        self.pt_id.append(row)          # the end row, vorx_pi_eof
        self.pt_id.append(row + 1)      # total
        self.rows = row + 1

    def module_index(self):
        return {name: k for k, name in enumerate(self.desc.module_names)}

    def descriptor_lists(self):
        lists = {name: [] for name in self.desc.module_names}
        for fn in self.desc.functions:
            for m in self.modules[fn.id]:
                if m.listed:
                    if m.name not in lists:
                        raise DescError('%s: module %s of %s has no @module line' % (self.desc.path, m.name, fn.name))
                    lists[m.name].append(fn)
        return lists

    def bitmap(self, tag, callback):
        ids = set()
        for fn in self.desc.functions:
            for c in fn.collections:
                t, _, probe_only = c.partition('/')
                if callback and probe_only:
                    continue
                if t == tag or (t == 'common' and tag in COLLECTIONS + ['go']):
                    ids.add(fn.id)
        return sorted(ids)


def banner(desc_path, comment='//'):
    return '%s generated from %s by gen_probes.py, do not edit\n' % (comment, os.path.basename(desc_path))


def guard_def(macro):
    return '#ifndef %s\n#error "define %s(...) before including this list"\n#endif\n' % (macro, macro)


def write_ids(desc, layout, out):
    fns = desc.functions
    lines = [banner(desc.path), '#pragma once\n', '/* Probe ids: dense, stable within a build, carried by trace records. */',
             'typedef enum vorx_probe_id {']
    lines += ['    vorx_pi_%s = %d,' % (fn.cname, fn.id) for fn in fns]
    lines += ['    vorx_pi_eof = %d' % len(fns), '} vorx_probe_id_t;', '',
              '/* States (vorx_st_paused 0, vorx_st_resumed 1, vorx_st_eof 2) come with the configuration. */',
              'enum { vorx_or_pre = 0, vorx_or_post = 1, vorx_or_eof = 2 };',
              '#define VORX_PROBE_STATES 2',
              '#define VORX_PROBE_ROWS %d' % layout.rows,
              '#define VORX_PT_ID_ENTRIES %d' % len(layout.pt_id),
              '#define VORX_CALLBACK_ENTRIES (vorx_or_eof * VORX_PROBE_STATES * vorx_pi_eof)',
              '#define VORX_PROBE_BITMAP_BITS %d' % BITMAP_BITS,
              '#define VORX_COLLECTION_EOF %d' % len(COLLECTIONS),
              '#define VORX_INSTRUMENTED_MODULES %d' % len(desc.module_names), '']
    out['vorx_probe_ids.h'] = '\n'.join(lines)


def write_defs(desc, layout, out):
    lines = [banner(desc.path), guard_def('VORX_PROBE'),
             '/* VORX_PROBE(id, name, cname, kind, args_size, versions, modules, wrapped, to_aux, first_row) */']
    for fn in desc.functions:
        lines.append('VORX_PROBE(%d, "%s", %s, %s, %d, %d, %d, %d, %d, %d)' % (
            fn.id, fn.name, fn.cname, fn.kind, fn.args_size, fn.versions, len(layout.modules[fn.id]),
            int(fn.wrapped), fn.to_aux, layout.pt_id[fn.id]))
    out['vorx_probes.def'] = '\n'.join(lines) + '\n'
    lists = layout.descriptor_lists()
    lines = [banner(desc.path), guard_def('VORX_MODULE'), '/* VORX_MODULE(index, name, function_count) */']
    for k, name in enumerate(desc.module_names):
        lines.append('VORX_MODULE(%d, "%s", %d)' % (k, name, len(lists[name])))
    out['vorx_modules.def'] = '\n'.join(lines) + '\n'


def bitmap_words(ids):
    words = [0] * (BITMAP_BITS // 32)
    for i in ids:
        words[i // 32] |= 1 << (i % 32)
    return '{{' + ', '.join('0x%08xu' % w for w in words) + '}}'


def wrapper_name(fn, mod, ver):
    return 'vorx_%s_mod%d_ver%d' % (fn.cname, mod, ver)


def write_table(desc, layout, out):
    fns = desc.functions
    idx = layout.module_index()
    lists = layout.descriptor_lists()
    L = [banner(desc.path), '#include "vorx_probe_table.h"', '']
    # wrappers are declared with an untyped prototype: the table only stores their addresses. They are
    # weak, so that programs which link the table without the collector's wrappers see null probes.
    wrapped = [fn for fn in fns if fn.wrapped]
    L.append('#if VORX_WITH_WRAPPERS')
    for fn in wrapped:
        for m in range(len(layout.modules[fn.id])):
            for v in range(fn.versions):
                L.append('extern void %s(void) __attribute__((weak));' % wrapper_name(fn, m, v))
    L.append('#define VORX_WRAPPER(name) ((void*)&name)')
    L.append('#else')
    L.append('#define VORX_WRAPPER(name) ((void*)0)')
    L.append('#endif')
    L.append('')
    for name in desc.module_names:
        ident = 'g_vorx_probes_of_%s' % re.sub(r'\W', '_', name)
        L.append('static const vorx_probe_entry_t %s[] = {' % ident)
        for fn in lists[name]:
            L.append('    {"%s", vorx_pi_%s, %d, %d},' % (fn.name, fn.cname, fn.versions, len(layout.modules[fn.id])))
        L.append('    {0, 0, 0, 0}};')
    L.append('')
    L.append('static const vorx_module_descriptor_t g_vorx_module_array[] = {')
    for name in desc.module_names:
        L.append('    {"%s", g_vorx_probes_of_%s, 0},' % (name, re.sub(r'\W', '_', name)))
    L.append('    {0, 0, 0}};')
    L.append('const vorx_module_descriptor_t* const g_vorx_instrumented_modules = g_vorx_module_array;')
    L.append('')
    L.append('extern int* __errno_location(void);')
    L.append('extern int setenv(const char*, const char*, int);')
    L.append('vorx_probe_t g_vorx_probes_table[VORX_PROBE_ROWS] = {')
    head_trampoline = {'__errno_location': '(void*)&__errno_location', 'setenv': '(void*)&setenv'}
    for fn in fns:
        L.append('    /* %d %s */' % (fn.id, fn.name))
        L.append('    {0, 0, %s, 0, %d, 2, vorx_pi_eof, 0, 1},' % (head_trampoline.get(fn.name, '0'), fn.args_size))
        for m, mod in enumerate(layout.modules[fn.id]):
            mp = '&g_vorx_module_array[%d]' % idx[mod.name] if mod.has_pointer else '0'
            for v in range(fn.versions):
                probe = 'VORX_WRAPPER(%s)' % wrapper_name(fn, m, v) if fn.wrapped else '0'
                L.append('    {0, %s, 0, 0, %d, 2, vorx_pi_eof, %s, 1},' % (probe, fn.args_size, mp))
    L.append('    /* end */')
    L.append('    {0, 0, 0, 0, 0, 2, vorx_pi_eof + 1, 0, 1}};')
    L.append('')
    L.append('const unsigned g_vorx_pt_id[VORX_PT_ID_ENTRIES] = {')
    for k in range(0, len(layout.pt_id), 12):
        L.append('    ' + ', '.join(str(x) for x in layout.pt_id[k:k + 12]) + ',')
    L.append('};')
    L.append('')
    for k, c in enumerate(COLLECTIONS + ['go']):
        L.append('const vorx_probe_bitmap_t %s_active_probe = %s;' % (c, bitmap_words(layout.bitmap(c, False))))
        L.append('const vorx_probe_bitmap_t %s_active_callback = %s;' % (c, bitmap_words(layout.bitmap(c, True))))
    L.append('const vorx_probe_bitmap_t employed_probe = %s;' % bitmap_words(layout.bitmap('employed', False)))
    L.append('const vorx_probe_bitmap_t stack_stitching_active_probe = %s;' % bitmap_words(layout.bitmap('stitching', False)))
    L.append('const vorx_probe_bitmap_t online_sw_active_probe = %s;' % bitmap_words([]))
    L.append('')
    L.append('const vorx_probe_bitmap_t* const g_vorx_collection_probe_bitmaps[VORX_COLLECTION_EOF] = {')
    L.append('    ' + ', '.join('&%s_active_probe' % c for c in COLLECTIONS) + '};')
    L.append('const vorx_probe_bitmap_t* const g_vorx_collection_callback_bitmaps[VORX_COLLECTION_EOF] = {')
    L.append('    ' + ', '.join('&%s_active_callback' % c for c in COLLECTIONS) + '};')
    L.append('const char* const g_vorx_collection_names[VORX_COLLECTION_EOF] = {')
    L.append('    ' + ', '.join('"%s"' % c for c in COLLECTION_WORDS) + '};')
    L.append('const char* const g_vorx_probe_names[vorx_pi_eof] = {')
    for k in range(0, len(fns), 6):
        L.append('    ' + ' '.join('"%s",' % fn.name for fn in fns[k:k + 6]))
    L.append('};')
    out['vorx_probe_table.c'] = '\n'.join(L) + '\n'


def c_params(fn, prefix='__'):
    return ', '.join('%s %s%s' % (p.spelling, prefix, p.name) for p in fn.params) or 'void'


def write_params(desc, layout, out):
    fns = desc.functions
    L = [banner(desc.path), '#pragma once', '#include "vorx_probe_types.h"', '',
         '/* The arguments of each function as the wrapper saw them, then its result. */']
    for fn in fns:
        if not fn.wrapped:
            continue
        L.append('typedef %s (*vorx_%s_call_t)(%s);' % (desc.spelling(fn.ret), fn.cname, c_params(fn)))
        fields = ['%s __%s;' % (p.spelling, p.name) for p in fn.params]
        if fn.ret != 'void':
            fields.append('%s __result;' % desc.spelling(fn.ret))
        if not fields:
            fields = ['char __none;']
        L.append('typedef struct vorx_params_%s { %s } vorx_params_%s_t;' % (
            fn.cname, ' '.join(fields), fn.cname))
    L.append('')
    L.append('typedef union vorx_probe_params {')
    for fn in fns:
        if fn.wrapped:
            L.append('    vorx_params_%s_t u_%s;' % (fn.cname, fn.cname))
    L.append('} vorx_probe_params_t;')
    L.append(PROBE_DATA)
    out['vorx_probe_params.h'] = '\n'.join(L) + '\n'


PROBE_DATA = '''
/* What a wrapper keeps on its stack and hands to every callback beside the workspace. */
typedef struct vorx_probe_locals {
    unsigned int state;          /* vorx_st_resumed or vorx_st_paused at entry; 2 until read */
    void* context;               /* the caller's registers, taken into the wrapper's frame */
    void* stack_args;            /* the first argument on the caller's stack */
    unsigned int stack_policy;   /* 2 full stack, 1 a cheaper one for a short wait, 0 none */
    unsigned int mod;            /* the row's module index and version index */
    unsigned int ver;
    unsigned int last_probe_id;  /* this wrapper's id; vorx_pi_eof marks a record that is no real call */
    unsigned char wait_started;
    unsigned char contention_started;
    unsigned char to_aux_tmu;    /* 1: records go to aux_tmu, 0: to master_tmu */
    unsigned char sampled;
    unsigned char contended;
    unsigned long long enter_time;
    unsigned long long leave_time;
    unsigned int reserved;
} vorx_probe_locals_t;

typedef struct vorx_probe_data {
    vorx_probe_params_t params;
    vorx_probe_locals_t locals;
    struct vorx_probe_data* next_wait;  /* the thread's stack of incomplete waits */
} vorx_probe_data_t;
'''


def attr_expr(fn, text, result='p.__result'):
    """{name} in a description expression becomes the parameter record's field."""
    def sub(m):
        n = m.group(1)
        if n == 'ret':
            return result
        if n not in [p.name for p in fn.params]:
            raise DescError('%s: %s has no parameter %s' % (fn.name, fn.name, n))
        return 'p.__%s' % n
    return re.sub(r'\{(\w+)\}', sub, text)


def write_wrappers(desc, layout, out):
    fns = [fn for fn in desc.functions if fn.wrapped]
    chunks = [[] for _ in range(WRAPPER_FILES)]
    for k, fn in enumerate(fns):
        chunks[k * WRAPPER_FILES // len(fns)].append(fn)
    for k, chunk in enumerate(chunks):
        L = [banner(desc.path), '#include "wrapper_template.h"', '']
        # wrappers of other files that this one dispatches to

        for fn in chunk:
            L += traits(desc, fn)
            for m in range(len(layout.modules[fn.id])):
                for v in range(fn.versions):
                    L += wrapper(desc, fn, m, v, layout)
            L.append('')
        out['vorx_wrappers_%d.cpp' % k] = '\n'.join(L) + '\n'


def traits(desc, fn):
    """The compile-time description of fn that the one template (wrapper_template.h) reads."""
    a = fn.attrs
    args = ', '.join('p.__%s' % p.name for p in fn.params)
    ret = desc.spelling(fn.ret)
    cast = '((vorx_%s_call_t)fn)(%s)' % (fn.cname, args)
    timeout_kind, _, timeout_param = a.get('timeout', '').partition(':')
    via, _, via_number = a.get('via', '').partition(':')
    names = [p.name for p in fn.params]
    for attr in ('trylock',):
        if attr in a and a[attr] not in desc.by_name:
            raise DescError('%s: %s=%s names no function' % (fn.name, attr, a[attr]))
    if via and via not in desc.by_name:
        raise DescError('%s: via=%s names no function' % (fn.name, via))
    if timeout_param and timeout_param not in names:
        raise DescError('%s: %s has no parameter %s' % (fn.name, fn.name, timeout_param))
    sleep_unit = 0
    if via == 'nanosleep':
        sleep_unit = 1 if fn.name == 'sleep' else 2
    b = lambda x: 'true' if x else 'false'
    L = ['struct vorx_traits_%s {' % fn.cname,
         '    using params_t = vorx_params_%s_t;' % fn.cname,
         '    using result_t = %s;' % ret,
         '    static constexpr unsigned id = vorx_pi_%s;' % fn.cname,
         '    static constexpr unsigned versions = %d;' % fn.versions,
         '    static constexpr vorx::kind kind = vorx::kind::%s;' % fn.kind,
         '    static constexpr bool to_aux = %s;' % b(fn.to_aux),
         '    static constexpr bool contention = %s;' % b('contention' in a),
         '    static constexpr vorx::wakes wakes = vorx::wakes::%s;' % (a.get('wakes') or 'none'),
         '    static constexpr vorx::thin thin = vorx::thin::%s;' % (a.get('thin') or 'none'),
         '    static constexpr bool own_wait = %s;' % b('ownwait' in a),
         '    static constexpr bool leaf = %s;' % b('leaf' in a),
         '    static constexpr bool outside = %s;' % b('outside' in a),
         '    static constexpr vorx::usync usync = vorx::usync::%s;' % (a.get('usync') or 'none'),
         '    static constexpr vorx::timeout timeout = vorx::timeout::%s;' % (timeout_kind or 'none'),
         '    static constexpr bool eintr_is_result = %s;' % b(a.get('eintr') == 'result'),
         '    static constexpr int sleep_unit = %d;  // 1: seconds, 2: microseconds, through nanosleep' % sleep_unit,
         '    static constexpr long via_syscall = %s;' % (via_number or '0'),
         '    static constexpr unsigned trylock = %s;' % ('vorx_pi_%s' % a['trylock'] if 'trylock' in a else 'vorx_pi_eof'),
         '    static constexpr bool heap_page_rounded = %s;' % b('hpage' in a),
         '    static constexpr bool heap_sized = %s;' % b('hsize' in a),
         '    static constexpr bool heap_frees = %s;' % b('hfree' in a),
         '    static constexpr const char* name = "%s";' % fn.name,
         '    static params_t& in(vorx_probe_data_t& d) { return d.params.u_%s; }' % fn.cname]
    if fn.ret != 'void':
        L.append('    static void call(void* fn, params_t& p) { p.__result = %s; }' % cast)
    else:
        L.append('    static void call(void* fn, params_t& p) { %s; }' % cast)
    if via_number:
        sys_args = ', '.join(['%sL' % via_number] + ['(long)p.__%s' % n for n in names] +
                             ['0L'] * (7 - len(names)))
        L.append('    static void call_syscall(void* fn, params_t& p) { p.__result = ((vorx_syscall_call_t)fn)(%s); }'
                 % sys_args)
    first = fn.params[0] if fn.params else None
    L.append('    static void* object(const params_t& p) { return %s; }' % (
        '(void*)(unsigned long)p.__%s' % first.name if first and first.size == 4 else '(void*)0'))
    if timeout_param:
        L.append('    static auto& timeout_arg(params_t& p) { return p.__%s; }' % timeout_param)
    if sleep_unit:
        L.append('    static unsigned long long sleep_amount(const params_t& p) { return p.__%s; }' % names[0])
    if fn.kind == 'heap':
        L.append('    static unsigned long long heap_size(const params_t& p) { return %s; }' % (
            '(unsigned long long)(%s)' % attr_expr(fn, a['hsize']) if 'hsize' in a else '0'))
        L.append('    static void* heap_object(const params_t& p) { return %s; }' % (
            '(void*)(unsigned long)(%s)' % attr_expr(fn, a.get('hobj', '{ret}')) if 'hsize' in a else '(void*)0'))
        L.append('    static void* heap_released(const params_t& p) { return %s; }' % (
            '(void*)(unsigned long)(%s)' % attr_expr(fn, a['hfree']) if 'hfree' in a else '(void*)0'))
    if fn.kind == 'replaced':
        # weak: without its owning subsystem linked in, the call goes to the original unchanged
        L.insert(0, 'extern "C" __attribute__((weak)) void vorx_%s_wrapper(struct vorx_workspace* wsp, '
                    'vorx_probe_data_t* data, void* trampoline);' % fn.cname)
        L.append('    static bool replaced(struct vorx_workspace* wsp, vorx_probe_data_t* data, void* trampoline) {')
        L.append('        if (!vorx_%s_wrapper) return false;' % fn.cname)
        L.append('        vorx_%s_wrapper(wsp, data, trampoline);' % fn.cname)
        L.append('        return true;')
        L.append('    }')
    if a.get('thin') == 'getenv':
        L.append('    static const char* env_name(const params_t& p) { return p.__%s; }' % names[0])
    L.append('};')
    return L


WRAPPER = """extern "C" VORX_WRAPPER_EXPORT {ret} {name}({params}) {{
    // not started: straight on, with the arguments as they came
    if (__builtin_expect(!vorx::glue::rtl_initialized(), 0))
        return (({cname_t})vorx_probe_row({id}, {versions}, {mod}, {ver})->trampoline)({args});
    vorx_traits_{cname}::params_t p{{{init}}};
    if (vorx::quick_path<vorx_traits_{cname}, {mod}, {ver}>(p)) return{result};
    {ret_kw}vorx::wrap<vorx_traits_{cname}, {mod}, {ver}>(p);
}}"""


# Leaves build their parameters straight in the probe data their record reads.
WRAPPER_LEAF = """extern "C" VORX_WRAPPER_EXPORT {ret} {name}({params}) {{
    // not started: straight on, with the arguments as they came
    if (__builtin_expect(!vorx::glue::rtl_initialized(), 0))
        return (({cname_t})vorx_probe_row({id}, {versions}, {mod}, {ver})->trampoline)({args});
    vorx_probe_data_t d;
    vorx_traits_{cname}::in(d) = vorx_traits_{cname}::params_t{{{init}}};
    {ret_kw}vorx::wrap_leaf<vorx_traits_{cname}, {mod}, {ver}>(d);
}}"""


# The annotation library announces its hand-over table from its constructor, before the runtime opens: the
# wrapper hands the table over whenever it is called, and passes the collector's mask in place of the flags.
WRAPPER_API_INIT = """extern "C" VORX_WRAPPER_EXPORT void {name}({params}) {{
    (({cname_t})vorx_probe_row({id}, {versions}, {mod}, {ver})->trampoline)(__{table}, vorx::glue::api_handover(__{table}));
}}"""


def api_init_wrapper(desc, fn, mod, ver):
    if fn.ret != 'void' or len(fn.params) != 2 or fn.params[0].size != 4 or not fn.params[0].spelling.endswith('*'):
        raise DescError('%s: thin=api_init needs void (<table pointer>, <flags>)' % fn.name)
    return WRAPPER_API_INIT.format(name=wrapper_name(fn, mod, ver), params=c_params(fn), cname_t='vorx_%s_call_t' % fn.cname,
                                   id='vorx_pi_%s' % fn.cname, versions=fn.versions, mod=mod, ver=ver,
                                   table=fn.params[0].name).split('\n')


def wrapper(desc, fn, mod, ver, layout):
    if fn.attrs.get('thin') == 'api_init':
        return api_init_wrapper(desc, fn, mod, ver)
    name = wrapper_name(fn, mod, ver)
    args = ', '.join('__%s' % p.name for p in fn.params)
    leaf = 'leaf' in fn.attrs and fn.kind != 'thin'
    text = (WRAPPER_LEAF if leaf else WRAPPER).format(ret=desc.spelling(fn.ret), name=name, params=c_params(fn), cname=fn.cname,
                          cname_t='vorx_%s_call_t' % fn.cname, id='vorx_pi_%s' % fn.cname, versions=fn.versions,
                          mod=mod, ver=ver, args=args, ret_kw='return ' if fn.ret != 'void' else '',
                          init=', '.join([a for a in [args] if a] + (['{}'] if fn.ret != 'void' else [])),
                          result=' p.__result' if fn.ret != 'void' else '')
    if fn.attrs.get('thin') == 'syscall':
        text = syscall_dispatch(desc, fn, mod, ver, layout) + text
    return text.split('\n')


def syscall_dispatch(desc, fn, mod, ver, layout):
    """The syscall wrapper hands a futex call to the futex wrapper of the same module and version."""
    futex = next((f for f in desc.functions if f.attrs.get('via', '').startswith('syscall:')), None)
    if futex is None:
        raise DescError('%s: thin=syscall needs a function with via=syscall:<n>' % fn.name)
    m = mod if mod < len(layout.modules[futex.id]) else 0
    v = ver if ver < futex.versions else 0
    number = futex.attrs['via'].partition(':')[2]
    fargs = ', '.join('(%s)p.__%s' % (q.spelling, fn.params[k + 1].name) for k, q in enumerate(futex.params))
    return ('extern "C" %s %s(%s);\n' % (desc.spelling(futex.ret), wrapper_name(futex, m, v), c_params(futex)) +
            'template <> inline long vorx::futex_dispatch<vorx_traits_%s, %d, %d>(vorx_traits_%s::params_t& p) {\n'
            '    return p.__%s == %s ? %s(%s) : vorx::futex_not_taken;\n}\n' % (
                fn.cname, mod, ver, fn.cname, fn.params[0].name, number, wrapper_name(futex, m, v), fargs))


def write_docs(desc, layout, out):
    """A readable catalogue of the build: what each id is, where it is looked for, what collects it."""
    L = ['<!-- %s -->' % banner(desc.path, '').strip(), '# Probe catalogue', '',
         '%d ids, %d with wrappers, %d probe-table rows.' % (
             len(desc.functions), sum(f.wrapped for f in desc.functions), layout.rows), '',
         '| Id | Name | Kind | Rows | args_size | Modules (mod index order) | Collections |',
         '|---|---|---|---|---|---|---|']
    for fn in desc.functions:
        mods = ', '.join(('' if m.listed else '~') + ('' if m.has_pointer else '!') + m.name
                         for m in layout.modules[fn.id]) or '-'
        L.append('| %d | `%s` | %s | %d | %d | %s | %s |' % (
            fn.id, fn.name, fn.kind, layout.pt_id[fn.id + 1] - layout.pt_id[fn.id], fn.args_size, mods,
            ', '.join(fn.collections) or '-'))
    out['vorx_catalogue.md'] = '\n'.join(L) + '\n'


def generate(desc_path, out_dir, catalogue_layout=False, with_wrappers=True):
    desc = Description(desc_path)
    layout = Layout(desc, catalogue_layout)
    out = {}
    write_ids(desc, layout, out)
    write_defs(desc, layout, out)
    write_table(desc, layout, out)
    write_params(desc, layout, out)
    write_docs(desc, layout, out)
    if with_wrappers:
        write_wrappers(desc, layout, out)
    os.makedirs(out_dir, exist_ok=True)
    for name, text in out.items():
        path = os.path.join(out_dir, name)
        old = open(path).read() if os.path.exists(path) else None
        if old != text:                   # keep timestamps of unchanged outputs: no needless rebuilds
            with open(path, 'w') as f:
                f.write(text)
    return desc, layout


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument('description', help='functions.desc')
    ap.add_argument('out_dir', help='directory for the generated files (in the build tree)')
    ap.add_argument('--catalogue-layout', action='store_true',
                    help='do not add libc.so to the lists of libpthread.so, libdl.so and librt.so functions')
    ap.add_argument('--summary', action='store_true', help='print the row and module counts')
    args = ap.parse_args()
    try:
        desc, layout = generate(args.description, args.out_dir, args.catalogue_layout)
    except DescError as e:
        print('gen_probes.py: error: %s' % e, file=sys.stderr)
        return 1
    if args.summary:
        lists = layout.descriptor_lists()
        print('ids %d, wrapped %d, rows %d' % (len(desc.functions), sum(f.wrapped for f in desc.functions), layout.rows))
        print(', '.join('%s %d' % (n, len(lists[n])) for n in desc.module_names))
    return 0


if __name__ == '__main__':
    sys.exit(main())
