// Opening the files a host names. Every input may come from a user: it may
// be a FIFO or a device that blocks on open, or a link to the very file the
// call is about to write. These helpers open inputs only when they are
// regular files, never block, and refuse an output that is one of the
// call's inputs before a byte of it changes.
#pragma once

#include <cstddef>
#include <cstdio>

// Opens `path` for reading if it is a regular file, else null (errno set).
// Never blocks, whatever the path names.
FILE *image_open_input(const char *path);

// True if `path` names a regular file (following links). Never blocks.
bool image_is_regular_file(const char *path);

// True if both paths exist and are one file (same device and inode,
// through any links).
bool image_same_file(const char *a, const char *b);

// Opens `path` for writing, truncated, unless it is the same file as one of
// the `count` open `inputs` (null entries are skipped): then null, with the
// file untouched. A FIFO without a reader fails instead of blocking.
FILE *image_open_output(const char *path, FILE *const *inputs, size_t count);
