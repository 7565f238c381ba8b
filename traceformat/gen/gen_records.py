#!/usr/bin/env python3
"""Generates the record code of the trace format from records.tbl.

usage: gen_records.py <records.tbl> <output dir>

Writes tf_records_gen.h, tf_records_gen.c (record objects and hand-built writers),
tf_records_test_gen.h (fillers and expectations for the round-trip tests) and
tf_schema_gen.h (the reader's tables). The format of records.tbl is documented at its top.
"""
import os
import re
import sys

SCALAR = {"u8": 1, "u16": 2, "u32": 4, "u64": 8, "tag4": 4}
SIZEK = {"size16", "size32", "sizevar", "api_size"}
VARK = {"str16", "str8", "strrest", "arr8", "arr16", "arr32", "ents16", "ents32", "rest", "args"}
CTYPE = {1: "uint8_t", 2: "uint16_t", 4: "uint32_t", 8: "uint64_t"}
BANNER = "/* generated from traceformat/records.tbl by traceformat/gen/gen_records.py: do not edit */\n"


class Field:
    def __init__(self, kind, name):
        self.kind, self.name = kind, name
        self.const = None      # constant value (int)
        self.alt_const = None  # constant value in the alternate form
        self.mapvar = None     # object variable a mapped constant comes from
        self.mapping = None    # [(key, value)]
        self.type = None       # size fields: type constant
        self.optbit = 0        # present when the descriptor has this bit
        self.altonly = False
        self.elem = 0          # arrays: element size; ents: fixed entry size
        self.lens = []         # ents: offsets of u32 string lengths in an entry

    @property
    def width(self):
        if self.kind in SCALAR:
            return SCALAR[self.kind]
        return {"size16": 4, "size32": 6, "api_size": 4}.get(self.kind, 0)


class Record:
    def __init__(self, name, desc):
        self.name, self.desc = name, desc
        self.alt = None
        self.when = None
        self.obj = True
        self.api = False
        self.fields = []

    @property
    def has_alt(self):
        return self.alt is not None

    def head(self):
        """Fields written by the hand-built head writer: everything before the first
        variable-length field."""
        out = []
        for f in self.fields:
            if f.kind in VARK:
                break
            out.append(f)
        return out

    def sized_head(self):
        """The fields up to and including the size field, or None without one."""
        for i, f in enumerate(self.fields):
            if f.kind in SIZEK:
                return self.fields[:i + 1]
        return None

    def tail(self):
        return self.fields[len(self.head()):]

    def fixed(self):
        return all(f.kind not in VARK for f in self.fields) and not self.api


def parse_map(text):
    m = re.fullmatch(r"@(\w+)\{([^}]*)\}", text)
    pairs = [tuple(int(x, 0) for x in p.split(":")) for p in m.group(2).split(",")]
    return m.group(1), pairs


def parse(path):
    records, apis = [], []
    cur = None
    for lineno, raw in enumerate(open(path), 1):
        line = raw.split("#", 1)[0].strip()
        if not line:
            continue
        words = line.split()
        try:
            if words[0] == "record":
                cur = Record(words[1], None)
                for w in words[2:]:
                    if w.startswith("desc="):
                        cur.desc = int(w[5:], 0)
                    elif w.startswith("alt="):
                        cur.alt = int(w[4:], 0)
                    elif w.startswith("when="):
                        cur.when = w[5:]
                    elif w == "noobj":
                        cur.obj = False
                    elif w == "api":
                        cur.api = True
                    else:
                        raise ValueError("unknown record attribute " + w)
                records.append(cur)
            elif words[0] == "api":
                args = words[5].split(",") if len(words) > 5 else []
                apis.append((int(words[1]), int(words[2]), words[3], int(words[4]), args))
            else:
                if words[0] in SIZEK:
                    f, rest = Field(words[0], "size"), words[1:]
                else:
                    f, rest = Field(words[0], words[1]), words[2:]
                if f.kind not in SCALAR and f.kind not in SIZEK and f.kind not in VARK:
                    raise ValueError("unknown kind " + f.kind)
                if f.kind in ("arr8", "arr16", "arr32"):
                    f.elem = int(rest.pop(0))
                elif f.kind in ("ents16", "ents32"):
                    f.elem = int(rest.pop(0))
                    f.lens = [int(x) for x in rest.pop(0).split(",")]
                for w in rest:
                    if w.startswith("=@"):
                        f.mapvar, f.mapping = parse_map(w[1:])
                    elif w.startswith("="):
                        f.const = int(w[1:], 0)
                    elif w.startswith("alt="):
                        f.alt_const = int(w[4:], 0)
                    elif w.startswith("type=@"):
                        f.mapvar, f.mapping = parse_map(w[5:])
                    elif w.startswith("type="):
                        f.type = int(w[5:], 0)
                    elif w.startswith("?"):
                        f.optbit = int(w[1:], 0)
                    elif w == "altonly":
                        f.altonly = True
                    else:
                        raise ValueError("unknown field attribute " + w)
                cur.fields.append(f)
        except (ValueError, IndexError, AttributeError) as e:
            sys.exit("%s:%d: %s" % (path, lineno, e))
    return records, apis


# ---------------------------------------------------------------- C helpers

def cname(r):
    return "tf_record_%s_t" % r.name


def store(width, dst, val):
    return "tf_st%d(%s, %s);" % (width * 8, dst, val)


def map_expr(f, var):
    """C expression mapping the object variable through the field's table, asserting on
    values outside it."""
    expr = "tf_map_fail(%s)" % var
    for k, v in reversed(f.mapping):
        expr = "((%s) == %du ? %du : %s)" % (var, k, v, expr)
    return expr


def head_params(r, fields=None):
    fields = r.head() if fields is None else fields
    params = []
    if r.has_alt:
        params.append("int alt")
    if r.api:
        params.append("uint32_t descriptor")
    for f in fields:
        if f.kind in SCALAR and f.const is None and f.mapvar is None:
            params.append("%s %s" % (CTYPE[f.width], f.name))
        elif f.mapvar is not None:
            params.append("uint32_t %s" % f.mapvar)
    return params


def emit_head_body(r, out, tail_expr, fields=None):
    """Body of a head writer: stores every head field at its offset; returns the length.
    Sizes are computed from the head length and tail_expr."""
    fields = r.head() if fields is None else fields
    out.append("  uint32_t pos = 0;")
    desc = "descriptor" if r.api else ("(alt ? 0x%08Xu : 0x%08Xu)" % (r.alt, r.desc) if r.has_alt else "0x%08Xu" % r.desc)
    out.append("  tf_st32(d, %s); pos += 4;" % desc)
    size_at = None
    for f in fields:
        guard = ""
        if f.optbit:
            guard = "if (descriptor & 0x%Xu) " % f.optbit
        if f.altonly:
            guard = "if (alt) "
        if f.kind in SCALAR:
            if f.mapvar is not None:
                val = map_expr(f, f.mapvar)
            elif f.const is not None:
                val = ("(alt ? 0x%Xu : 0x%Xu)" % (f.alt_const, f.const)) if f.alt_const is not None else "0x%Xu" % f.const
            else:
                val = f.name
            out.append("  %s{ %s pos += %d; }" % (guard, store(f.width, "d + pos", val), f.width))
        else:
            tval = map_expr(f, f.mapvar) if f.mapvar is not None else "%du" % f.type
            out.append("  uint32_t size_at = pos;")
            size_at = True
            if f.kind == "sizevar":
                out.append("  if (alt) { pos += 4; tf_st16(d + pos, %s); pos += 2; }" % tval)
                out.append("  else { pos += 2; tf_st16(d + pos, %s); pos += 2; }" % tval)
            elif f.kind == "size32":
                out.append("  pos += 4; tf_st16(d + pos, %s); pos += 2;" % tval)
            else:
                out.append("  pos += 2; tf_st16(d + pos, %s); pos += 2;" % tval)
    if size_at:
        f = [x for x in fields if x.kind in SIZEK][0]
        total = "(pos - size_at + (%s))" % tail_expr
        if f.kind == "sizevar":
            out.append("  if (alt) tf_st32(d + size_at, %s); else tf_st16(d + size_at, (uint16_t)%s);" % (total, total))
        elif f.kind == "size32":
            out.append("  tf_st32(d + size_at, %s);" % total)
        else:
            out.append("  tf_st16(d + size_at, (uint16_t)%s);" % total)
    out.append("  return pos;")


def head_size_expr(r, alt="alt", descriptor="descriptor"):
    n = 4
    parts = []
    for f in r.head():
        if f.kind == "sizevar":
            parts.append("(%s ? 6u : 4u)" % alt)
        elif f.optbit:
            parts.append("((%s & 0x%Xu) ? %du : 0u)" % (descriptor, f.optbit, f.width))
        elif f.altonly:
            parts.append("(%s ? %du : 0u)" % (alt, f.width))
        else:
            n += f.width
    return " + ".join(["%du" % n] + parts)


def size_at_expr(r):
    """Offset of the size field, or None for records without one."""
    n, parts = 4, []
    for f in r.fields:
        if f.kind in SIZEK:
            return " + ".join(["%du" % n] + parts), f
        if f.optbit:
            parts.append("((descriptor & 0x%Xu) ? %du : 0u)" % (f.optbit, f.width))
        else:
            n += f.width
    return None, None


def obj_members(r):
    out = []
    for f in r.fields:
        if f.kind in SCALAR:
            if f.mapvar is not None:
                out.append("uint32_t %s;" % f.mapvar)
            elif f.const is None:
                out.append("%s %s;" % (CTYPE[f.width], f.name))
        elif f.kind in SIZEK:
            if f.mapvar is not None:
                out.append("uint32_t %s;" % f.mapvar)
        elif f.kind in ("str16", "str8", "strrest"):
            out.append("const char *%s;" % f.name)
        elif f.kind.startswith("arr"):
            out.append("uint32_t %s_count;" % f.name)
            out.append("const void *%s_data;" % f.name)
        elif f.kind.startswith("ents"):
            out.append("uint32_t %s_count;" % f.name)
            out.append("const void *%s_data;" % f.name)
            out.append("uint32_t %s_bytes;" % f.name)
        elif f.kind == "rest":
            out.append("const void *%s_data;" % f.name)
            out.append("uint32_t %s_size;" % f.name)
        elif f.kind == "args":
            out.append("uint8_t version;")
            out.append("tf_arg_t args[TF_MAX_ARGS];")
    return out


def count_width(kind):
    return {"8": 1, "16": 2, "32": 4}[re.sub(r"\D", "", kind)]


def tail_size_terms(r):
    terms = []
    for f in r.tail():
        g = "(alt ? (%s) : 0u)" if f.altonly else "(%s)"
        if f.kind in SCALAR:
            t = "%du" % f.width
        elif f.kind == "str16":
            t = "2u + tf_str_stored_len(r->%s)" % f.name
        elif f.kind == "str8":
            t = "1u + (uint8_t)tf_str_stored_len(r->%s)" % f.name
        elif f.kind == "strrest":
            t = "tf_str_stored_len(r->%s)" % f.name
        elif f.kind.startswith("arr"):
            t = "%du + r->%s_count * %du" % (count_width(f.kind), f.name, f.elem)
        elif f.kind.startswith("ents"):
            t = "%du + r->%s_bytes" % (count_width(f.kind), f.name)
        elif f.kind == "rest":
            t = "r->%s_size" % f.name
        elif f.kind == "args":
            t = "tf_args_size(r->version, r->args)"
        terms.append(g % t)
    return terms or ["0u"]


def emit_tail_encode(r, out):
    for f in r.tail():
        ind = "  "
        if f.altonly:
            out.append("  if (alt) {")
            ind = "    "
        if f.kind in SCALAR:
            val = "0x%Xu" % f.const if f.const is not None else "r->%s" % f.name
            out.append("%s%s pos += %d;" % (ind, store(f.width, "d + pos", val), f.width))
        elif f.kind == "str16":
            out.append("%spos += tf_put_str16(d + pos, r->%s);" % (ind, f.name))
        elif f.kind == "str8":
            out.append("%spos += tf_put_str8(d + pos, r->%s);" % (ind, f.name))
        elif f.kind == "strrest":
            out.append("%spos += tf_put_str_bytes(d + pos, r->%s);" % (ind, f.name))
        elif f.kind.startswith("arr"):
            cw = count_width(f.kind)
            out.append("%s%s pos += %d;" % (ind, store(cw, "d + pos", "r->%s_count" % f.name), cw))
            out.append("%spos += tf_put_bytes(d + pos, r->%s_data, r->%s_count * %du);" % (ind, f.name, f.name, f.elem))
        elif f.kind.startswith("ents"):
            cw = count_width(f.kind)
            out.append("%s%s pos += %d;" % (ind, store(cw, "d + pos", "r->%s_count" % f.name), cw))
            out.append("%spos += tf_put_bytes(d + pos, r->%s_data, r->%s_bytes);" % (ind, f.name, f.name))
        elif f.kind == "rest":
            out.append("%spos += tf_put_bytes(d + pos, r->%s_data, r->%s_size);" % (ind, f.name, f.name))
        elif f.kind == "args":
            out.append("%spos += tf_args_encode(d + pos, r->version, r->args);" % ind)
        if f.altonly:
            out.append("  }")


def head_call_args(r):
    args = ["d"]
    if r.has_alt:
        args.append("alt")
    if r.api:
        args.append("descriptor")
    for f in r.head():
        if f.kind in SCALAR and f.const is None and f.mapvar is None:
            args.append("r->%s" % f.name)
        elif f.mapvar is not None:
            args.append("r->%s" % f.mapvar)
    return args


def gen_header(records, apis):
    h = [BANNER, "#ifndef TF_RECORDS_GEN_H", "#define TF_RECORDS_GEN_H", "",
         "/* Included by vorx_traceformat.h, which provides the store helpers and tf_arg_t. */", ""]
    h.append("#define TF_FOR_EACH_RECORD_CLASS(X) \\")
    h.append(" \\\n".join("  X(%s)" % r.name for r in records if r.obj))
    h.append("")
    for r in records:
        N = r.name.upper()
        h.append("/* %s */" % r.name)
        h.append("#define TF_%s_DESC 0x%08Xu" % (N, r.desc))
        if r.has_alt:
            h.append("#define TF_%s_DESC_ALT 0x%08Xu" % (N, r.alt))
        sf = [f for f in r.fields if f.kind in SIZEK]
        if sf and sf[0].type is not None:
            h.append("#define TF_%s_TYPE %du" % (N, sf[0].type))
        params = ", ".join(["uint8_t *d"] + head_params(r))
        if r.fixed():
            size = 4 + sum(f.width for f in r.fields if not f.altonly)
            if not r.has_alt:
                h.append("#define TF_%s_SIZE %du" % (N, size))
            h.append("/* Writes the whole record at d; returns its length. */")
            h.append("static inline uint32_t tf_%s_put(%s)\n{" % (r.name, params))
            emit_head_body(r, h, "0u")
            h.append("}")
        else:
            if not r.has_alt and not r.api:
                h.append("#define TF_%s_HEAD_SIZE %su" % (N, 4 + sum(f.width for f in r.head())))
            h.append("/* Writes the fields in front of the first variable one at d; tail_len is the\n"
                     "   number of bytes the caller writes behind them. Returns the head length. */")
            h.append("static inline uint32_t tf_%s_put_head(%s, uint32_t tail_len)\n{" % (r.name, params))
            emit_head_body(r, h, "tail_len")
            h.append("}")
        sized = r.sized_head()
        if sized and sized != r.head():
            sparams = ", ".join(["uint8_t *d"] + head_params(r, sized))
            if not r.has_alt and not r.api:
                h.append("#define TF_%s_SIZED_HEAD_SIZE %su" % (N, 4 + sum(f.width for f in sized)))
            h.append("/* Writes the fields up to the size and type; tail_len is everything behind them. */")
            h.append("static inline uint32_t tf_%s_put_sized_head(%s, uint32_t tail_len)\n{" % (r.name, sparams))
            emit_head_body(r, h, "tail_len", sized)
            h.append("}")
        if r.obj:
            h.append("typedef struct __attribute__((packed)) tf_record_%s {" % r.name)
            h.append("  const tf_record_ops_t *ops;")
            h.append("  uint32_t guard_begin;")
            for m in obj_members(r):
                h.append("  " + m)
            h.append("  uint32_t guard_end;")
            h.append("} %s;" % cname(r))
            h.append("void tf_record_%s_init(%s *r);" % (r.name, cname(r)))
        h.append("")
    # API members
    h.append("/* API members: init functions set id, version and arguments. */")
    for (aid, form, name, ver, args) in apis:
        h.append("#define TF_API_ID_%s %du" % (name.lstrip("_").upper(), aid))
        h.append("void tf_record_apiwrap_v%d_init_%s(%s);" % (form, name, ", ".join(api_params(form, args))))
    h.append("")
    h.append("#endif")
    return "\n".join(h) + "\n"


def api_params(form, args):
    p = ["tf_record_apiwrap_v%d_t *r" % form]
    for i, a in enumerate(args):
        m = re.fullmatch(r"(\w+)(?:\[(\w+)\])?", a)
        base, cnt = m.group(1), m.group(2)
        if base == "str":
            p.append("const char *a%d" % i)
        elif cnt is None:
            p.append("%s a%d" % (CTYPE[SCALAR[base]], i))
        elif cnt == "n":
            p.append("const %s *a%d, int32_t a%d_count" % (CTYPE[SCALAR[base]], i, i))
        else:
            p.append("const %s a%d[%s]" % (CTYPE[SCALAR[base]], i, cnt))
    return p


def api_arg_fill(i, a):
    m = re.fullmatch(r"(\w+)(?:\[(\w+)\])?", a)
    base, cnt = m.group(1), m.group(2)
    if base == "str":
        return "tf_arg_set(&r->args[%d], 1, -1, 1, (uint64_t)(uintptr_t)a%d);" % (i, i)
    w = SCALAR[base]
    if cnt is None:
        return "tf_arg_set(&r->args[%d], %d, 1, 0, (uint64_t)a%d);" % (i, w, i)
    count = "a%d_count" % i if cnt == "n" else cnt
    return "tf_arg_set(&r->args[%d], %d, %s, 1, (uint64_t)(uintptr_t)a%d);" % (i, w, count, i)


def gen_source(records, apis):
    c = [BANNER, '#include "vorx_traceformat.h"', ""]
    for r in records:
        if not r.obj:
            continue
        T = cname(r)
        alt = "  int alt = %s;" % r.when if r.has_alt else None
        # size
        c.append("static uint32_t tf_%s_size(const tf_record_t *base)\n{" % r.name)
        c.append("  const %s *r = (const %s *)base;" % (T, T))
        c.append("  (void)r;")
        if alt:
            c.append(alt)
        if r.api:
            c.append("  uint32_t descriptor = tf_api_descriptor(r->tid, r->aux_id);")
        c.append("  return %s + %s;" % (head_size_expr(r), " + ".join(tail_size_terms(r))))
        c.append("}")
        # encode
        c.append("static void tf_%s_encode(const tf_record_t *base, void *dest, uint32_t dest_buf_size)\n{" % r.name)
        c.append("  const %s *r = (const %s *)base;" % (T, T))
        c.append("  (void)r;")
        c.append("  uint8_t *d = (uint8_t *)dest;")
        if alt:
            c.append(alt)
        if r.api:
            c.append("  uint32_t descriptor = tf_api_descriptor(r->tid, r->aux_id);")
        at, sf = size_at_expr(r)
        if sf is not None and sf.kind != "size32":
            # A 16-bit size must hold the record; larger ones need the 32-bit form.
            cond = "!alt && " if sf.kind == "sizevar" else ""
            c.append('  if (%s(dest_buf_size - (%s)) > 0xFFFFu)' % (cond, at))
            c.append('    tf_assert_fail(__FILE__, __LINE__, __func__, "size <= 0xFFFF", "");')
        hs = "(%s)" % head_size_expr(r)
        c.append("  uint32_t pos = tf_%s_%s(%s%s);" % (
            r.name, "put" if r.fixed() else "put_head", ", ".join(head_call_args(r)),
            "" if r.fixed() else ", dest_buf_size - %s" % hs))
        emit_tail_encode(r, c)
        c.append('  TF_ASSERT(pos == dest_buf_size);')
        c.append("}")
        c.append("static const tf_record_ops_t tf_%s_ops = { tf_%s_size, tf_%s_encode };" % (r.name, r.name, r.name))
        c.append("void tf_record_%s_init(%s *r)\n{" % (r.name, T))
        c.append("  tf_zero(r, sizeof *r);")
        c.append("  r->ops = &tf_%s_ops;" % r.name)
        c.append("  r->guard_begin = TF_GUARD;")
        c.append("  r->guard_end = TF_GUARD;")
        if r.api:
            c.append("  r->tid = TF_ID_ABSENT;")
            c.append("  r->aux_id = TF_ID_ABSENT;")
        c.append("}")
        c.append("")
    for (aid, form, name, ver, args) in apis:
        c.append("void tf_record_apiwrap_v%d_init_%s(%s)\n{" % (form, name, ", ".join(api_params(form, args))))
        c.append("  tf_record_apiwrap_v%d_init(r);" % form)
        c.append("  r->function_id = %s;" % ("%du" % aid if form == 1 else "(%du | 0x80000000u)" % aid))
        c.append("  r->version = %d;" % ver)
        for i, a in enumerate(args):
            c.append("  " + api_arg_fill(i, a))
        c.append("}")
    return "\n".join(c) + "\n"


# ------------------------------------------------------------- test support

def gen_test_header(records):
    """Fillers give every field of an object a value derived from a seed; expectations list
    the values the reader must decode, field by field, in the reader's field names."""
    t = [BANNER, "#ifndef TF_RECORDS_TEST_GEN_H", "#define TF_RECORDS_TEST_GEN_H",
         '#include "vorx_traceformat.h"', '#include "tf_test_support.h"', ""]
    t.append("#define TF_FOR_EACH_FILLED_RECORD(X) \\")
    t.append(" \\\n".join("  X(%s)" % r.name for r in records if r.obj and not r.api))
    t.append("")
    for r in records:
        if not r.obj or r.api:
            continue
        T = cname(r)
        t.append("static inline void tf_gen_fill_%s(%s *r, uint32_t seed, int alt)\n{" % (r.name, T))
        t.append("  tf_record_%s_init(r);" % r.name)
        for i, f in enumerate(r.fields):
            v = "tf_seed_value(seed, %d)" % i
            if f.kind in SCALAR and f.const is None and f.mapvar is None:
                t.append("  r->%s = (%s)%s;" % (f.name, CTYPE[f.width], v))
            elif f.mapvar is not None:
                t.append("  r->%s = %du;" % (f.mapvar, f.mapping[-1][0]))
            elif f.kind in ("str16", "strrest"):
                t.append("  r->%s = tf_seed_string(seed, %d, alt);" % (f.name, i))
            elif f.kind == "str8":
                t.append("  r->%s = tf_seed_short_string(seed, %d);" % (f.name, i))
            elif f.kind.startswith("arr"):
                cond = "alt" if f.altonly else "1"
                maxc = 255 if f.kind == "arr8" else 40
                if r.has_alt and "events2" in (r.when or "") and f.altonly:
                    t.append("  r->%s_count = %s ? tf_seed_count(seed, %d, %d) : 0;" % (f.name, cond, i, maxc))
                    t.append("  r->%s_data = %s ? tf_seed_bytes(seed, %d) : 0;" % (f.name, cond, i))
                else:
                    t.append("  r->%s_count = tf_seed_count(seed, %d, %d);" % (f.name, i, maxc))
                    t.append("  r->%s_data = tf_seed_bytes(seed, %d);" % (f.name, i))
            elif f.kind.startswith("ents"):
                t.append("  static const uint32_t lens%d[] = {%s};" % (i, ",".join(map(str, f.lens))))
                # through locals: the record object is packed
                t.append("  { const void *data; uint32_t bytes;")
                t.append("    r->%s_count = tf_seed_entries(seed, %d, %d, lens%d, %d, &data, &bytes);"
                         % (f.name, i, f.elem, i, len(f.lens)))
                t.append("    r->%s_data = data; r->%s_bytes = bytes; }" % (f.name, f.name))
            elif f.kind == "rest":
                t.append("  r->%s_data = tf_seed_bytes(seed, %d);" % (f.name, i))
                t.append("  r->%s_size = tf_seed_rest_size(seed, %d, alt);" % (f.name, i))
        t.append("}")
        t.append("static inline void tf_gen_expect_%s(const %s *r, tf_expect_t *e)\n{" % (r.name, T))
        if r.has_alt:
            t.append("  int alt = %s;" % r.when)
            t.append("  (void)alt;")
        for f in r.fields:
            if f.altonly:
                t.append("  if (alt)")
            if f.kind in SCALAR:
                if f.mapvar is not None:
                    val = "(%s)" % map_expr(f, "r->" + f.mapvar)
                elif f.const is not None:
                    val = "(alt ? 0x%Xu : 0x%Xu)" % (f.alt_const, f.const) if f.alt_const is not None else "0x%Xu" % f.const
                else:
                    val = "r->%s" % f.name
                t.append('  tf_expect_num(e, "%s", %s);' % (f.name, val))
            elif f.kind in SIZEK:
                val = map_expr(f, "r->" + f.mapvar) if f.mapvar is not None else "%du" % f.type
                t.append('  tf_expect_num(e, "type", %s);' % val)
            elif f.kind in ("str16", "str8", "strrest"):
                t.append('  tf_expect_str(e, "%s", r->%s);' % (f.name, f.name))
            elif f.kind.startswith("arr"):
                t.append('  tf_expect_bytes(e, "%s", r->%s_data, r->%s_count * %du);' % (f.name, f.name, f.name, f.elem))
            elif f.kind.startswith("ents"):
                t.append('  tf_expect_bytes(e, "%s", r->%s_data, r->%s_bytes);' % (f.name, f.name, f.name))
            elif f.kind == "rest":
                t.append('  tf_expect_bytes(e, "%s", r->%s_data, r->%s_size);' % (f.name, f.name, f.name))
        t.append("}")
    t.append("#endif")
    return "\n".join(t) + "\n"


# ------------------------------------------------------------------ schema

KIND_ENUM = {"tag4": "TF_FK_TAG4", "u8": "TF_FK_U8", "u16": "TF_FK_U16", "u32": "TF_FK_U32", "u64": "TF_FK_U64",
             "size16": "TF_FK_SIZE16", "size32": "TF_FK_SIZE32", "sizevar": "TF_FK_SIZEVAR",
             "api_size": "TF_FK_SIZE16", "str16": "TF_FK_STR16", "str8": "TF_FK_STR8",
             "strrest": "TF_FK_STRREST", "arr8": "TF_FK_ARR8", "arr16": "TF_FK_ARR16",
             "arr32": "TF_FK_ARR32", "ents16": "TF_FK_ENTS16", "ents32": "TF_FK_ENTS32",
             "rest": "TF_FK_REST", "args": "TF_FK_ARGS"}


def gen_schema(records, apis):
    s = [BANNER, "#ifndef TF_SCHEMA_GEN_H", "#define TF_SCHEMA_GEN_H", "",
         "/* Included by the reader after tf_schema.h, which declares the types. */", ""]
    for r in records:
        s.append("static const tf_field_desc_t tf_fields_%s[] = {" % r.name)
        for f in r.fields:
            const = f.const if f.const is not None else (f.type if f.type is not None else 0)
            has_const = int(f.const is not None or f.type is not None)
            if f.mapvar is not None:
                has_const = 0
            lens = (f.lens + [0, 0, 0, 0])[:4]
            s.append('  { %s, "%s", %d, 0x%Xu, 0x%Xu, 0x%Xu, %d, %d, %d, { %s } },' % (
                KIND_ENUM[f.kind], "type" if f.kind in SIZEK else f.name, has_const, const,
                f.alt_const if f.alt_const is not None else const, f.optbit, int(f.altonly),
                f.elem, len(f.lens), ", ".join(map(str, lens))))
        s.append("};")
    s.append("static const tf_schema_t tf_schemas[] = {")
    for r in records:
        sf = [f for f in r.fields if f.kind in SIZEK]
        types = []
        if sf:
            if sf[0].mapvar is not None:
                types = [v for _, v in sf[0].mapping]
            else:
                types = [sf[0].type]
        ver = [f for f in r.fields if f.name == "version" and f.const is not None]
        for t in types or [-1]:
            s.append('  { "%s", 0x%08Xu, 0x%08Xu, %d, %d, %d, %d, tf_fields_%s, %d },' % (
                r.name, r.desc, r.alt if r.has_alt else r.desc, t,
                ver[0].const if ver else -1, int(r.api), int(bool(sf)), r.name, len(r.fields)))
    s.append("};")
    s.append("static const tf_api_desc_t tf_api_descs[] = {")
    for (aid, form, name, ver, args) in apis:
        s.append('  { %d, %d, %d, "%s", "%s" },' % (aid, form, ver, name, ",".join(args)))
    s.append("};")
    s.append("#endif")
    return "\n".join(s) + "\n"


def write_if_changed(path, text):
    if os.path.exists(path) and open(path).read() == text:
        return
    with open(path, "w") as f:
        f.write(text)


def main():
    records, apis = parse(sys.argv[1])
    out = sys.argv[2]
    os.makedirs(out, exist_ok=True)
    write_if_changed(os.path.join(out, "tf_records_gen.h"), gen_header(records, apis))
    write_if_changed(os.path.join(out, "tf_records_gen.c"), gen_source(records, apis))
    write_if_changed(os.path.join(out, "tf_records_test_gen.h"), gen_test_header(records))
    write_if_changed(os.path.join(out, "tf_schema_gen.h"), gen_schema(records, apis))


if __name__ == "__main__":
    main()
