"""python3 -m qbimage batch SRC DST: thumbnails of a tree on a Dask cluster.

Prints and exits like ``qbimage batch``: failures as "qbimage batch:
failed: FILE: reason", then the summary line, on standard error; exit
status 0 when every file is done or skipped, 1 when one failed, 2 for a
wrong command line, 130 when interrupted.
"""

from __future__ import annotations

import argparse
import contextlib
import os
import re
import sys

EXIT_OK, EXIT_FAILED, EXIT_USAGE, EXIT_INTERRUPTED = 0, 1, 2, 130


def _report(message: str) -> None:
    sys.stderr.write(f"qbimage batch: {message}\n")


def _size(text: str) -> tuple[int, int]:
    m = re.fullmatch(r"(\d+)x(\d+)", text)
    if not m or int(m.group(1)) <= 0 or int(m.group(2)) <= 0:
        raise argparse.ArgumentTypeError(f"expected WxH with positive sides, got '{text}'")
    return int(m.group(1)), int(m.group(2))


def _quality(text: str) -> int:
    if not text.isdigit() or not 1 <= int(text) <= 100:
        raise argparse.ArgumentTypeError(f"expected 1 to 100, got '{text}'")
    return int(text)


def _colour(text: str) -> int:
    m = re.fullmatch(r"#?([0-9A-Fa-f]{6})", text)
    if not m:
        raise argparse.ArgumentTypeError(f"expected RRGGBB in hex, got '{text}'")
    return int(m.group(1), 16)


def _parser() -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(prog="python3 -m qbimage")
    commands = parser.add_subparsers(dest="command", required=True)
    batch = commands.add_parser(
        "batch", help="thumbnails of every JPEG, PNG and RAW file under SRC on a Dask cluster",
        description="Thumbnails of every JPEG, PNG and RAW file under SRC, mirrored under DST "
                    "with .jpg appended, made on a Dask cluster; up-to-date thumbnails are "
                    "skipped. Every worker must see SRC and DST under the same paths.")
    batch.add_argument("src", metavar="SRC", help="folder tree of photos")
    batch.add_argument("dst", metavar="DST", help="folder for the thumbnails (made if missing)")
    batch.add_argument("--scheduler", metavar="ADDRESS",
                       help="a running Dask scheduler, e.g. tcp://10.0.0.5:8786 (default: a "
                            "local cluster on this machine)")
    batch.add_argument("--workers", type=int, metavar="N",
                       help="worker processes of the local cluster (default: the processor "
                            "count); not used with --scheduler")
    batch.add_argument("--size", type=_size, default=(128, 128), metavar="WxH",
                       help="box of the thumbnails (default 128x128)")
    batch.add_argument("--quality", type=_quality, default=85, metavar="Q",
                       help="JPEG quality, 1 to 100 (default 85)")
    batch.add_argument("--background", type=_colour, default=0xFFFFFF, metavar="RRGGBB",
                       help="PNG only: colour under transparent pixels (default FFFFFF)")
    batch.add_argument("--batch-size", type=int, metavar="N",
                       help="files per task (default: about eight tasks per worker thread)")
    batch.add_argument("--quiet", action="store_true",
                       help="no progress and no summary; failures are still listed")
    return parser


def _batch(args: argparse.Namespace) -> int:
    from .cluster import thumbnail_tree

    if args.workers is not None and args.workers < 1:
        _report("--workers: expected a positive number")
        return EXIT_USAGE
    if args.batch_size is not None and args.batch_size < 1:
        _report("--batch-size: expected a positive number")
        return EXIT_USAGE
    if not os.path.isdir(args.src):
        _report(f"{args.src}: not a folder")
        return EXIT_FAILED
    try:
        os.makedirs(args.dst, exist_ok=True)
    except OSError as exc:
        _report(f"{args.dst}: cannot make the folder: {exc.strerror or exc}")
        return EXIT_FAILED

    client = None
    if args.scheduler:
        from dask.distributed import Client
        try:
            client = Client(args.scheduler, timeout="30s")
        except (OSError, TimeoutError) as exc:
            _report(f"{args.scheduler}: cannot reach the scheduler: {exc}")
            return EXIT_FAILED
    show = not args.quiet and sys.stderr.isatty()
    try:
        # Dask draws its bar on standard output; it goes with the other
        # messages, to standard error.
        with contextlib.redirect_stdout(sys.stderr):
            summary = thumbnail_tree(args.src, args.dst, args.size, client,
                                     quality=args.quality, background=args.background,
                                     workers=args.workers, batch_size=args.batch_size,
                                     progress=show)
    except KeyboardInterrupt:
        _report("interrupted: tasks already running finish; no partial thumbnail is left "
                "under its final name")
        return EXIT_INTERRUPTED
    finally:
        if client is not None:
            client.close()
    for path, reason in summary.failed:
        _report(f"failed: {path}: {reason}")
    if not args.quiet:
        _report(summary.line())
    return EXIT_OK if summary.ok else EXIT_FAILED


def main(argv: list[str] | None = None) -> int:
    args = _parser().parse_args(argv)
    if args.command == "batch":
        return _batch(args)
    return EXIT_USAGE


if __name__ == "__main__":
    sys.exit(main())
