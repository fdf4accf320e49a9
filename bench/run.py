"""The benchmark suite's driver; bench/run.sh is the command to run.

Generates its inputs (bench/gen_inputs.cpp), then times whole processes of
the library's command-line tool against their peers on the same files. The
commands of one comparison take turns within each round (the order turning
round by round), so a change in the machine's load falls on all of them
alike; each comparison quotes medians and the median of the per-round ratios
to its reference (the floor where there is one). Peak memory is what
/usr/bin/time -v reports as the maximum resident set size, from one more run
of each command. Tools that are not installed are skipped with a note.

Writes OUT/results.json, OUT/results.md (the table) and OUT/chart.svg.
"""

import argparse
import datetime
import hashlib
import json
import os
import platform
import re
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))

# ---------------------------------------------------------------------------
# Inputs

FULL_INPUTS = {
    "24mp": ("photo", 6000, 4000, ["--seed", "1"]),
    "12mp": ("photo", 4000, 3000, ["--seed", "2"]),
    "24mp_progressive": ("photo", 6000, 4000, ["--seed", "1", "--progressive"]),
    "12mp_png": ("png", 4000, 3000, ["--seed", "3"]),
    "tiny": ("photo", 64, 48, ["--seed", "4"]),
}
FULL_TREE = (200, 1.0)

QUICK_INPUTS = {
    "24mp": ("photo", 480, 320, ["--seed", "1"]),
    "12mp": ("photo", 400, 300, ["--seed", "2"]),
    "24mp_progressive": ("photo", 480, 320, ["--seed", "1", "--progressive"]),
    "12mp_png": ("png", 400, 300, ["--seed", "3"]),
    "tiny": ("photo", 64, 48, ["--seed", "4"]),
}
QUICK_TREE = (6, 0.08)

EXT = {"photo": ".jpg", "png": ".png"}


def note(msg):
    print("note: " + msg, flush=True)


def make_inputs(gen, folder, quick):
    """Writes the inputs once; a stamp of the generator's source and the
    arguments tells when they must be made again."""
    os.makedirs(folder, exist_ok=True)
    inputs = QUICK_INPUTS if quick else FULL_INPUTS
    tree_count, tree_scale = QUICK_TREE if quick else FULL_TREE
    with open(os.path.join(HERE, "gen_inputs.cpp"), "rb") as f:
        source_hash = hashlib.sha256(f.read()).hexdigest()
    wanted = json.dumps({"source": source_hash, "inputs": inputs,
                         "tree": [tree_count, tree_scale]}, sort_keys=True)
    stamp = os.path.join(folder, "stamp.json")
    paths = {name: os.path.join(folder, name + EXT[kind])
             for name, (kind, _, _, _) in inputs.items()}
    tree = os.path.join(folder, "tree")
    listing = os.path.join(folder, "tree.txt")
    fresh = (os.path.exists(stamp) and open(stamp).read() == wanted
             and all(os.path.exists(p) for p in paths.values())
             and os.path.exists(listing))
    if not fresh:
        print("generating inputs in %s ..." % folder, flush=True)
        started = time.monotonic()
        for name, (kind, w, h, extra) in inputs.items():
            subprocess.run([gen, kind, str(w), str(h), paths[name]] + extra, check=True)
        shutil.rmtree(tree, ignore_errors=True)
        files = subprocess.run([gen, "tree", tree, str(tree_count), "--seed", "7",
                                "--scale", str(tree_scale)],
                               check=True, capture_output=True, text=True).stdout.split()
        with open(listing, "w") as f:
            f.write("\n".join(files) + "\n")
        with open(stamp, "w") as f:
            f.write(wanted)
        print("  done in %.1f s" % (time.monotonic() - started), flush=True)
    with open(listing) as f:
        files = f.read().split()
    return paths, tree, files


def describe_inputs(paths, files):
    out = {}
    for name, p in paths.items():
        size = os.path.getsize(p)
        dims = None
        if p.endswith(".jpg"):
            dims = jpeg_size(p)
        elif p.endswith(".png"):
            with open(p, "rb") as f:
                head = f.read(24)
            dims = (int.from_bytes(head[16:20], "big"), int.from_bytes(head[20:24], "big"))
        entry = {"bytes": size, "path": os.path.basename(p)}
        if dims:
            entry["width"], entry["height"] = dims
            entry["bits_per_pixel"] = round(size * 8 / (dims[0] * dims[1]), 2)
        out[name] = entry
    out["tree"] = {"files": len(files),
                   "jpeg": sum(f.endswith(".jpg") for f in files),
                   "png": sum(f.endswith(".png") for f in files),
                   "bytes": sum(os.path.getsize(f) for f in files)}
    return out


def jpeg_size(path):
    with open(path, "rb") as f:
        data = f.read(200000)
    i = 2
    while i + 9 < len(data):
        if data[i] != 0xFF:
            return None
        marker = data[i + 1]
        length = int.from_bytes(data[i + 2:i + 4], "big")
        if 0xC0 <= marker <= 0xCF and marker not in (0xC4, 0xC8, 0xCC):
            return (int.from_bytes(data[i + 7:i + 9], "big"),
                    int.from_bytes(data[i + 5:i + 7], "big"))
        i += 2 + length
    return None


# ---------------------------------------------------------------------------
# Tools


def find_tools(build):
    t = {}
    own = {
        "qbimage": os.path.join(build, "cli", "qbimage"),
        "gen": os.path.join(build, "bench", "qbbench-gen"),
        "inproc": os.path.join(build, "bench", "qbbench-inproc"),
        "resample_bench": os.path.join(build, "bench", "resample_bench"),
    }
    for k, p in own.items():
        t[k] = p if os.access(p, os.X_OK) else None
    for k in ("djpeg", "jpegtran", "gm", "vipsthumbnail", "exif", "exiv2", "exiftool",
              "parallel"):
        t[k] = shutil.which(k)
    # ImageMagick: its own program, never a stand-in script named convert
    # earlier on the PATH.
    t["convert"] = None
    for cand in ("magick", "convert-im6.q16", "/usr/bin/convert"):
        p = shutil.which(cand)
        if p:
            t["convert"] = p
            break
    t["time"] = "/usr/bin/time" if os.access("/usr/bin/time", os.X_OK) else None
    return t


def versions(t):
    def first_line(argv):
        try:
            r = subprocess.run(argv, capture_output=True, text=True, timeout=20,
                               stdin=subprocess.DEVNULL)
            text = (r.stdout or r.stderr).strip().splitlines()
            return text[0].strip() if text else None
        except (OSError, subprocess.TimeoutExpired):
            return None
    v = {}
    if t["qbimage"]:
        v["qbimage"] = first_line([t["qbimage"], "--version"])
    if t["djpeg"]:
        r = subprocess.run([t["djpeg"], "-version"], capture_output=True, text=True,
                           stdin=subprocess.DEVNULL)
        v["djpeg"] = (r.stderr or r.stdout).strip().splitlines()[0] if (r.stderr or r.stdout) else None
    if t["gm"]:
        v["gm"] = first_line([t["gm"], "version"])
    if t["vipsthumbnail"]:
        v["vipsthumbnail"] = first_line([t["vipsthumbnail"], "--vips-version"])
    if t["convert"]:
        v["convert"] = first_line([t["convert"], "-version"])
    if t["exif"]:
        v["exif"] = first_line([t["exif"], "--version"])
    if t["exiv2"]:
        v["exiv2"] = first_line([t["exiv2"], "--version"])
    if t["exiftool"]:
        v["exiftool"] = first_line([t["exiftool"], "-ver"])
    if t["parallel"]:
        v["parallel"] = first_line([t["parallel"], "--version"])
    return v


# ---------------------------------------------------------------------------
# Running and timing


class Entry:
    """One contender of a comparison: one command line, or a sequence of
    them timed as a whole. `prepare` runs before every run, untimed."""

    def __init__(self, name, commands, role="peer", prepare=None, outputs=(), count=None):
        self.name = name
        self.commands = commands if isinstance(commands[0], list) else [commands]
        self.role = role  # "floor", "reference", "ours" or "peer"
        self.prepare = prepare
        self.outputs = list(outputs)
        self.count = count  # thumbnails made per run, for a rate
        self.wall = []
        self.cpu = []
        self.peak_kib = None
        self.error = None


def spawn_wait(argv, stderr_path, env=None):
    """Runs one process; returns (wall s, cpu s, max rss KiB, exit status)."""
    with open(os.devnull, "rb") as devnull_in, open(os.devnull, "wb") as devnull_out, \
            open(stderr_path, "ab") as err:
        start = time.perf_counter()
        pid = os.posix_spawn(argv[0], argv, env if env is not None else os.environ,
                             file_actions=[
                                 (os.POSIX_SPAWN_DUP2, devnull_in.fileno(), 0),
                                 (os.POSIX_SPAWN_DUP2, devnull_out.fileno(), 1),
                                 (os.POSIX_SPAWN_DUP2, err.fileno(), 2)])
        _, status, usage = os.wait4(pid, 0)
        wall = time.perf_counter() - start
    return wall, usage.ru_utime + usage.ru_stime, usage.ru_maxrss, os.waitstatus_to_exitcode(status)


def run_entry(entry, work):
    """One timed run of an entry; False (and entry.error set) if it failed."""
    if entry.prepare:
        entry.prepare()
    wall = cpu = 0.0
    errfile = os.path.join(work, "stderr.txt")
    open(errfile, "wb").close()
    for argv in entry.commands:
        w, c, _, code = spawn_wait(argv, errfile)
        wall += w
        cpu += c
        if code != 0:
            with open(errfile, "rb") as f:
                text = f.read().decode("utf-8", "replace").strip()
            entry.error = "exit %d from %s%s" % (code, " ".join(argv[:3]),
                                                 (": " + text[-300:]) if text else "")
            return False
    for out in entry.outputs:
        if not os.path.exists(out) or (os.path.isfile(out) and os.path.getsize(out) == 0):
            entry.error = "%s was not written" % out
            return False
    entry.wall.append(wall)
    entry.cpu.append(cpu)
    return True


def measure_peak(entry, timer, work):
    """Peak memory by /usr/bin/time -v: the largest resident set of any
    command of the entry. (Not from this process's own wait4: a child
    spawned from Python starts with Python's peak, which survives exec.)"""
    if entry.error or not timer:
        return
    peak = 0
    report = os.path.join(work, "time-v.txt")
    if entry.prepare:
        entry.prepare()
    for argv in entry.commands:
        _, _, _, code = spawn_wait([timer, "-v", "-o", report] + argv,
                                  os.path.join(work, "stderr.txt"))
        with open(report) as f:
            m = re.search(r"Maximum resident set size \(kbytes\): (\d+)", f.read())
        rss = int(m.group(1)) if m else None
        if code != 0 or rss is None:
            return
        peak = max(peak, rss)
    entry.peak_kib = peak


def run_group(group, runs, warmup, work, timer):
    entries = [e for e in group["entries"]]
    print("\n== %s" % group["title"], flush=True)
    if warmup:
        for e in entries:
            run_entry(e, work)
            e.wall.clear()
            e.cpu.clear()
    for r in range(runs):
        # Turn the order round by round: every entry runs first as often
        # as the others.
        k = r % len(entries)
        order = entries[k:] + entries[:k]
        for e in order:
            if e.error is None:
                run_entry(e, work)
    for e in entries:
        measure_peak(e, timer, work)
    summarise(group)
    print_group(group)


def summarise(group):
    ref = next((e for e in group["entries"] if e.role in ("floor", "reference") and e.wall),
               None)
    group["reference"] = ref.name if ref else None
    rows = []
    for e in group["entries"]:
        row = {"name": e.name, "role": e.role, "runs": len(e.wall), "error": e.error,
               "peak_kib": e.peak_kib}
        if e.wall:
            row["median_ms"] = statistics.median(e.wall) * 1e3
            row["cpu_median_ms"] = statistics.median(e.cpu) * 1e3
            row["wall_ms"] = [round(x * 1e3, 3) for x in e.wall]
            if e.count:
                row["per_second"] = e.count / statistics.median(e.wall)
            if ref is not None:
                n = min(len(e.wall), len(ref.wall))
                # Paired: each round's time over the reference's in the same round.
                row["ratio"] = statistics.median(e.wall[i] / ref.wall[i] for i in range(n))
                row["cpu_ratio"] = statistics.median(e.cpu[i] / ref.cpu[i] for i in range(n))
                if ref.peak_kib and e.peak_kib:
                    row["peak_over_ref_kib"] = e.peak_kib - ref.peak_kib
        rows.append(row)
    group["rows"] = rows


def print_group(group):
    for row in group["rows"]:
        if row.get("error"):
            print("  %-50s FAILED: %s" % (row["name"], row["error"]), flush=True)
            continue
        if "median_ms" not in row:
            print("  %-50s skipped" % row["name"])
            continue
        ratio = ("%6.3fx" % row["ratio"]) if "ratio" in row else "       "
        cpu_ratio = ("%6.3fx" % row["cpu_ratio"]) if "cpu_ratio" in row else "       "
        rate = ("  %.1f/s" % row["per_second"]) if "per_second" in row else ""
        peak = ("  peak %6.1f MiB" % (row["peak_kib"] / 1024)) if row.get("peak_kib") else ""
        print("  %-50s %9.2f ms %s  cpu %9.2f ms %s%s%s" % (
            row["name"][:50], row["median_ms"], ratio, row["cpu_median_ms"], cpu_ratio, peak,
            rate), flush=True)
    for s in group.get("skipped", []):
        print("  (skipped: %s)" % s)


# ---------------------------------------------------------------------------
# The comparisons


def size_words(path):
    """'6000x4000 (24 MP)' for a JPEG or PNG."""
    if path.endswith(".png"):
        with open(path, "rb") as f:
            head = f.read(24)
        dims = (int.from_bytes(head[16:20], "big"), int.from_bytes(head[20:24], "big"))
    else:
        dims = jpeg_size(path)
    if not dims:
        return os.path.basename(path)
    mp = dims[0] * dims[1] / 1e6
    return "%dx%d (%s MP)" % (dims[0], dims[1], ("%.0f" % mp) if mp >= 1 else ("%.2f" % mp))


def groups_for(t, paths, tree, files, work, quick):
    out = os.path.join(work, "out")
    os.makedirs(out, exist_ok=True)
    groups = []

    def o(name):
        return os.path.join(out, name)

    def need(group, tool, what):
        if t.get(tool):
            return True
        group.setdefault("skipped", []).append("%s (%s is not installed)" % (what, tool))
        return False

    def thumb_group(key, title, src):
        g = {"key": key, "title": title, "entries": []}
        if need(g, "djpeg", "djpeg -scale 1/8, the floor"):
            g["entries"].append(Entry("djpeg -scale 1/8 (floor)",
                                      [t["djpeg"], "-scale", "1/8", "-outfile", os.devnull, src],
                                      role="floor"))
        if need(g, "qbimage", "qbimage thumb"):
            g["entries"].append(Entry("qbimage thumb", [t["qbimage"], "thumb", src, o(key + "-qb.jpg"),
                                                        "--size", "128x128"],
                                      role="ours", outputs=[o(key + "-qb.jpg")]))
        if need(g, "gm", "GraphicsMagick"):
            g["entries"].append(Entry("gm convert -size 256x256 -thumbnail 128x128",
                                      [t["gm"], "convert", "-size", "256x256", src, "-thumbnail",
                                       "128x128", o(key + "-gm.jpg")]))
        if need(g, "vipsthumbnail", "vipsthumbnail"):
            g["entries"].append(Entry("vipsthumbnail -s 128",
                                      [t["vipsthumbnail"], "-s", "128", "-o", o(key + "-vips.jpg"),
                                       src]))
            g["entries"].append(Entry("vipsthumbnail --linear -s 128",
                                      [t["vipsthumbnail"], "--linear", "-s", "128", "-o",
                                       o(key + "-vipslin.jpg"), src]))
        if need(g, "convert", "ImageMagick"):
            g["entries"].append(Entry("convert -define jpeg:size=256x256 -thumbnail 128x128",
                                      [t["convert"], "-define", "jpeg:size=256x256", src,
                                       "-thumbnail", "128x128", o(key + "-im.jpg")]))
        return g

    groups.append(thumb_group("thumb_24mp", "Thumbnail 128x128 of the %s baseline JPEG"
                              % size_words(paths["24mp"]), paths["24mp"]))
    groups.append(thumb_group("thumb_12mp", "Thumbnail 128x128 of the %s baseline JPEG"
                              % size_words(paths["12mp"]), paths["12mp"]))
    groups.append(thumb_group("thumb_progressive", "Thumbnail 128x128 of the %s progressive JPEG"
                              % size_words(paths["24mp_progressive"]),
                              paths["24mp_progressive"]))
    if not quick:
        # Fixed costs of a process: a 64x48 photo, where decoding is nothing.
        g = {"key": "startup", "title": "Fixed cost of one process: thumbnail of a 64x48 JPEG",
             "entries": []}
        if need(g, "djpeg", "djpeg"):
            g["entries"].append(Entry("djpeg -scale 1/8 (floor)",
                                      [t["djpeg"], "-scale", "1/8", "-outfile", os.devnull,
                                       paths["tiny"]], role="floor"))
        if need(g, "qbimage", "qbimage"):
            g["entries"].append(Entry("qbimage thumb", [t["qbimage"], "thumb", paths["tiny"],
                                                        o("tiny-qb.jpg")], role="ours"))
            g["entries"].append(Entry("qbimage --version", [t["qbimage"], "--version"],
                                      role="peer"))
        groups.append(g)

    # Three sizes of one photo.
    src = paths["24mp"]
    sizes = (128, 320, 1280)
    g = {"key": "three_sizes", "title": "Three sizes (128, 320, 1280) of the %s JPEG"
         % size_words(src),
         "entries": []}
    if need(g, "djpeg", "djpeg floor"):
        # A tool that shares one decode per DCT scale needs at least the 1/8
        # decode (128 and 320) and the 1/4 decode (1280 from 6000).
        g["entries"].append(Entry("djpeg -scale 1/8 + djpeg -scale 1/4 (floor)",
                                  [[t["djpeg"], "-scale", "1/8", "-outfile", os.devnull, src],
                                   [t["djpeg"], "-scale", "1/4", "-outfile", os.devnull, src]],
                                  role="floor"))
    if need(g, "qbimage", "qbimage scale"):
        g["entries"].append(Entry("qbimage scale (one run, three sizes)",
                                  [t["qbimage"], "scale", src, "--mode", "fit-box"]
                                  + ["%dx%d:%s" % (s, s, o("s%d-qb.jpg" % s)) for s in sizes],
                                  role="ours", outputs=[o("s%d-qb.jpg" % s) for s in sizes]))
    if need(g, "gm", "GraphicsMagick"):
        g["entries"].append(Entry("gm convert x3",
                                  [[t["gm"], "convert", "-size", "%dx%d" % (2 * s, 2 * s), src,
                                    "-thumbnail", "%dx%d" % (s, s), o("s%d-gm.jpg" % s)]
                                   for s in sizes]))
    if need(g, "vipsthumbnail", "vipsthumbnail"):
        g["entries"].append(Entry("vipsthumbnail x3",
                                  [[t["vipsthumbnail"], "-s", str(s), "-o", o("s%d-vips.jpg" % s),
                                    src] for s in sizes]))
        g["entries"].append(Entry("vipsthumbnail --linear x3",
                                  [[t["vipsthumbnail"], "--linear", "-s", str(s), "-o",
                                    o("s%d-vipslin.jpg" % s), src] for s in sizes]))
    if need(g, "convert", "ImageMagick"):
        g["entries"].append(Entry("convert x3",
                                  [[t["convert"], "-define", "jpeg:size=%dx%d" % (2 * s, 2 * s),
                                    src, "-thumbnail", "%dx%d" % (s, s), o("s%d-im.jpg" % s)]
                                   for s in sizes]))
    groups.append(g)

    # PNG.
    src = paths["12mp_png"]
    g = {"key": "thumb_png", "title": "Thumbnail 128x128 of the %s PNG" % size_words(src),
         "entries": []}
    if need(g, "gen", "PNG decode floor"):
        g["entries"].append(Entry("libpng full decode (floor)", [t["gen"], "decode-png", src],
                                  role="floor"))
    if need(g, "qbimage", "qbimage thumb"):
        g["entries"].append(Entry("qbimage thumb", [t["qbimage"], "thumb", src, o("png-qb.jpg")],
                                  role="ours", outputs=[o("png-qb.jpg")]))
    if need(g, "vipsthumbnail", "vipsthumbnail"):
        g["entries"].append(Entry("vipsthumbnail -s 128",
                                  [t["vipsthumbnail"], "-s", "128", "-o", o("png-vips.jpg"), src]))
    if need(g, "convert", "ImageMagick"):
        g["entries"].append(Entry("convert -thumbnail 128x128",
                                  [t["convert"], src, "-thumbnail", "128x128", o("png-im.jpg")]))
    if need(g, "gm", "GraphicsMagick"):
        g["entries"].append(Entry("gm convert -thumbnail 128x128",
                                  [t["gm"], "convert", src, "-thumbnail", "128x128",
                                   o("png-gm.jpg")]))
    groups.append(g)

    # Lossless quarter turn.
    src = paths["24mp"]
    g = {"key": "turn", "title": "Lossless 90-degree turn of the %s JPEG" % size_words(src),
         "entries": []}
    if need(g, "jpegtran", "jpegtran"):
        g["entries"].append(Entry("jpegtran -rotate 90 -perfect",
                                  [t["jpegtran"], "-rotate", "90", "-perfect", "-outfile",
                                   o("turn-jpegtran.jpg"), src], role="reference",
                                  outputs=[o("turn-jpegtran.jpg")]))
    if need(g, "qbimage", "qbimage transform"):
        g["entries"].append(Entry("qbimage transform --xform rot90",
                                  [t["qbimage"], "transform", src, o("turn-qb.jpg"),
                                   "--xform", "rot90"], role="ours", outputs=[o("turn-qb.jpg")]))
    groups.append(g)

    # Metadata.
    src = paths["24mp"]
    g = {"key": "metadata", "title": "Metadata of a JPEG with a full Exif block", "entries": []}
    if need(g, "exif", "exif -m"):
        g["entries"].append(Entry("exif -m", [t["exif"], "-m", src], role="reference"))
    if need(g, "qbimage", "qbimage meta"):
        g["entries"].append(Entry("qbimage meta --json", [t["qbimage"], "meta", "--json", src],
                                  role="ours"))
    if need(g, "exiv2", "exiv2"):
        g["entries"].append(Entry("exiv2 -pa", [t["exiv2"], "-pa", src]))
    if need(g, "exiftool", "exiftool"):
        g["entries"].append(Entry("exiftool -j", [t["exiftool"], "-j", src]))
    groups.append(g)

    # Metadata of every JPEG of the tree, one process each: the cost per
    # file without the start of a process.
    jpegs = [f for f in files if f.endswith(".jpg")]
    g = {"key": "metadata_tree",
         "title": "Metadata of the tree's %d JPEGs, one process for all" % len(jpegs),
         "entries": []}
    if need(g, "exif", "exif -m"):
        g["entries"].append(Entry("exif -m (all files)", [t["exif"], "-m"] + jpegs,
                                  role="reference", count=len(jpegs)))
    if need(g, "qbimage", "qbimage meta"):
        g["entries"].append(Entry("qbimage meta --json (all files)",
                                  [t["qbimage"], "meta", "--json"] + jpegs, role="ours",
                                  count=len(jpegs)))
    if need(g, "exiv2", "exiv2"):
        g["entries"].append(Entry("exiv2 -pa (all files)", [t["exiv2"], "-pa"] + jpegs,
                                  count=len(jpegs)))
    if need(g, "exiftool", "exiftool"):
        g["entries"].append(Entry("exiftool -j (all files)", [t["exiftool"], "-j"] + jpegs,
                                  count=len(jpegs)))
    groups.append(g)

    # Batch over the tree, 2 jobs.
    g = {"key": "batch", "title": "Batch: thumbnails of %d mixed files on 2 jobs" % len(files),
         "entries": []}

    def clean(d):
        def do():
            shutil.rmtree(d, ignore_errors=True)
            os.makedirs(d)
        return do

    if need(g, "qbimage", "qbimage batch"):
        d = o("batch-qb")
        g["entries"].append(Entry("qbimage batch --jobs 2",
                                  [t["qbimage"], "batch", tree, d, "--jobs", "2", "--quiet"],
                                  role="reference", prepare=clean(d), count=len(files)))
    if need(g, "vipsthumbnail", "vipsthumbnail"):
        d = o("batch-vips")
        g["entries"].append(Entry("vipsthumbnail -s 128 (one process, all files)",
                                  [t["vipsthumbnail"], "-s", "128", "-o",
                                   os.path.join(d, "%s.jpg")] + files,
                                  prepare=clean(d), count=len(files)))
    if need(g, "parallel", "GNU parallel") and need(g, "gm", "GraphicsMagick"):
        d = o("batch-gm")
        listing = os.path.join(work, "tree-files.txt")
        with open(listing, "w") as f:
            f.write("\n".join(files) + "\n")
        g["entries"].append(Entry("parallel -j2 gm convert -size 256x256 -thumbnail 128x128",
                                  [t["parallel"], "--will-cite", "-j2", "-a", listing, t["gm"],
                                   "convert", "-size", "256x256", "{}", "-thumbnail", "128x128",
                                   os.path.join(d, "{/.}.jpg")],
                                  prepare=clean(d), count=len(files)))
    groups.append(g)
    return groups


def check_turn(t, work):
    """The two turned files must hold the same coefficients, hence decode to
    the same pixels."""
    a = os.path.join(work, "out", "turn-qb.jpg")
    b = os.path.join(work, "out", "turn-jpegtran.jpg")
    if not (t["djpeg"] and os.path.exists(a) and os.path.exists(b)):
        return None
    pa = subprocess.run([t["djpeg"], "-ppm", a], capture_output=True).stdout
    pb = subprocess.run([t["djpeg"], "-ppm", b], capture_output=True).stdout
    return pa == pb and len(pa) > 0


def run_inprocess(t, src, runs, work, quick):
    if not t["inproc"]:
        return {"key": "thumb_24mp_inprocess", "skipped": ["qbbench-inproc is not built"],
                "rows": [], "title": "In one process"}
    n = runs if quick else max(runs * 3, 15)
    print("\n== Thumbnail 128x128 of the %s JPEG in one process (%d calls each)"
          % (size_words(src), n), flush=True)
    r = subprocess.run([t["inproc"], "thumb", src, os.path.join(work, "out", "inproc.jpg"),
                        str(n)], capture_output=True, text=True)
    if r.returncode != 0:
        return {"key": "thumb_24mp_inprocess", "title": "In one process", "rows": [],
                "error": r.stderr.strip()}
    d = json.loads(r.stdout)
    f, q = d["floor_ms"], d["ours_ms"]
    fc, qc = d["floor_cpu_ms"], d["ours_cpu_ms"]
    n = min(len(f), len(q))
    rows = [{"name": "libjpeg 1/8 decode (floor)", "role": "floor",
             "median_ms": statistics.median(f), "cpu_median_ms": statistics.median(fc),
             "ratio": 1.0, "cpu_ratio": 1.0, "runs": len(f)},
            {"name": "easy_image_create_thumb", "role": "ours",
             "median_ms": statistics.median(q), "cpu_median_ms": statistics.median(qc),
             "ratio": statistics.median(q[i] / f[i] for i in range(n)),
             "cpu_ratio": statistics.median(qc[i] / fc[i] for i in range(n)), "runs": len(q)}]
    # Peak memory of one call of each in a fresh process (median of three).
    for row, which in zip(rows, ("floor", "ours")):
        peaks = []
        for _ in range(3):
            p = subprocess.run([t["inproc"], "peak", which, src,
                                os.path.join(work, "out", "inproc.jpg")],
                               capture_output=True, text=True)
            if p.returncode == 0:
                peaks.append(int(p.stdout.strip()))
        if peaks:
            row["peak_kib"] = statistics.median(peaks)
    if rows[0].get("peak_kib") and rows[1].get("peak_kib"):
        rows[1]["peak_over_ref_kib"] = rows[1]["peak_kib"] - rows[0]["peak_kib"]
    g = {"key": "thumb_24mp_inprocess",
         "title": "Thumbnail 128x128 of the %s JPEG in one process" % size_words(src),
         "reference": rows[0]["name"], "rows": rows}
    print_group(g)
    return g


def run_micro(t, out, quick):
    if not t["resample_bench"]:
        note("resample_bench is not built (Google Benchmark missing): no micro-benchmarks")
        return None
    print("\n== Resampler micro-benchmarks (Google Benchmark)", flush=True)
    path = os.path.join(out, "resample.json")
    argv = [t["resample_bench"], "--benchmark_out=" + path, "--benchmark_out_format=json"]
    if quick:
        argv += ["--benchmark_filter=enlarge/adobe:0", "--benchmark_min_time=0.01"]
    else:
        argv += ["--benchmark_min_time=0.5", "--benchmark_repetitions=3",
                 "--benchmark_report_aggregates_only=true"]
    r = subprocess.run(argv, capture_output=True, text=True)
    if r.returncode != 0:
        raise RuntimeError("resample_bench failed: " + r.stderr[-500:])
    with open(path) as f:
        data = json.load(f)
    rows = []
    for b in data["benchmarks"]:
        if b.get("run_type") == "aggregate" and b.get("aggregate_name") != "median":
            continue
        name = b.get("run_name", b["name"]).replace("/real_time", "")
        rows.append({"name": name, "ms": b["real_time"], "mpx_per_s": b.get("Mpx/s"),
                     "same_as_double": b.get("same_as_double")})
        print("  %-58s %8.2f ms %8.1f Mpx/s  same as double %.4f" % (
            name, b["real_time"], b.get("Mpx/s", 0), b.get("same_as_double", 0)), flush=True)
    return rows


# ---------------------------------------------------------------------------
# Reports


def markdown(results):
    lines = []
    for g in results["groups"]:
        if not g.get("rows"):
            continue
        ref = g.get("reference")
        lines.append("**%s** (ratio: paired, to %s)\n" % (g["title"], ref or "nothing"))
        has_rate = any("per_second" in r for r in g["rows"])
        has_peak = any(r.get("peak_kib") for r in g["rows"])
        head = "| Command | Median ms | Ratio | CPU ms | CPU ratio |"
        rule = "|---|---:|---:|---:|---:|"
        if has_peak:
            head += " Peak MiB |"
            rule += "---:|"
        if has_rate:
            head += " Files/s |"
            rule += "---:|"
        lines += [head, rule]
        for r in g["rows"]:
            if "median_ms" not in r:
                lines.append("| %s | %s | | | |%s%s" % (r["name"], "failed" if r.get("error")
                                                     else "skipped",
                                                     " |" if has_peak else "",
                                                     " |" if has_rate else ""))
                continue
            ours = r["role"] == "ours" or r["name"].startswith("qbimage")
            name = "**%s**" % r["name"] if ours else r["name"]
            cells = [name, "%.1f" % r["median_ms"],
                     "%.2f" % r["ratio"] if "ratio" in r else "",
                     "%.1f" % r["cpu_median_ms"] if "cpu_median_ms" in r else "",
                     "%.2f" % r["cpu_ratio"] if "cpu_ratio" in r else ""]
            if has_peak:
                cells.append("%.1f" % (r["peak_kib"] / 1024) if r.get("peak_kib") else "")
            if has_rate:
                cells.append("%.1f" % r["per_second"] if "per_second" in r else "")
            lines.append("| " + " | ".join(cells) + " |")
        for s in g.get("skipped", []):
            lines.append("\nSkipped: %s." % s)
        lines.append("")
    if results.get("micro"):
        lines.append("**Resampler forms** (Google Benchmark, median of 3 repetitions)\n")
        lines += ["| Form / case | ms | Mpx/s | Bytes equal to the double form |",
                  "|---|---:|---:|---:|"]
        for r in results["micro"]:
            lines.append("| %s | %.2f | %.1f | %.4f |" % (
                r["name"], r["ms"], r["mpx_per_s"] or 0, r["same_as_double"] or 0))
        lines.append("")
    return "\n".join(lines)


# Rows of the chart: comparison key and the words on its row.
def header(results):
    m = results["machine"]
    lines = ["Command: `%s`, %s, %d rounds; %s, %s cores; load average %s before, %s after." % (
        results["command"], results["date"], results["runs"], m["cpu"], m["cores"],
        "/".join("%.1f" % x for x in m["load_before"]),
        "/".join("%.1f" % x for x in m.get("load_after", m["load_before"])))]
    parts = []
    for name, i in results["inputs"].items():
        if name == "tree":
            parts.append("tree: %d files (%d JPEG, %d PNG), %.0f MB" % (
                i["files"], i["jpeg"], i["png"], i["bytes"] / 1e6))
        elif "width" in i:
            parts.append("%s: %dx%d, %.1f MB, %.2f bits/pixel" % (
                i["path"], i["width"], i["height"], i["bytes"] / 1e6, i["bits_per_pixel"]))
    lines.append("Inputs: " + "; ".join(parts) + ".")
    if results.get("versions"):
        words = []
        for k, v in results["versions"].items():
            if v:
                v = re.sub(r"\s*https?://\S+", "", v).replace("Version: ", "")
                words.append(v if k.lower() in v.lower() else "%s %s" % (k, v))
        lines.append("Tools: " + "; ".join(words) + ".")
    return "\n".join(lines) + "\n\n"


CHART_ROWS = [
    ("thumb_24mp", "24 MP JPEG to 128x128"),
    ("thumb_24mp_inprocess", "the same, in one process"),
    ("thumb_12mp", "12 MP JPEG to 128x128"),
    ("thumb_progressive", "24 MP progressive JPEG"),
    ("three_sizes", "24 MP JPEG to 128, 320, 1280"),
    ("thumb_png", "12 MP PNG to 128x128"),
    ("turn", "lossless turn of 24 MP JPEG"),
    ("metadata", "metadata of one JPEG"),
    ("metadata_tree", "metadata of the tree's JPEGs"),
    ("batch", "batch of the 200-file tree"),
]

# Tools by the start of their row's name: label, colour, marker.
CHART_TOOLS = [
    ("qbimage", "libqbimage", "#e8590c", "D"),
    ("easy_image", "libqbimage", "#e8590c", "D"),
    ("vipsthumbnail --linear", "vipsthumbnail --linear", "#7048e8", "^"),
    ("vipsthumbnail", "vipsthumbnail", "#1c7ed6", "v"),
    ("gm", "GraphicsMagick", "#2f9e44", "s"),
    ("parallel -j2 gm", "GraphicsMagick", "#2f9e44", "s"),
    ("convert", "ImageMagick", "#c2255c", "o"),
    ("exiv2", "exiv2", "#868e96", "P"),
    ("exiftool", "exiftool", "#495057", "X"),
]


def tool_of(name):
    best = None
    for prefix, label, colour, marker in CHART_TOOLS:
        if name.startswith(prefix) and (best is None or len(prefix) > len(best[0])):
            best = (prefix, label, colour, marker)
    return best[1:] if best else None


def chart(results, path):
    """One row per comparison, one mark per tool at its time over the
    row's reference (the floor where there is one), on a log scale."""
    try:
        import matplotlib
        matplotlib.use("Agg")
        import matplotlib.pyplot as plt
    except ImportError:
        note("matplotlib is not installed (Debian: python3-matplotlib): no chart")
        return False
    matplotlib.rcParams["svg.fonttype"] = "none"
    matplotlib.rcParams["svg.hashsalt"] = "qbimage-bench"
    by_key = {g.get("key"): g for g in results["groups"]}
    rows = []
    for key, words in CHART_ROWS:
        g = by_key.get(key)
        if not g or not any("ratio" in r for r in g.get("rows", [])):
            continue
        ref = g.get("reference") or ""
        ref = ref.replace(" (floor)", "")
        rows.append((g, "%s\n(1 = %s)" % (words, ref)))
    if not rows:
        return False
    fig, ax = plt.subplots(figsize=(9, 0.55 * len(rows) + 1.3))
    seen = set()
    values = []
    for y, (g, _) in enumerate(rows):
        for r in g["rows"]:
            if "ratio" not in r or (r["role"] in ("floor", "reference")
                                    and not r["name"].startswith("qbimage")):
                continue
            tool = tool_of(r["name"])
            if not tool:
                continue
            label, colour, marker = tool
            ours = label == "libqbimage"
            ax.scatter(r["ratio"], y, color=colour, marker=marker, s=70 if ours else 45,
                       zorder=3 if ours else 2, edgecolors="black" if ours else "none",
                       linewidths=0.6, label=None if label in seen else label)
            seen.add(label)
            values.append(r["ratio"])
            if ours:
                ax.annotate("%.2f" % r["ratio"], (r["ratio"], y), textcoords="offset points",
                            xytext=(0, 7), ha="center", fontsize=7, color=colour)
    ax.axvline(1.0, color="black", linewidth=0.8, zorder=1)
    ax.set_yticks(range(len(rows)))
    ax.set_yticklabels([w for _, w in rows], fontsize=7.5)
    ax.invert_yaxis()
    ax.set_xscale("log")
    lo = min(values + [1.0])
    hi = max(values + [1.0])
    ax.set_xlim(lo / 1.5, hi * 1.5)
    ax.grid(axis="y", color="#dee2e6", linewidth=0.6)
    ax.grid(axis="x", which="both", color="#f1f3f5", linewidth=0.5)
    ax.set_xlabel("time over the row's reference, median of paired runs "
                  "(log scale; left of 1 is faster than it)", fontsize=8)
    ax.tick_params(axis="x", labelsize=8)
    ax.legend(fontsize=7.5, loc="lower center", bbox_to_anchor=(0.45, 1.0), ncol=7,
              frameon=False, handletextpad=0.2, columnspacing=1.0)
    fig.tight_layout()
    fig.savefig(path, format="svg", metadata={"Date": None})
    plt.close(fig)
    return True


# ---------------------------------------------------------------------------


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("--build", help="build folder of the project")
    ap.add_argument("--out", help="folder for results (default BUILD/bench-results)")
    ap.add_argument("--inputs", help="folder for inputs (default BUILD/bench-inputs)")
    ap.add_argument("--runs", type=int, help="timed rounds per comparison (default 9)")
    ap.add_argument("--quick", action="store_true",
                    help="tiny inputs, 2 rounds: checks that the suite runs")
    ap.add_argument("--only", help="comma-separated comparison keys to run")
    ap.add_argument("--no-micro", action="store_true", help="leave out the micro-benchmarks")
    ap.add_argument("--render", metavar="RESULTS_JSON",
                    help="only write results.md and chart.svg again from a results.json")
    ap.add_argument("--command", default="bench/run.sh", help=argparse.SUPPRESS)
    a = ap.parse_args()

    if a.render:
        with open(a.render) as f:
            results = json.load(f)
        folder = os.path.dirname(os.path.abspath(a.render))
        with open(os.path.join(folder, "results.md"), "w") as f:
            f.write(header(results) + markdown(results))
        chart(results, os.path.join(folder, "chart.svg"))
        return

    if not a.build:
        ap.error("--build is required")
    build = os.path.abspath(a.build)
    out = os.path.abspath(a.out or os.path.join(build, "bench-results"))
    inputs = os.path.abspath(a.inputs or (os.path.join(out, "inputs") if a.quick
                                          else os.path.join(build, "bench-inputs")))
    runs = a.runs or (2 if a.quick else 9)
    only = set(a.only.split(",")) if a.only else None
    os.makedirs(out, exist_ok=True)

    t = find_tools(build)
    if not t["gen"]:
        sys.exit("qbbench-gen is not built in %s" % build)
    for k in ("qbimage", "djpeg", "jpegtran", "gm", "vipsthumbnail", "convert", "exif", "exiv2",
              "exiftool", "parallel", "time"):
        if not t[k]:
            note("%s is not installed: its rows are skipped (sh bench/install-peers.sh)" % k)

    paths, tree, files = make_inputs(t["gen"], inputs, a.quick)
    work = tempfile.mkdtemp(prefix="qbbench.")
    started = time.time()
    load_before = os.getloadavg()
    results = {
        "command": a.command + (" --quick" if a.quick else "")
        + (" --runs %d" % a.runs if a.runs else ""),
        "date": datetime.datetime.now().strftime("%Y-%m-%d %H:%M"),
        "machine": {"cpu": cpu_model(), "cores": os.cpu_count(), "kernel": platform.release(),
                    "load_before": [round(x, 2) for x in load_before]},
        "runs": runs,
        "inputs": describe_inputs(paths, files),
        "versions": versions(t),
        "groups": [],
    }
    failures = []
    try:
        for g in groups_for(t, paths, tree, files, work, a.quick):
            if only and g["key"] not in only:
                continue
            if g["entries"]:
                run_group(g, runs, not a.quick, work, t["time"])
            else:
                g["rows"] = []
                print_group(g)
            for e in g["entries"]:
                if e.error:
                    (failures if e.role == "ours" else []).append("%s: %s" % (e.name, e.error))
            del g["entries"]
            results["groups"].append(g)
            if g["key"] == "thumb_24mp":
                ip = run_inprocess(t, paths["24mp"], runs, work, a.quick)
                if ip.get("error"):
                    failures.append("in-process thumbnail: " + ip["error"])
                results["groups"].append(ip)
            if g["key"] == "turn":
                same = check_turn(t, work)
                g["same_pixels"] = same
                if same is False:
                    failures.append("the turned files decode to different pixels")
                elif same:
                    print("  turned files decode to identical pixels")
        if not a.no_micro and (not only or "micro" in only):
            results["micro"] = run_micro(t, out, a.quick)
    finally:
        shutil.rmtree(work, ignore_errors=True)

    results["machine"]["load_after"] = [round(x, 2) for x in os.getloadavg()]
    results["seconds"] = round(time.time() - started, 1)
    with open(os.path.join(out, "results.json"), "w") as f:
        json.dump(results, f, indent=1)
    md = header(results) + markdown(results)
    with open(os.path.join(out, "results.md"), "w") as f:
        f.write(md)
    drew = chart(results, os.path.join(out, "chart.svg"))
    print("\nresults: %s/results.md, results.json%s (%.0f s)" % (
        out, ", chart.svg" if drew else "", results["seconds"]))
    if failures:
        print("\nFAILED:\n  " + "\n  ".join(failures))
        sys.exit(1)


def cpu_model():
    try:
        with open("/proc/cpuinfo") as f:
            for line in f:
                if line.startswith("model name"):
                    return line.split(":", 1)[1].strip()
    except OSError:
        pass
    return platform.processor()


if __name__ == "__main__":
    main()
