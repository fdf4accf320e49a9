"""The declarations: read from qbimage.h as a C compiler reads the headers."""

from __future__ import annotations

import os
import re
import shutil
import subprocess

import pytest

from qbimage import _api, _native

RECORDS = ["struct jpeg_decompress_struct", "struct jpeg_error_mgr", "struct jpeg_marker_struct",
           "image_jcache", "image_metadata", "image_scale_params", "image_ctx", "image_crop",
           "image_overlay", "image_rational"]


@pytest.mark.parametrize("text, kept, dropped", [
    ("#ifdef __cplusplus\nextern \"C\" {\n#endif\nint a;", "int a;", "extern"),
    ("#if defined(__GNUC__)\n#define API __attribute__((x))\n#else\n#define API\n#endif\n"
     "API int f(void);", "int f(void);", "API"),
    ("#define V 3\n#if defined(V) && V >= 2L\nint yes;\n#elif 1\nint no;\n#endif", "int yes;",
     "int no;"),
    ("#ifndef G\n#define G\n#if !defined(G)\nint no;\n#else\nint yes;\n#endif\n#endif", "int yes;",
     "int no;"),
])
def test_header_declarations(text, kept, dropped):
    body = _native.header_declarations(text)
    assert kept in body and dropped not in body


def test_every_exported_name_is_declared():
    map_file = _native.header_path().parent.parent / "src" / "qbimage.map"
    if not map_file.is_file():
        pytest.skip("not a source checkout: no src/qbimage.map")
    names = re.findall(r"^\s+(\w+);", map_file.read_text().split("local:")[0], re.M)
    lib = _api.loaded().lib
    assert names and [n for n in names if not hasattr(lib, n)] == []


def test_layouts_match_the_c_compiler(tmp_path):
    compiler = os.environ.get("CC") or shutil.which("cc") or shutil.which("gcc")
    if not compiler:
        pytest.skip("no C compiler to compare the layouts with")
    ffi = _api.loaded().ffi
    lines, expected = [], []
    for record in RECORDS:
        lines.append(f'printf("%zu\\n", sizeof({record}));')
        expected.append(ffi.sizeof(record))
        for field, _ in ffi.typeof(record).fields:
            lines.append(f'printf("%zu\\n", offsetof({record}, {field}));')
            expected.append(ffi.offsetof(record, field))
    source = tmp_path / "layout.c"
    source.write_text("#include <stddef.h>\n#include <stdio.h>\n#include <qbimage.h>\n"
                      "int main(void) {\n" + "\n".join(lines) + "\nreturn 0;\n}\n")
    include = _native.header_path().parent
    subprocess.run([compiler, "-std=c99", "-I", str(include), str(source), "-o",
                    str(tmp_path / "layout")], check=True)
    out = subprocess.run([str(tmp_path / "layout")], stdout=subprocess.PIPE, check=True).stdout
    assert [int(x) for x in out.split()] == expected
