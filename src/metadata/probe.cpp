// Frame-header probe: the size of a JPEG file from its first SOF0..SOF3
// segment, found by walking the segment lengths. libjpeg is not used here:
// the walk needs no decoder, and passing each segment over by its length
// means that a thumbnail inside the Exif segment is never mistaken for the
// main frame.
#include "metadata/metadata.h"

#include "common/files.h"

#include <sys/stat.h>
#include <sys/types.h>

namespace {

constexpr uint16_t kSoi = 0xFFD8;
constexpr uint16_t kEoi = 0xFFD9;
constexpr uint16_t kSos = 0xFFDA;
constexpr uint16_t kSof0 = 0xFFC0;  // baseline
constexpr uint16_t kSof3 = 0xFFC3;  // lossless; SOF5 and above are passed over
constexpr uint16_t kRst0 = 0xFFD0;
constexpr uint16_t kRst7 = 0xFFD7;

// Seeks are relative and their results are not looked at: a seek past the
// end shows up as a failed read on the next word, which ends the walk.
void seek_by(FILE *stream, off_t delta)
{
    fseeko(stream, delta, SEEK_CUR);
}

// Move past entropy-coded data to the next marker. A 0xFF followed by 0x00
// is a stuffed data byte; a 0xFF followed by anything else starts the next
// marker, and the stream is left on it. False at the end of the file.
bool skip_scan_data(FILE *stream)
{
    for (;;) {
        int byte = std::getc(stream);
        if (byte == EOF)
            return false;
        if (byte != 0xFF)
            continue;
        byte = std::getc(stream);
        if (byte == EOF)
            return false;
        if (byte == 0x00)
            continue;
        seek_by(stream, -2);
        return true;
    }
}

void find_frame_size(FILE *stream, uint32_t *width, uint32_t *height)
{
    uint16_t word = 0;
    if (image_read_be16(stream, &word) != 0 || word != kSoi)
        return;
    // Every pass reads four bytes and seeks back at most two, so the walk
    // moves forward even over lengths of 0 or 1 and ends at the end of the
    // file at the latest.
    for (;;) {
        uint16_t marker = 0;
        uint16_t length = 0;
        // Every marker is read with a length, also those that have none;
        // the restart markers below give the two bytes back.
        if (image_read_be16(stream, &marker) != 0 ||
            image_read_be16(stream, &length) != 0)
            return;
        if (marker >= kSof0 && marker <= kSof3) {
            uint16_t frame_height = 0;
            uint16_t frame_width = 0;
            seek_by(stream, 1);  // sample precision
            if (image_read_be16(stream, &frame_height) != 0 ||
                image_read_be16(stream, &frame_width) != 0)
                return;
            *width = frame_width;
            *height = frame_height;
            return;
        }
        if (marker >= kRst0 && marker <= kRst7) {
            seek_by(stream, -2);
            continue;
        }
        if (marker == kEoi)
            return;
        seek_by(stream, off_t(length) - 2);
        if (marker == kSos && !skip_scan_data(stream))
            return;
    }
}

}  // namespace

int32_t image_read_be16(FILE *stream, uint16_t *word)
{
    const int high = std::getc(stream);
    if (high == EOF)
        return -1;
    const int low = std::getc(stream);
    if (low == EOF)
        return -1;
    *word = uint16_t((high << 8) | low);
    return 0;
}

int32_t image_jpeg_probe_size(const char *path, uint32_t *width,
                              uint32_t *height)
{
    // Regular files only: a FIFO would block the open.
    FILE *stream = image_open_input(path);
    if (!stream)
        return -1;
    find_frame_size(stream, width, height);
    std::fclose(stream);
    return 0;
}
