// The Exif reader behind image_get_metadata: libexif loads the block as
// stored, and each field is read only from an entry long enough for it.
#include <array>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <utility>

#include <sys/stat.h>

#include <libexif/exif-data.h>
#include <libexif/exif-loader.h>
#include <libexif/exif-log.h>
#include <libexif/exif-mem.h>
#include <libexif/exif-utils.h>

#include "metadata/metadata.h"

namespace {

// ---------------------------------------------------------------------------
// Exif reader
// ---------------------------------------------------------------------------

// Tags of the GPS IFD. libexif gives them as plain numbers, since they
// share their values with tags of the other IFDs.
constexpr auto kGpsLatitudeRef = ExifTag(EXIF_TAG_GPS_LATITUDE_REF);
constexpr auto kGpsLatitude = ExifTag(EXIF_TAG_GPS_LATITUDE);
constexpr auto kGpsLongitudeRef = ExifTag(EXIF_TAG_GPS_LONGITUDE_REF);
constexpr auto kGpsLongitude = ExifTag(EXIF_TAG_GPS_LONGITUDE);
constexpr auto kGpsAltitude = ExifTag(EXIF_TAG_GPS_ALTITUDE);

// Widths of the reads: a SHORT, a LONG, a RATIONAL, three RATIONALs.
constexpr unsigned kShortBytes = 2;
constexpr unsigned kLongBytes = 4;
constexpr unsigned kRationalBytes = 8;
constexpr unsigned kCoordinateBytes = 3 * kRationalBytes;

// Nominal f-numbers, in tenths, of the whole APEX stops 0 to 9. The formula
// 2^(Av/2) misses the marked values (5.7 for 5, 11.3 for 7), and hosts show
// the numbers printed on lenses.
constexpr std::array<uint32_t, 10> kNominalStops = {10, 14, 20, 28, 40,
                                                    56, 80, 110, 160, 220};

constexpr double kLn2 = 0.6931471805599453;

struct ExifView {
    ExifContent *ifd0;
    ExifContent *exif;
    ExifContent *gps;
    ExifByteOrder order;
};

// An entry with at least `bytes` bytes of data, or null. An entry shorter
// than its reader needs counts as missing, so no reader below ever looks
// past an entry's `size`, whatever its format and count claim.
const ExifEntry *find(ExifContent *content, ExifTag tag, unsigned bytes)
{
    const ExifEntry *entry =
        content ? exif_content_get_entry(content, tag) : nullptr;
    if (!entry || !entry->data || entry->size < bytes)
        return nullptr;
    return entry;
}

std::optional<uint16_t> read_short(ExifContent *content, ExifTag tag,
                                   ExifByteOrder order)
{
    const ExifEntry *entry = find(content, tag, kShortBytes);
    if (!entry)
        return std::nullopt;
    return exif_get_short(entry->data, order);
}

std::optional<ExifRational> read_rational(ExifContent *content, ExifTag tag,
                                          ExifByteOrder order)
{
    const ExifEntry *entry = find(content, tag, kRationalBytes);
    if (!entry)
        return std::nullopt;
    return exif_get_rational(entry->data, order);
}

// Pixel dimensions come as SHORT or LONG; anything not declared SHORT is
// read as a LONG.
std::optional<uint32_t> read_dimension(ExifContent *content, ExifTag tag,
                                       ExifByteOrder order)
{
    const ExifEntry *entry = find(content, tag, 0);
    if (!entry)
        return std::nullopt;
    const bool is_short = entry->format == EXIF_FORMAT_SHORT;
    if (entry->size < (is_short ? kShortBytes : kLongBytes))
        return std::nullopt;
    if (is_short)
        return exif_get_short(entry->data, order);
    return exif_get_long(entry->data, order);
}

// Copy a text entry into a field of `width` bytes the way strncpy copies
// min(size, width) bytes, then terminate the field in its last byte, so at
// most width - 1 characters survive. Bytes behind a short copy keep what
// the caller put there; the terminator in the copy or at the end bounds
// the text either way. False if the tag is missing.
bool read_text(ExifContent *content, ExifTag tag, char *field, size_t width)
{
    const ExifEntry *entry = find(content, tag, 0);
    if (!entry)
        return false;
    const size_t count = entry->size < width ? entry->size : width;
    std::strncpy(field, reinterpret_cast<const char *>(entry->data), count);
    field[width - 1] = '\0';
    return true;
}

double ratio(ExifRational r)
{
    return double(r.numerator) / double(r.denominator);
}

bool both_halves(image_rational r)
{
    return r.numerator != 0 && r.denominator != 0;
}

// APEX thousandths keep the low 16 bits of the rounded value, so a negative
// value leaves its two's complement pattern. A zero denominator gives no
// finite value; lround has no result for it, and we store what x86 gives
// (LONG_MIN, whose low bits are 0) rather than leave it to the platform.
uint16_t apex_thousandths(double value)
{
    if (!(std::fabs(value) < 0x1p62))
        return 0;
    return uint16_t(static_cast<unsigned long>(std::lround(value)));
}

// Truncation toward zero into a signed 32-bit field. NaN, infinities and
// values out of range give INT32_MIN, which is what the x86 conversion
// gives; in C++ the conversion itself would be undefined.
int32_t truncate_i32(double value)
{
    if (!(value > -2147483649.0 && value < 2147483648.0))
        return INT32_MIN;
    return int32_t(value);
}

void read_date(const ExifView &v, image_metadata *meta)
{
    const bool have_date =
        read_text(v.exif, EXIF_TAG_DATE_TIME_ORIGINAL, meta->date_time,
                  sizeof meta->date_time) ||
        read_text(v.exif, EXIF_TAG_DATE_TIME_DIGITIZED, meta->date_time,
                  sizeof meta->date_time);
    // Sub-seconds only make sense behind a full "YYYY:MM:DD hh:mm:ss".
    constexpr size_t kFullDate = 19;
    if (!have_date ||
        strnlen(meta->date_time, kFullDate + 1) != kFullDate)
        return;
    if (!read_text(v.exif, EXIF_TAG_SUB_SEC_TIME_ORIGINAL, meta->sub_sec,
                   sizeof meta->sub_sec) &&
        !read_text(v.exif, EXIF_TAG_SUB_SEC_TIME_DIGITIZED, meta->sub_sec,
                   sizeof meta->sub_sec))
        meta->sub_sec[sizeof meta->sub_sec - 1] = '\0';
}

void read_size(const ExifView &v, image_metadata *meta)
{
    // Both pairs live in the EXIF IFD; ImageWidth and ImageLength of IFD0
    // describe a TIFF's strips, not the JPEG stream.
    std::optional<uint32_t> width =
        read_dimension(v.exif, EXIF_TAG_IMAGE_WIDTH, v.order);
    if (!width)
        width = read_dimension(v.exif, EXIF_TAG_PIXEL_X_DIMENSION, v.order);
    if (width)
        meta->width = *width;
    std::optional<uint32_t> height =
        read_dimension(v.exif, EXIF_TAG_IMAGE_LENGTH, v.order);
    if (!height)
        height = read_dimension(v.exif, EXIF_TAG_PIXEL_Y_DIMENSION, v.order);
    if (height)
        meta->height = *height;
}

void read_rational_into(ExifContent *content, ExifTag tag,
                        ExifByteOrder order, image_rational *field)
{
    if (std::optional<ExifRational> r = read_rational(content, tag, order))
        *field = {r->numerator, r->denominator};
}

void read_short_into(ExifContent *content, ExifTag tag, ExifByteOrder order,
                     uint16_t *field, uint16_t *valid)
{
    if (std::optional<uint16_t> value = read_short(content, tag, order)) {
        *field = *value;
        *valid = 1;
    }
}

// ApertureValue, or its derivation from FNumber; a missing FNumber is in
// turn derived from ApertureValue. Runs after FNumber has been read.
void read_aperture(const ExifView &v, image_metadata *meta)
{
    if (std::optional<ExifRational> av =
            read_rational(v.exif, EXIF_TAG_APERTURE_VALUE, v.order)) {
        meta->aperture_value = apex_thousandths(ratio(*av) * 1000.0);
        meta->aperture_value_valid = 1;
        if (meta->f_number.numerator == 0)
            meta->f_number = {image_apex_to_f_number(av->numerator,
                                                     av->denominator),
                              10};
        return;
    }
    if (both_halves(meta->f_number)) {
        const double n = double(meta->f_number.numerator) /
                         double(meta->f_number.denominator);
        meta->aperture_value = apex_thousandths(2000.0 * std::log(n) / kLn2);
        meta->aperture_value_valid = 1;
    }
}

// ShutterSpeedValue, or its derivation from ExposureTime. The tag is signed
// in Exif but read unsigned: a negative value arrives as a large number
// whose low 16 bits in thousandths still are those of the negative result
// whenever the denominator divides 1000.
void read_shutter_speed(const ExifView &v, image_metadata *meta)
{
    if (std::optional<ExifRational> tv =
            read_rational(v.exif, EXIF_TAG_SHUTTER_SPEED_VALUE, v.order)) {
        meta->shutter_speed_value = apex_thousandths(ratio(*tv) * 1000.0);
        meta->shutter_speed_value_valid = 1;
        return;
    }
    if (both_halves(meta->exposure_time)) {
        const double t = double(meta->exposure_time.numerator) /
                         double(meta->exposure_time.denominator);
        meta->shutter_speed_value =
            apex_thousandths(-1000.0 * std::log(t) / kLn2);
        meta->shutter_speed_value_valid = 1;
    }
}

struct Hemispheres {
    char positive[2];  // "N" or "E", either case
    char negative[2];  // "S" or "W", either case
};

// A coordinate in milliseconds of arc from its reference letter and its
// three rationals (degrees, minutes, seconds). The flag is set whenever
// both entries exist, also when the letter is unknown and nothing is
// stored.
void read_coordinate(const ExifView &v, ExifTag ref_tag, ExifTag value_tag,
                     const Hemispheres &hemi, int32_t *field,
                     uint16_t *valid)
{
    const ExifEntry *ref = find(v.gps, ref_tag, 1);
    if (!ref)
        return;
    const ExifEntry *value = find(v.gps, value_tag, kCoordinateBytes);
    if (!value)
        return;
    const char letter = char(ref->data[0]);
    const ExifRational degrees = exif_get_rational(value->data, v.order);
    const ExifRational minutes =
        exif_get_rational(value->data + kRationalBytes, v.order);
    const ExifRational seconds =
        exif_get_rational(value->data + 2 * kRationalBytes, v.order);

    double arc = ratio(degrees) * 60.0 * 60.0 * 1000.0;
    arc = arc + ratio(minutes) * 60.0 * 1000.0;
    // Writers leave the seconds at 0/0 when the minutes carry a fraction.
    if (seconds.numerator != 0 && seconds.denominator != 0)
        arc = arc + ratio(seconds) * 1000.0;

    if (letter == hemi.positive[0] || letter == hemi.positive[1])
        *field = truncate_i32(arc);
    else if (letter == hemi.negative[0] || letter == hemi.negative[1])
        *field = truncate_i32(-arc);
    *valid = 1;
}

// GPSAltitudeRef is not read: an altitude below sea level is stored
// positive.
void read_altitude(const ExifView &v, image_metadata *meta)
{
    if (std::optional<ExifRational> alt =
            read_rational(v.gps, kGpsAltitude, v.order)) {
        meta->gps_altitude = truncate_i32(ratio(*alt) * 1000.0);
        meta->gps_altitude_valid = 1;
    }
}

// The fields in their fixed order: the APEX rules read exposure_time and
// f_number back from the record, so those come first.
void read_fields(ExifData *data, image_metadata *meta)
{
    const ExifView v = {data->ifd[EXIF_IFD_0], data->ifd[EXIF_IFD_EXIF],
                        data->ifd[EXIF_IFD_GPS],
                        exif_data_get_byte_order(data)};

    meta->date_time[0] = '\0';
    meta->sub_sec[0] = '\0';
    read_date(v, meta);
    read_size(v, meta);
    if (std::optional<uint16_t> o =
            read_short(v.ifd0, EXIF_TAG_ORIENTATION, v.order)) {
        meta->orientation = *o;
        meta->orientation_valid = 1;
    }
    read_text(v.ifd0, EXIF_TAG_IMAGE_DESCRIPTION, meta->description,
              sizeof meta->description);
    read_text(v.ifd0, EXIF_TAG_MAKE, meta->make, sizeof meta->make);
    read_text(v.ifd0, EXIF_TAG_MODEL, meta->model, sizeof meta->model);
    read_rational_into(v.exif, EXIF_TAG_EXPOSURE_TIME, v.order,
                       &meta->exposure_time);
    read_rational_into(v.exif, EXIF_TAG_FNUMBER, v.order, &meta->f_number);
    read_short_into(v.exif, EXIF_TAG_FLASH, v.order, &meta->flash,
                    &meta->flash_valid);
    read_aperture(v, meta);
    read_shutter_speed(v, meta);
    read_rational_into(v.exif, EXIF_TAG_FOCAL_LENGTH, v.order,
                       &meta->focal_length);
    read_short_into(v.exif, EXIF_TAG_EXPOSURE_PROGRAM, v.order,
                    &meta->exposure_program, &meta->exposure_program_valid);
    read_short_into(v.exif, EXIF_TAG_METERING_MODE, v.order,
                    &meta->metering_mode, &meta->metering_mode_valid);
    read_short_into(v.exif, EXIF_TAG_WHITE_BALANCE, v.order,
                    &meta->white_balance, &meta->white_balance_valid);
    read_coordinate(v, kGpsLatitudeRef, kGpsLatitude, {{'N', 'n'}, {'S', 's'}},
                    &meta->gps_latitude, &meta->gps_latitude_valid);
    read_coordinate(v, kGpsLongitudeRef, kGpsLongitude,
                    {{'E', 'e'}, {'W', 'w'}}, &meta->gps_longitude,
                    &meta->gps_longitude_valid);
    read_altitude(v, meta);
}

// libexif drops what it has no memory for (an entry, a whole IFD) and goes
// on, and its allocator hooks take no context, so a failed allocation is
// noted in a per-thread flag. The flag is cleared at the start of each call
// and read before it returns: nothing carries over between calls or
// crosses threads.
thread_local bool t_exif_short = false;

void *exif_alloc(ExifLong size)
{
    void *p = std::calloc(size, 1);
    if (!p)
        t_exif_short = true;
    return p;
}

void *exif_realloc(void *ptr, ExifLong size)
{
    void *p = std::realloc(ptr, size);
    if (!p && size)
        t_exif_short = true;
    return p;
}

void exif_release(void *ptr) { std::free(ptr); }

// The loader opens the file itself and tells of a failure only in its log.
void note_unopened(ExifLog *, ExifLogCode code, const char *domain,
                   const char *, va_list, void *)
{
    if (code == EXIF_LOG_CODE_NONE && std::strcmp(domain, "ExifLoader") == 0)
        t_exif_short = true;
}

// The loader's Exif block as the file holds it. exif_loader_get_data would
// load it with libexif's default options, which change it: tags libexif
// does not expect in an IFD are dropped (ImageWidth and ImageLength in the
// EXIF IFD among them), and the fix-up adds ExifVersion, FlashpixVersion
// and ColorSpace, creating an EXIF IFD if need be. So the data is built
// here with both options off. Null when the file has no Exif block.
ExifData *load_as_stored(ExifLoader *loader, ExifMem *mem)
{
    const unsigned char *buf = nullptr;
    unsigned int size = 0;
    exif_loader_get_buf(loader, &buf, &size);
    if (!buf || size == 0)
        return nullptr;
    ExifData *data = exif_data_new_mem(mem);
    if (!data)
        return nullptr;
    exif_data_unset_option(data, EXIF_DATA_OPTION_IGNORE_UNKNOWN_TAGS);
    exif_data_unset_option(data, EXIF_DATA_OPTION_FOLLOW_SPECIFICATION);
    exif_data_load_data(data, buf, size);
    return data;
}


}  // namespace

uint32_t image_apex_to_f_number(uint32_t numerator, uint32_t denominator)
{
    if (denominator == 0)
        return 0;
    if (numerator % denominator == 0 &&
        numerator / denominator < kNominalStops.size())
        return kNominalStops[numerator / denominator];
    const double tenths =
        10.0 * std::pow(2.0, (double(numerator) / double(denominator)) / 2.0);
    // Past APEX 64 the f-number leaves 32 bits (and from about 2000 the
    // double); no lens is there, so such a value counts as unknown.
    if (!(tenths < 4294967295.5))
        return 0;
    return uint32_t(std::lround(tenths));
}

int32_t image_metadata_from_exif(const char *path, image_metadata *meta)
{
    if (!meta || !path)
        return -1;
    // Keeps missing, empty and non-regular files (a FIFO would block) away
    // from the loader; the file is opened by libexif.
    struct stat st;
    if (stat(path, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size == 0)
        return -1;
    t_exif_short = false;
    ExifMem *mem = exif_mem_new(exif_alloc, exif_realloc, exif_release);
    if (!mem)
        return -1;
    ExifLog *log = exif_log_new_mem(mem);
    ExifLoader *loader = log ? exif_loader_new_mem(mem) : nullptr;
    if (!loader) {
        exif_log_unref(log);
        exif_mem_unref(mem);
        return -1;
    }
    exif_log_set_func(log, note_unopened, nullptr);
    exif_loader_log(loader, log);
    exif_loader_write_file(loader, path);
    ExifData *data = t_exif_short ? nullptr : load_as_stored(loader, mem);
    if (data) {
        if (!t_exif_short)
            read_fields(data, meta);
        exif_data_unref(data);
    }
    exif_loader_unref(loader);
    exif_log_unref(log);
    exif_mem_unref(mem);
    return t_exif_short ? -1 : 0;
}
