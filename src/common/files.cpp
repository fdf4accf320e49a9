// Opening inputs and outputs safely; see files.h for why.
#include "common/files.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

bool same_inode(const struct stat &a, const struct stat &b)
{
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// The descriptor back in blocking mode and wrapped in a stream, or null
// with the descriptor closed.
FILE *to_stream(int fd, const char *mode)
{
    const int flags = fcntl(fd, F_GETFL);
    if (flags < 0 || fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) != 0) {
        close(fd);
        return nullptr;
    }
    FILE *stream = fdopen(fd, mode);
    if (!stream)
        close(fd);
    return stream;
}

bool is_one_of(const struct stat &st, FILE *const *inputs, size_t count)
{
    for (size_t i = 0; i < count; ++i) {
        struct stat in;
        if (inputs[i] && fstat(fileno(inputs[i]), &in) == 0 && same_inode(st, in))
            return true;
    }
    return false;
}

}  // namespace

FILE *image_open_input(const char *path)
{
    if (!path) {
        errno = EINVAL;
        return nullptr;
    }
    // O_NONBLOCK keeps open() from waiting on a FIFO's writer; the type is
    // then checked on the descriptor itself, so a swap of the name after
    // the check cannot bring a FIFO back in.
    const int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return nullptr;
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        close(fd);
        errno = EINVAL;
        return nullptr;
    }
    return to_stream(fd, "rb");
}

bool image_is_regular_file(const char *path)
{
    struct stat st;
    return path && stat(path, &st) == 0 && S_ISREG(st.st_mode);
}

bool image_same_file(const char *a, const char *b)
{
    struct stat sa;
    struct stat sb;
    return a && b && stat(a, &sa) == 0 && stat(b, &sb) == 0 && same_inode(sa, sb);
}

FILE *image_open_output(const char *path, FILE *const *inputs, size_t count)
{
    if (!path) {
        errno = EINVAL;
        return nullptr;
    }
    // Checked by name first, so that nothing is opened for writing at all
    // when the output is an input; then again on the descriptor, before
    // truncating, in case the name changed in between.
    struct stat st;
    if (stat(path, &st) == 0 && is_one_of(st, inputs, count)) {
        errno = EEXIST;
        return nullptr;
    }
    const int fd = open(path, O_WRONLY | O_CREAT | O_NONBLOCK | O_CLOEXEC, 0666);
    if (fd < 0)
        return nullptr;
    if (fstat(fd, &st) != 0 || is_one_of(st, inputs, count) ||
        (S_ISREG(st.st_mode) && ftruncate(fd, 0) != 0)) {
        close(fd);
        errno = EEXIST;
        return nullptr;
    }
    return to_stream(fd, "wb");
}
