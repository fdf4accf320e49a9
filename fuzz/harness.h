// Shared by the fuzz targets and by their replay in the test suite: a
// private directory for the files the library reads and writes, a silent
// host record, and a reader of parameter bytes.
//
// The library works on paths, so every input is written to a file first.
// Each process gets its own directory (mkdtemp, mode 0700) under $TMPDIR or
// /tmp, removed with whatever is left in it when the process exits.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>

#include <unistd.h>

#include "qbimage.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace qbfuzz {

inline char *private_dir_buffer()
{
    static char dir[2048];
    return dir;
}

inline void remove_private_dir()
{
    std::error_code ec;
    std::filesystem::remove_all(private_dir_buffer(), ec);
}

inline const char *private_dir()
{
    char *dir = private_dir_buffer();
    if (dir[0] == '\0') {
        const char *base = std::getenv("TMPDIR");
        if (!base || base[0] == '\0')
            base = "/tmp";
        std::snprintf(dir, 2048, "%s/qbfuzz.XXXXXX", base);
        if (!mkdtemp(dir)) {
            std::perror("qbfuzz: mkdtemp");
            std::abort();
        }
        std::atexit(remove_private_dir);
    }
    return dir;
}

// A path in the private directory.
struct Path {
    char text[2200];
};

inline Path path_of(const char *name)
{
    Path p;
    std::snprintf(p.text, sizeof p.text, "%s/%s", private_dir(), name);
    return p;
}

inline bool write_file(const Path &path, const uint8_t *data, size_t size)
{
    FILE *f = std::fopen(path.text, "wb");
    if (!f)
        return false;
    const bool ok = (size == 0 || std::fwrite(data, 1, size, f) == size);
    return std::fclose(f) == 0 && ok;
}

inline void remove_file(const Path &path) { unlink(path.text); }

// Formats every message (so that a format that does not match its
// arguments shows up under the sanitizers) and prints nothing.
inline void silent_log(int32_t, void *, int32_t, const char *file, int32_t,
                       const char *format, ...)
{
    char text[1024];
    va_list ap;
    va_start(ap, format);
    std::vsnprintf(text, sizeof text, format, ap);
    va_end(ap);
    (void)std::strlen(file);
}

inline image_ctx silent_ctx()
{
    return image_ctx{nullptr, nullptr, nullptr, silent_log, 0, 1, 2, 3};
}

// Parameters taken from the front of an input: a fixed number of bytes,
// zeros where the input is shorter, then the rest as the file.
struct Params {
    const uint8_t *bytes;
    size_t count;
    size_t pos = 0;

    uint8_t u8() { return pos < count ? bytes[pos++] : (pos++, 0); }
    uint16_t u16()
    {
        const uint16_t hi = u8();
        return uint16_t(hi << 8 | u8());
    }
    int16_t s16() { return int16_t(u16()); }
};

// The file part of an input after `header` parameter bytes.
inline const uint8_t *body(const uint8_t *data, size_t size, size_t header)
{
    return size > header ? data + header : data + size;
}
inline size_t body_size(size_t size, size_t header)
{
    return size > header ? size - header : 0;
}

}  // namespace qbfuzz
