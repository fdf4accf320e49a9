"""The C side: declarations, the loaded library, libc and the log record.

The library's declarations are read from its public header, qbimage.h, at
first use: the copy installed inside this package, or in a source checkout
include/qbimage.h. The header's preprocessor lines are evaluated the way a
C99 compiler that is not GCC would see them, and what is left goes to
cffi's parser as it stands.

qbimage.h includes jpeglib.h, whose records are part of image_jcache. Those
declarations are kept below for the libjpeg 6.2 interface (the one the
library is built against); tests/test_native.py compares every size and
offset with a C compiler's view of the real headers.
"""

from __future__ import annotations

import ast
import os
import platform
import re
import threading
from pathlib import Path
from typing import Any

import cffi

JPEG_LIB_VERSION = 62

# jpeglib.h, 6.2 interface, libjpeg-turbo's jmorecfg.h types. Internal
# records the host never opens are declared as opaque pointers.
JPEGLIB_CDEF = """
typedef unsigned char JSAMPLE;
typedef JSAMPLE *JSAMPROW;
typedef JSAMPROW *JSAMPARRAY;
typedef unsigned char JOCTET;
typedef unsigned char UINT8;
typedef unsigned short UINT16;
typedef unsigned int JDIMENSION;
typedef int boolean;

typedef enum {
  JCS_UNKNOWN, JCS_GRAYSCALE, JCS_RGB, JCS_YCbCr, JCS_CMYK, JCS_YCCK,
  JCS_EXT_RGB, JCS_EXT_RGBX, JCS_EXT_BGR, JCS_EXT_BGRX, JCS_EXT_XBGR,
  JCS_EXT_XRGB, JCS_EXT_RGBA, JCS_EXT_BGRA, JCS_EXT_ABGR, JCS_EXT_ARGB,
  JCS_RGB565
} J_COLOR_SPACE;
typedef enum { JDCT_ISLOW, JDCT_IFAST, JDCT_FLOAT } J_DCT_METHOD;
typedef enum { JDITHER_NONE, JDITHER_ORDERED, JDITHER_FS } J_DITHER_MODE;

struct jpeg_marker_struct {
  struct jpeg_marker_struct *next;
  UINT8 marker;
  unsigned int original_length;
  unsigned int data_length;
  JOCTET *data;
};

struct jpeg_common_struct {
  struct jpeg_error_mgr *err;
  void *mem;
  void *progress;
  void *client_data;
  boolean is_decompressor;
  int global_state;
};
typedef struct jpeg_common_struct *j_common_ptr;
typedef struct jpeg_decompress_struct *j_decompress_ptr;

struct jpeg_decompress_struct {
  struct jpeg_error_mgr *err;
  void *mem;
  void *progress;
  void *client_data;
  boolean is_decompressor;
  int global_state;
  void *src;
  JDIMENSION image_width;
  JDIMENSION image_height;
  int num_components;
  J_COLOR_SPACE jpeg_color_space;
  J_COLOR_SPACE out_color_space;
  unsigned int scale_num, scale_denom;
  double output_gamma;
  boolean buffered_image;
  boolean raw_data_out;
  J_DCT_METHOD dct_method;
  boolean do_fancy_upsampling;
  boolean do_block_smoothing;
  boolean quantize_colors;
  J_DITHER_MODE dither_mode;
  boolean two_pass_quantize;
  int desired_number_of_colors;
  boolean enable_1pass_quant;
  boolean enable_external_quant;
  boolean enable_2pass_quant;
  JDIMENSION output_width;
  JDIMENSION output_height;
  int out_color_components;
  int output_components;
  int rec_outbuf_height;
  int actual_number_of_colors;
  JSAMPARRAY colormap;
  JDIMENSION output_scanline;
  int input_scan_number;
  JDIMENSION input_iMCU_row;
  int output_scan_number;
  JDIMENSION output_iMCU_row;
  void *coef_bits;
  void *quant_tbl_ptrs[4];
  void *dc_huff_tbl_ptrs[4];
  void *ac_huff_tbl_ptrs[4];
  int data_precision;
  void *comp_info;
  boolean progressive_mode;
  boolean arith_code;
  UINT8 arith_dc_L[16];
  UINT8 arith_dc_U[16];
  UINT8 arith_ac_K[16];
  unsigned int restart_interval;
  boolean saw_JFIF_marker;
  UINT8 JFIF_major_version;
  UINT8 JFIF_minor_version;
  UINT8 density_unit;
  UINT16 X_density;
  UINT16 Y_density;
  boolean saw_Adobe_marker;
  UINT8 Adobe_transform;
  boolean CCIR601_sampling;
  struct jpeg_marker_struct *marker_list;
  int max_h_samp_factor;
  int max_v_samp_factor;
  int min_DCT_scaled_size;
  JDIMENSION total_iMCU_rows;
  JSAMPLE *sample_range_limit;
  int comps_in_scan;
  void *cur_comp_info[4];
  JDIMENSION MCUs_per_row;
  JDIMENSION MCU_rows_in_scan;
  int blocks_in_MCU;
  int MCU_membership[10];
  int Ss, Se, Ah, Al;
  int unread_marker;
  void *master;
  void *main;
  void *coef;
  void *post;
  void *inputctl;
  void *marker;
  void *entropy;
  void *idct;
  void *upsample;
  void *cconvert;
  void *cquantize;
};

struct jpeg_error_mgr {
  void (*error_exit)(j_common_ptr cinfo);
  void (*emit_message)(j_common_ptr cinfo, int msg_level);
  void (*output_message)(j_common_ptr cinfo);
  void (*format_message)(j_common_ptr cinfo, char *buffer);
  void (*reset_error_mgr)(j_common_ptr cinfo);
  int msg_code;
  union { int i[8]; char s[80]; } msg_parm;
  int trace_level;
  long num_warnings;
  const char * const *jpeg_message_table;
  int last_jpeg_message;
  const char * const *addon_message_table;
  int first_addon_message;
  int last_addon_message;
};

struct jpeg_error_mgr *jpeg_std_error(struct jpeg_error_mgr *err);
void jpeg_CreateDecompress(j_decompress_ptr cinfo, int version, size_t structsize);
void jpeg_destroy_decompress(j_decompress_ptr cinfo);
void jpeg_stdio_src(j_decompress_ptr cinfo, FILE *infile);
void jpeg_save_markers(j_decompress_ptr cinfo, int marker_code, unsigned int length_limit);
int jpeg_read_header(j_decompress_ptr cinfo, boolean require_image);
"""

LIBC_CDEF = """
FILE *fopen(const char *path, const char *mode);
int fclose(FILE *stream);
"""

# The log callback as this package receives it. image_log_fn is variadic,
# which cffi cannot build a callback for; on the x86-64 and AArch64 Linux
# calling conventions a variadic caller passes integer and pointer arguments
# exactly where a fixed-argument callee with more such parameters reads
# them, so the first four format arguments arrive as the slots below (none
# of the library's formats has a floating-point argument). Elsewhere only
# the fixed arguments are declared and the format is shown unfilled.
_VARARG_SLOTS = 4 if platform.machine() in ("x86_64", "AMD64", "aarch64", "arm64") else 0
LOG_CALLBACK_TYPE = (
    "void(int32_t, void *, int32_t, const char *, int32_t, const char *"
    + ", intptr_t" * _VARARG_SLOTS
    + ")"
)

_PREDEFINED: dict[str, str] = {}  # a plain C99 compiler: no __GNUC__, no __cplusplus


def header_path() -> Path:
    """Where qbimage.h is read from: the package's copy, else the checkout's."""
    here = Path(__file__).resolve().parent
    for candidate in (here / "include" / "qbimage.h", here.parent.parent / "include" / "qbimage.h"):
        if candidate.is_file():
            return candidate
    raise ImportError(
        "qbimage.h not found: neither installed with the package nor at include/ of a checkout"
    )


def _logical_lines(text: str) -> list[str]:
    return text.replace("\\\n", " ").split("\n")


def _condition(expr: str, macros: dict[str, str]) -> bool:
    expr = re.sub(r"/\*.*?\*/|//.*", "", expr)
    expr = re.sub(r"defined\s*\(\s*(\w+)\s*\)|defined\s+(\w+)",
                  lambda m: "1" if (m.group(1) or m.group(2)) in macros else "0", expr)
    # A macro with a number for its body stands for it; any other
    # identifier for 0, as in C.
    expr = re.sub(r"\b[A-Za-z_]\w*\b",
                  lambda m: macros.get(m.group(0), "0")
                  if re.fullmatch(r"\d+[uUlL]*", macros.get(m.group(0), "")) else "0", expr)
    expr = re.sub(r"\b(\d+)[uUlL]+\b", r"\1", expr)
    expr = expr.replace("&&", " and ").replace("||", " or ")
    expr = re.sub(r"!(?!=)", " not ", expr)
    tree = ast.parse(expr.strip(), mode="eval")
    return bool(eval(compile(tree, "<#if>", "eval"), {"__builtins__": {}}, {}))


def header_declarations(text: str) -> str:
    """The C declarations of a header, preprocessor lines evaluated and dropped.

    Conditionals (#if, #ifdef, #ifndef, #elif, #else, #endif) are followed
    with the macros the header defines itself; #include lines are dropped
    (their declarations come from JPEGLIB_CDEF); object-like macros with an
    empty body are removed from the declarations where they are used.
    """
    macros = dict(_PREDEFINED)
    out: list[str] = []
    stack: list[tuple[bool, bool]] = []  # (this branch active, some branch taken)
    active = True
    for line in _logical_lines(text):
        directive = re.match(r"\s*#\s*(\w+)\s*(.*)", line)
        if not directive:
            if active:
                out.append(line)
            continue
        word, rest = directive.groups()
        if word in ("if", "ifdef", "ifndef"):
            if word == "ifdef":
                cond = rest.split()[0] in macros
            elif word == "ifndef":
                cond = rest.split()[0] not in macros
            else:
                cond = active and _condition(rest, macros)
            stack.append((active, cond))
            active = active and cond
        elif word == "elif":
            outer, taken = stack[-1]
            cond = outer and not taken and _condition(rest, macros)
            stack[-1] = (outer, taken or cond)
            active = cond
        elif word == "else":
            outer, taken = stack[-1]
            active = outer and not taken
            stack[-1] = (outer, True)
        elif word == "endif":
            active = stack.pop()[0]
        elif word == "define" and active:
            m = re.match(r"(\w+)(\([^)]*\))?\s*(.*)", rest)
            if m:
                macros[m.group(1)] = "" if m.group(2) else m.group(3).strip()
        elif word == "undef" and active:
            macros.pop(rest.split()[0], None)
    body = "\n".join(out)
    for name, value in macros.items():
        if value == "":
            body = re.sub(rf"\b{name}\b", "", body)
    return body


def header_macros(text: str) -> dict[str, str]:
    """The object-like #define lines of a header, name to body."""
    found = {}
    for line in _logical_lines(text):
        m = re.match(r"\s*#\s*define\s+(\w+)(?!\()\s+(.*?)\s*(?:/\*.*)?$", line)
        if m:
            found[m.group(1)] = m.group(2)
    return found


class Native:
    """The loaded library, libc and the declarations, made once per process."""

    def __init__(self) -> None:
        text = header_path().read_text()
        self.header_text = text
        self.version = header_macros(text).get("QBIMAGE_VERSION", '""').strip('"')
        self.ffi = cffi.FFI()
        self.ffi.cdef(JPEGLIB_CDEF)
        self.ffi.cdef(header_declarations(text))
        self.ffi.cdef(LIBC_CDEF)
        self.library_path, self.lib = self._open_library()
        self.libc = self.ffi.dlopen(None)
        self._log_callback = self.ffi.callback(LOG_CALLBACK_TYPE, self._on_log)
        self.log_fn = self.ffi.cast("image_log_fn", self._log_callback)
        if self.ffi.sizeof("image_metadata") != 1412:
            raise ImportError("image_metadata is not 1412 bytes as declared: header not parsed right")

    def _open_library(self) -> tuple[str, Any]:
        env = os.environ.get("QBIMAGE_LIBRARY")
        if env:
            try:
                return env, self.ffi.dlopen(env)
            except OSError as exc:
                raise OSError(f"QBIMAGE_LIBRARY={env}: cannot be loaded: {exc}") from exc
        beside = Path(__file__).resolve().parent / "libqbimage.so.1"
        if beside.is_file():
            return str(beside), self.ffi.dlopen(str(beside))
        try:
            return "libqbimage.so.1", self.ffi.dlopen("libqbimage.so.1")
        except OSError as exc:
            raise OSError(
                "libqbimage.so.1 not found: set QBIMAGE_LIBRARY to its path, put it beside "
                f"the qbimage package ({beside.parent}) or install it where the loader looks"
            ) from exc

    # -- the library's log lines ------------------------------------------

    def _on_log(self, level, user, code, file, line, fmt, *slots):
        try:
            lines = self.ffi.from_handle(user)
            lines.append((int(code), self.ffi.string(file).decode(errors="replace"),
                          int(line), self._render(fmt, slots)))
        except Exception:  # a log line must never disturb the call
            pass

    def _render(self, fmt, slots) -> str:
        text = self.ffi.string(fmt).decode(errors="replace")
        parts = re.split(r"(%[-+ #0]*\d*(?:\.\d+)?[hlzjt]*[sdiuxc%])", text)
        out, i = [], 0
        for part in parts:
            if not part.startswith("%") or len(part) < 2:
                out.append(part)
            elif part == "%%":
                out.append("%")
            elif i >= len(slots):
                out.append(part)
            else:
                value = slots[i]
                i += 1
                if part.endswith("s"):
                    ptr = self.ffi.cast("char *", value)
                    out.append("(null)" if ptr == self.ffi.NULL
                               else self.ffi.string(ptr).decode(errors="replace"))
                else:
                    v = value & 0xFFFFFFFF
                    out.append(str(v - (1 << 32) if v >= 1 << 31 else v))
        return "".join(out)

    def new_ctx(self) -> tuple[Any, list, Any]:
        """An image_ctx whose error level collects lines into the returned list."""
        lines: list = []
        handle = self.ffi.new_handle(lines)
        ctx = self.ffi.new("image_ctx *")
        ctx.user = handle
        ctx.log = self.log_fn
        ctx.level_error = 1
        ctx.level_warn, ctx.level_info, ctx.level_debug = 1, 2, 3
        return ctx, lines, handle


_native: Native | None = None
_lock = threading.Lock()


def native() -> Native:
    """The process's Native, loaded at first use."""
    global _native
    if _native is None:
        with _lock:
            if _native is None:
                _native = Native()
    return _native
