// The one-call thumbnail on a file of one type: the input goes to a file
// with that type's extension, the thumbnail to another, both removed after.
#pragma once

#include "harness.h"

namespace qbfuzz {

// A few boxes, picked by the input's length so that a file's box never
// changes between a run and its replay: the usual square, a wide one, the
// smallest, and one far from the photo's aspect.
inline void thumb(const uint8_t *data, size_t size, const char *input_name)
{
    struct Box {
        int32_t width, height;
    };
    static constexpr Box kBoxes[4] = {{128, 128}, {160, 120}, {1, 1}, {200, 60}};
    const Box box = kBoxes[size % 4];

    const Path in = path_of(input_name);
    const Path out = path_of("thumb.jpg");
    if (!write_file(in, data, size))
        return;
    easy_image_create_thumb(in.text, out.text, box.width, box.height, 85, 0xFFFFFFu);
    remove_file(in);
    remove_file(out);
}

}  // namespace qbfuzz
