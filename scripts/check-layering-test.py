#!/usr/bin/env python3
"""Cases for scripts/check-layering, on a small tree built in a scratch
directory: a subsystem with a portable half and a Linux half, compiled with
the system's C++ compiler so that the call edges come from real objects."""
import json
import os
import subprocess
import sys
import tempfile

HERE = os.path.dirname(os.path.realpath(__file__))
CHECK = os.path.join(HERE, "check-layering")

failures = 0


def expect(name, cond, detail=""):
    global failures
    if not cond:
        failures += 1
        print(f"FAIL {name}\n{detail}")
    else:
        print(f"ok   {name}")


def build(root, files):
    """Writes `files` under root/, compiles every .cpp into root/build and
    writes the compile database the check reads."""
    for rel, text in files.items():
        path = os.path.join(root, rel)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "w") as f:
            f.write(text)
    out = os.path.join(root, "build")
    os.makedirs(out, exist_ok=True)
    db = []
    for rel in sorted(files):
        if not rel.endswith(".cpp"):
            continue
        obj = os.path.join(out, "sub", "CMakeFiles", "sub.dir", rel + ".o")
        os.makedirs(os.path.dirname(obj), exist_ok=True)
        sub = os.path.join(root, "allshare", "sub")
        cmd = f"c++ -I{sub}/include -I{sub} -c {os.path.join(root, rel)} -o {obj}"
        subprocess.run(cmd.split(), check=True)
        db.append({"directory": out, "command": cmd, "file": os.path.join(root, rel)})
    with open(os.path.join(out, "compile_commands.json"), "w") as f:
        json.dump(db, f)
    return out


def run(root, allow=None):
    args = [sys.executable, CHECK, "--source-dir", root, "--build-dir", os.path.join(root, "build")]
    if allow is not None:
        path = os.path.join(root, "allow.txt")
        with open(path, "w") as f:
            f.write(allow)
        args += ["--allow", path]
    else:
        args += ["--allow", "none"]
    res = subprocess.run(args, capture_output=True, text=True)
    return res.returncode, res.stdout + res.stderr


BASE = {
    "allshare/sub/CMakeLists.txt": "",
    "allshare/sub/include/sub/api.h": "int front(int);\n",
    "allshare/sub/linux/os.h": "int back(int);\n",
    "allshare/sub/front.cpp": '#include "sub/api.h"\n#include "linux/os.h"\n'
                              "int front(int x) { return back(x) + 1; }\n",
}


def main():
    with tempfile.TemporaryDirectory() as root:
        # One way: the portable half calls the Linux half.
        build(root, dict(BASE, **{"allshare/sub/linux/os.cpp":
                                  '#include "os.h"\nint back(int x) { return x * 2; }\n'}))
        rc, out = run(root)
        expect("one-way tree passes", rc == 0, out)

    with tempfile.TemporaryDirectory() as root:
        # The Linux half calls back up: a file cycle and an upward call.
        build(root, dict(BASE, **{
            "allshare/sub/helper.h": "int helper(int);\n",
            "allshare/sub/helper.cpp": '#include "helper.h"\nint helper(int x) { return x; }\n',
            "allshare/sub/linux/os.cpp": '#include "os.h"\n#include "sub/api.h"\n'
                                         "int back(int x) { return x ? front(x - 1) : 0; }\n"}))
        rc, out = run(root)
        expect("cycle is reported", rc == 1 and "cycle between files: allshare/sub/front.cpp <-> "
               "allshare/sub/linux/os.cpp" in out, out)
        expect("call edge names the symbol", "calls front(int)" in out, out)
        expect("upward call is reported", "Linux half reaches up into its portable half: "
               "allshare/sub/linux/os.cpp -> allshare/sub/front.cpp" in out, out)
        expect("public header is not the portable half",
               "allshare/sub/linux/os.cpp -> allshare/sub/include/sub/api.h" not in out, out)
        rc, out = run(root, "allshare/sub/linux/os.cpp -> allshare/sub/front.cpp  # being moved\n")
        expect("allowed edge passes", rc == 0, out)
        rc, out = run(root, "allshare/sub/linux/os.cpp -> allshare/sub/front.cpp\n"
                            "allshare/sub/front.cpp -> allshare/sub/helper.cpp\n")
        expect("stale allow entry is noted", rc == 0 and "matches no edge any more" in out and
               "front.cpp -> allshare/sub/helper.cpp" in out, out)

    with tempfile.TemporaryDirectory() as root:
        # Including a private header of the portable half is reaching up too.
        build(root, dict(BASE, **{
            "allshare/sub/private.h": "#define SCALE 2\n",
            "allshare/sub/linux/os.cpp": '#include "os.h"\n#include "private.h"\n'
                                         "int back(int x) { return x * SCALE; }\n"}))
        rc, out = run(root)
        expect("private include is reported", rc == 1 and
               'allshare/sub/linux/os.cpp -> allshare/sub/private.h: includes "private.h"' in out, out)

    with tempfile.TemporaryDirectory() as root:
        rc, out = run(root)
        expect("missing build is a usage error", rc == 2 and "compile_commands.json" in out, out)

    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
