"""The firmware header as a node's build sees it: it includes nothing but
<stdint.h>, <stddef.h> and <string.h>, names no allocation and no stdio, and
compiles with every warning an error with each compiler given, as C99 and as
C++17. The translation unit compiled is the generated table of every row's
pack and unpack, so every function of the header is compiled.

    compile_clean.py HEADER ROWS_C SUPPORT_DIR --c CC... --cxx CXX...
"""
import argparse, os, re, subprocess, sys

WARNINGS = ["-Wall", "-Wextra", "-Wpedantic", "-Wconversion", "-Werror",
            "-Wsign-conversion", "-Wshadow", "-Wcast-qual", "-Wcast-align", "-Wundef"]
C_ONLY = ["-Wstrict-prototypes", "-Wmissing-prototypes"]
ALLOWED = {"stdint.h", "stddef.h", "string.h"}
FORBIDDEN = re.compile(r"\b(malloc|calloc|realloc|free|printf|fprintf|sprintf|snprintf|puts|FILE|stdio)\b")


def main():
    p = argparse.ArgumentParser()
    p.add_argument("header")
    p.add_argument("rows_c")
    p.add_argument("support")
    p.add_argument("--c", nargs="+", required=True)
    p.add_argument("--cxx", nargs="+", required=True)
    a = p.parse_args()
    failures = []
    with open(a.header, encoding="utf-8") as f:
        text = f.read()
    includes = set(re.findall(r'^\s*#\s*include\s*[<"]([^>"]+)[>"]', text, re.M))
    if includes != ALLOWED:
        failures.append(f"{a.header} includes {sorted(includes)}, not {sorted(ALLOWED)}")
    code = re.sub(r"/\*.*?\*/|//[^\n]*", "", text, flags=re.S)
    for name in sorted(set(FORBIDDEN.findall(code))):
        failures.append(f"{a.header} uses {name}")
    include = ["-I", os.path.dirname(a.header), "-I", a.support]
    runs = [[cc, "-std=c99", *WARNINGS, *C_ONLY] for cc in a.c] + \
           [[cxx, "-x", "c++", "-std=c++17", *WARNINGS] for cxx in a.cxx] + \
           [[a.c[0], "-std=c99", "-DVORLINK_MESSAGE_NAMES=0", *WARNINGS, *C_ONLY]]
    for cmd in runs:
        cmd += [*include, "-fsyntax-only", a.rows_c]
        try:
            r = subprocess.run(cmd, capture_output=True, text=True)
        except OSError as e:
            failures.append(f"{cmd[0]}: {e}")
            continue
        verdict = "clean" if r.returncode == 0 else "FAILED"
        print(f"{verdict}: {' '.join(cmd[:3])} ...")
        if r.returncode:
            failures.append(f"{' '.join(cmd)}\n{r.stderr[:4000]}")
    for f in failures:
        print(f"FAIL: {f}", file=sys.stderr)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
