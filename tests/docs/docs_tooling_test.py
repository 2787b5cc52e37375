#!/usr/bin/env python3
"""Tests of the API-reference tooling: the header converter
(scripts/doxify-headers), the exported-region filter (docs/exported-only) and
the warning checker (scripts/check-docs)."""

import os
import subprocess
import sys
import tempfile
import types
import unittest

ROOT = os.path.abspath(os.path.join(os.path.dirname(__file__), "..", ".."))


def load(relpath, name):
    """A script without a .py suffix, loaded as a module."""
    path = os.path.join(ROOT, relpath)
    module = types.ModuleType(name)
    module.__file__ = path
    with open(path, encoding="utf-8") as f:
        exec(compile(f.read(), path, "exec"), module.__dict__)
    return module


doxify = load("scripts/doxify-headers", "doxify_headers").doxify


def lines(*text):
    return "\n".join(text) + "\n"


# A header whose file note is already converted: what follows is not a note.
HEAD = ("/**", " * @file", " */", "#pragma once")


class DoxifyTest(unittest.TestCase):
    CASES = [
        ("file note gets @file on a line of its own",
         lines("/*", " * Design note.", " */", "#ifndef X_H"),
         lines("/**", " * @file", " * Design note.", " */", "#ifndef X_H")),
        ("one-line file note",
         lines("/* Design note. */", "#pragma once"),
         lines("/**", " * @file", " * Design note. */", "#pragma once")),
        ("licence banner is left, the note after it converted",
         lines("/* Copyright 2026 The Authors. */", "/* Note. */", "#pragma once"),
         lines("/* Copyright 2026 The Authors. */", "/**", " * @file", " * Note. */", "#pragma once")),
        ("block comment above a declaration",
         lines(*HEAD, "/* Does a. */", "int a(void);"),
         lines(*HEAD, "/** Does a. */", "int a(void);")),
        ("run of // lines above a declaration",
         lines(*HEAD, "// Does b,", "// twice.", "int b(void);"),
         lines(*HEAD, "/// Does b,", "/// twice.", "int b(void);")),
        ("comment followed by a blank line stays a plain comment",
         lines(*HEAD, "/* Section. */", "", "int c(void);"),
         lines(*HEAD, "/* Section. */", "", "int c(void);")),
        ("comment followed by another comment stays plain",
         lines(*HEAD, "/* Section. */", "/** Does d. */", "int d(void);"),
         lines(*HEAD, "/* Section. */", "/** Does d. */", "int d(void);")),
        ("trailing comments on fields, enumerators and macros",
         lines(*HEAD, "struct S {", "    int a; /* count */", "    int b; // size", "};",
               "enum E { A, /* first */", "  B /* last */", "};", "#define N 3 /* three */"),
         lines(*HEAD, "struct S {", "    int a; /**< count */", "    int b; ///< size", "};",
               "enum E { A, /**< first */", "  B /**< last */", "};", "#define N 3 /**< three */")),
        ("comments in function bodies and macro bodies are untouched",
         lines(*HEAD, "inline int f(int x) {", "    /* why */", "    int y = x; // how", "    return y;",
               "}", "#define M(a) do { \\", "    /* inside */ \\", "    g(a); \\", "} while (0)"),
         lines(*HEAD, "inline int f(int x) {", "    /* why */", "    int y = x; // how", "    return y;",
               "}", "#define M(a) do { \\", "    /* inside */ \\", "    g(a); \\", "} while (0)")),
        ("declarations inside extern \"C\" and a namespace",
         lines(*HEAD, 'extern "C" {', "/* Does e. */", "int e(void);", "}",
               "namespace n {", "/* Does f. */", "int f();", "} // namespace n"),
         lines(*HEAD, 'extern "C" {', "/** Does e. */", "int e(void);", "}",
               "namespace n {", "/** Does f. */", "int f();", "} // namespace n")),
        ("comment markers inside strings are not comments",
         lines(*HEAD, 'const char* s = "/* x */"; // text'),
         lines(*HEAD, 'const char* s = "/* x */"; ///< text')),
        ("closing braces and directives keep their comments",
         lines(*HEAD, "namespace n {", "} // namespace n", "#endif /* X_H */"),
         lines(*HEAD, "namespace n {", "} // namespace n", "#endif /* X_H */")),
    ]

    def test_cases(self):
        for name, before, after in self.CASES:
            with self.subTest(name):
                self.assertEqual(doxify(before), after)

    def test_idempotent(self):
        for name, before, _ in self.CASES:
            with self.subTest(name):
                once = doxify(before)
                self.assertEqual(doxify(once), once)

    def test_public_headers_are_converted(self):
        run = subprocess.run([os.path.join(ROOT, "scripts", "doxify-headers"), "--check"],
                             stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        self.assertEqual(run.returncode, 0, run.stdout)


class ExportedOnlyTest(unittest.TestCase):
    def test_keeps_note_and_exported_region_only(self):
        header = lines("/**", " * @file", " * Note.", " */", "#ifndef X_H", "#define X_H",
                       "#include <stdint.h>", "int hidden_before(void);",
                       "#pragma GCC visibility push(default)", "/** Exported. */", "int shown(void);",
                       "#pragma GCC visibility pop", "void* internal(void);", "#endif")
        with tempfile.NamedTemporaryFile("w", suffix=".h", delete=False) as f:
            f.write(header)
        try:
            out = subprocess.run([sys.executable, os.path.join(ROOT, "docs", "exported-only"), f.name],
                                 check=True, stdout=subprocess.PIPE, text=True).stdout
        finally:
            os.unlink(f.name)
        self.assertEqual(out.split("\n"),
                         ["/**", " * @file", " * Note.", " */", "#ifndef X_H", "", "", "", "",
                          "/** Exported. */", "int shown(void);", "", "", "#endif", ""])


class CheckDocsTest(unittest.TestCase):
    def run_check(self, log_lines):
        with tempfile.NamedTemporaryFile("w", suffix=".log", delete=False) as f:
            f.write("\n".join(log_lines) + "\n")
        try:
            return subprocess.run([os.path.join(ROOT, "scripts", "check-docs"), f.name],
                                  stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        finally:
            os.unlink(f.name)

    def test_verdicts(self):
        h = os.path.join(ROOT, "allshare/libkvc/include/libkvc/strutil.h")
        cases = [
            ("empty log", [], 0),
            ("field and enumerator warnings only",
             [f"{h}:3: warning: Member a (variable) of struct S is not documented.",
              f"{h}:4: warning: Member A (enumvalue) of file strutil.h is not documented."], 0),
            ("undocumented function",
             [f"{h}:5: warning: Member f(int x) (function) of file strutil.h is not documented."], 1),
            ("undocumented method",
             [f"{h}:6: warning: Member g() const (function) of class kvlog::C is not documented."], 1),
            ("doxygen error", [f"{h}:7: error: unexpected end of comment"], 1),
        ]
        for name, log, code in cases:
            with self.subTest(name):
                run = self.run_check(log)
                self.assertEqual(run.returncode, code, run.stdout)
                if code:
                    # Offenders are listed relative to the repository root.
                    self.assertIn("allshare/libkvc/include/libkvc/strutil.h:", run.stdout)
                    self.assertNotIn(ROOT + "/allshare", run.stdout)

    def test_missing_log_is_an_error(self):
        run = subprocess.run([os.path.join(ROOT, "scripts", "check-docs"), "/nonexistent/warnings.log"],
                             stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        self.assertEqual(run.returncode, 2)


if __name__ == "__main__":
    unittest.main()
