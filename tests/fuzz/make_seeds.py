#!/usr/bin/env python3
"""Writes the seed corpora of the fuzz targets: real acknowledgements, data messages, scripts,
settings files, logger configurations, type texts and command lines. Run it from anywhere; it
rewrites only the files named seed_*, never the regression inputs kept beside them."""
import os
import struct

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "corpus")


def be32(v):
    return struct.pack(">I", v & 0xFFFFFFFF)


def var(b):
    b = b.encode() if isinstance(b, str) else b
    return bytes([255] * (len(b) // 255) + [len(b) % 255]) + b


def frame(body):
    return be32(len(body) + 4) + body


def ack(vector, cols):
    """cols: (name, isconst, ltype, ptype)."""
    names = b"".join(var(c[0]) for c in cols)
    types = b"".join(be32(c[1]) + var(c[2]) + var(c[3]) for c in cols)
    return frame(be32(0) + be32(len(cols)) + be32(vector) + names + types)


def data(rows, blocks=b""):
    return frame(be32(0) + be32(rows) + blocks)


def error(code, params):
    body = b"".join(var(p) for p in params)
    return frame(be32(0xFFFFFFFF) + be32(code) + be32(len(params)) + body)


def ints(fmt, values):
    return b"".join(struct.pack("<" + fmt, v) for v in values)


def write_all(target, payloads):
    d = os.path.join(ROOT, target)
    os.makedirs(d, exist_ok=True)
    for name, payload in payloads.items():
        with open(os.path.join(d, "seed_" + name), "wb") as f:
            f.write(payload.encode() if isinstance(payload, str) else payload)


STREAMS = {
    "ints": ack(4, [("i", 0, "int", "sint"), ("l", 0, "bigint", "slng")])
        + data(2, ints("i", [1, -2]) + ints("q", [3, 2**62])) + data(0),
    "strings": ack(3, [("s", 0, "varchar(10)", "str")])
        + data(3, var("") + var("x" * 255) + var("\u00e9t\u00e9")) + data(0),
    "const": ack(8, [("c", 1, "int", "sint"), ("v", 0, "smallint", "ssht")])
        + data(3, ints("i", [7]) + ints("h", [1, 2, 3])) + data(0),
    "nulls": ack(2, [("", 0, "bool", "uchr"), ("d", 0, "decimal(12,2)", "slng")])
        + data(2, bytes([0, 1]) + ints("q", [12345, 99])) + data(0),
    "floats": ack(2, [("f", 0, "flt", "flt"), ("d", 0, "dbl", "dbl"), ("m", 0, "money", "dbl")])
        + data(2, ints("f", [1.5, -0.0]) + ints("d", [3.25, 1e300]) + ints("d", [1234.0, -5.0]))
        + data(0),
    "dates": ack(1, [("d", 0, "date", "sint"), ("t", 0, "time(3)", "slng"),
                         ("ts", 0, "timestamp(6)", "slng")])
        + data(1, ints("i", [19000]) + ints("q", [3600123]) + ints("q", [1700000000000000]))
        + data(0),
    "wide": ack(1, [("w", 0, "decimal(30,4)", "s128"), ("h", 0, "s128", "s128")])
        + data(1, ints("q", [5, 0]) + ints("q", [-1, -1])) + data(0),
    "zero_columns": ack(5, []) + data(3) + data(0),
    "no_rows": ack(4, [("a", 0, "int", "sint")]) + data(0),
    "ack_error": error(1, ["table", "t1"]),
    "data_error": ack(4, [("a", 0, "int", "sint")]) + data(1, ints("i", [1])) + error(7, ["x"]),
    "too_many_rows": ack(1, [("a", 0, "int", "sint")]) + data(2, ints("i", [1, 2])),
    "negative_rows": ack(1, [("a", 0, "int", "sint")]) + data(-1),
    "empty_frame": frame(b""),
    "closed_mid_stream": ack(4, [("a", 0, "int", "sint")]) + data(1, ints("i", [1])),
}

SCRIPTS = {
    "two": "a; b;",
    "no_semicolon": "a; b",
    "empties": ";;; a;",
    "quoted": "select('x;y');",
    "heredoc": "Array(<<<END\nx;y\nEND\n);\nnext;",
    "heredoc_eq": "q(<=<E\n;\nE\n);",
    "comments": "# c\nq;\n/* ; */ r; // t\ns;",
    "escapes": "'\\08' '\\x41' '\\u00e9' '\\x' '\\n\\t';",
    "numbers": "1.2.3 12. 7 x_1 fetchN FETCHN true as;",
    "operators": "a != b <= c >= d << e >> f && g || h == i = j ! k;",
    "utf8": "caf\u00e9 'na\u00efve';",
    "bad_utf8": "x\xff\xfe 'a\xc3';",
    "leading_space": "  \n\tq ;",
    "unterminated": "'open string",
    "control_start": "\x01",
    "real_query": "Array([i=0]);\nproject(Array([i=10]), [j = i * 2]);\n",
}
SCRIPTS["bad_utf8"] = SCRIPTS["bad_utf8"].encode("latin-1")

SETTINGS = {
    "client": "[client]\nport = 5000\nhost = 127.0.0.1\noutput_mode = html\n",
    "sizes": "[memory]\nmax_mem = 2G\nbuffer = 512 KB\n",
    "comments": "# only a comment\n\n[client] # trailing\nconnection_retries = 7\n",
    "quoted": "[client]\npassfile = \"/tmp/key file\"\n",
    "slash": "[client]\nhost = a/b/c\n/ stray\n",
    "bad": "[client\nport = = 3\n]]\n",
    "unknown": "[nosuchgroup]\nfoo = bar\n[client]\nnosuch = 1\n",
    "out_of_range": "[client]\nport = 70000\nconnection_retries = -1\n",
}
SETTINGS["long_word"] = "[client]\nhost = " + "h" * 5000 + "\n"

LOG_CONFIGS = {
    "styles": "stdout = color:comment\nstderr = showlevel:pid\nfile = timestamp:showlevel\n",
    "rules": "default = debug:stdout\nNETBUFFER = trace:red:file\nfilename = run.log\n",
    "facility_kw": "facility KESTCLIENT = warn:stderr, LTYPE = error\n",
    "quoted": "filename = \"with space.log\"\n",
    "bad": "stdout = nosuchstyle\n",
    "commas": "default = info,MEMCONTEXT = trace:blue:stderr:stdout\n",
}
LOG_CONFIGS["many_rules"] = "".join("F%d = info\n" % i for i in range(140))


LTYPES = ["decimal(12,2)", "varchar(5)", "char", "time(3)", "str", "float(4)", "timestamp(9)",
          "nosuch", "decimal(", "int)"]
S128S = ["0", "-1", "170141183460469231731687303715884105727",
         "-170141183460469231731687303715884105728", "170141183460469231731687303715884105728",
         "12abc", "-", ""]
VALUES = [(5, "-2147483648"), (11, "12.345"), (43, "12.345"), (17, "2024-02-29"),
          (18, "23:59:59.123"), (19, "2024-01-01 00:00:00"), (14, "$1,234.56"), (12, "1e10"),
          (0, "yes"), (20, "3 12:00:00"), (21, "1-2")]
TYPES = {"ltype_%d" % i: "\0\0\0\0" + t for i, t in enumerate(LTYPES)}
TYPES.update({"s128_%d" % i: "\1\0\0\0" + t for i, t in enumerate(S128S)})
TYPES.update({"value_%d" % i: bytes([2, pick, 12, 3]) + text.encode()
              for i, (pick, text) in enumerate(VALUES)})

COMMAND_LINES = [["-e", "Array([i=0])", "-P", "5000"], ["--port=5000", "--host", "127.0.0.1"],
                 ["-pi", "-r"], ["-P5000", "-o", "html"], ["--nosuch"], ["stray"], ["-e"],
                 ["--ping=1"], ["-uv"], ["--output=raw", "-n", "--ignore-err", "-?"]]


def nest(opening, leaf, closing, n):
    return opening * n + leaf + closing * n


P = "Project(Array([i=5, j=2]), [%s])"
QUERIES = {
    "array": "Array([i=3, j=2]);",
    "project": "Project(Array([i=4]), [i, k = *(i, 2), s = str(i)])",
    "select": "Select(Array([i=10]), &&(>(i, 2), !(==(%(i, 3), 0))))",
    "arith": P % "a = +(i, 1), b = -(j), c = /(i, 2), d = %(i, 2), e = *(1.5, i), f = -(i, 0.25)",
    "compare": P % "a = ==(i, j), b = !=(i, 1), c = <(i, j), d = <=(i, 2), e = >(j, i), "
                   "f = >=(i, 3), g = ||(false, <(i, 2)), h = &&(true, true)",
    "casts": P % "a = sint('5'), b = decimal('12.34'), c = decimal('1', 20, 2), d = char('x'), "
                 "e = time('12:00:00.5', 1), f = date('2024-02-29'), g = slng(i), h = dbl(i), "
                 "k = money(i), l = intervalds('1 01:01:01'), m = intervalym('-1-2'), "
                 "n = timestamp('2024-02-29 01:02:03'), o = uchr(i), p = s128(i), q = flt(i)",
    "text": P % "a = concat(str(i), 'x'), b = substr('abcdef', i, 2), c = substr('\u20ac', 0)",
    "nulls": P % "a = nullif(i, 1), b = asdbl(decimal(i, 10, 2)), c = +(nullif(i, 2), 1)",
    "long_integer": P % ("a = " + "9" * 38),
    "too_long_integer": P % ("a = " + "9" * 39),
    "long_decimal": P % ("a = " + "1" * 20 + "." + "2" * 18),
    "long_text": P % ("a = '" + "t" * 3000 + "'"),
    "heredoc": "Project(Array([i=1]), [a = <<<END\nsome ; text\nEND\n])",
    "comments": "# leading\nProject(Array([i=2]), /* ; */ [a = i]) // trailing",
    "escapes": P % "a = '\\x41\\u00e9\\08\\n'",
    "deepest_not": "Project(Array([i=1]), [a = %s])" % nest("!(", "true", ")", 254),
    "too_deep_not": "Project(Array([i=1]), [a = %s])" % nest("!(", "true", ")", 255),
    "deepest_project": nest("Project(", "Array([i=1])", ", [i])", 255),
    "too_deep_project": nest("Project(", "Array([i=1])", ", [i])", 256),
    "hostile_nesting": "Project(" * 20000,
    "deep_concat": nest("Project(", "Array([i=1]), [s = 'ab'])", ", [s = concat(s, s)])", 12),
    "errors": "Project(Array([i=2]), [a = /(1, -(i, i)), b = %(1, 0), c = +(2147483647, i)])",
    "unknown": "Sort(Array([i=1]))",
    "bad_utf8": "Project(Array([i=1]), [a = 'x\xff'])".encode("latin-1"),
    "nul": b"Array([i=1\0])",
    "control": "Array(\x01)",
    "huge_array": "Select(Array([i=99999999999, j=99999999999]), false)",
}

if __name__ == "__main__":
    write_all("receive", {"%s_%d" % (name, mode): bytes([mode, 7 * mode + 3]) + stream
                          for name, stream in STREAMS.items() for mode in range(4)})
    write_all("split", SCRIPTS)
    write_all("settings", SETTINGS)
    write_all("logconfig", LOG_CONFIGS)
    write_all("types", TYPES)
    write_all("query", QUERIES)
    write_all("options", {"args_%d" % i: "\0".join(a) for i, a in enumerate(COMMAND_LINES)})
