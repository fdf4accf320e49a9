// The one table of metadata keys: name, type, meaning and how the value
// comes from image_metadata. Change a key here and in the README together.
#include "metadata_keys.h"

#include <algorithm>
#include <cstring>

namespace qbcli {
namespace {

using json = nlohmann::ordered_json;

struct Source {
    const std::string &file;
    image_media_type type;
    const image_metadata &m;
};

// A record text: up to its zero byte, within its field; empty is absent.
template <size_t N>
json text(const char (&field)[N])
{
    const size_t len = strnlen(field, N);
    if (len == 0)
        return nullptr;
    return std::string(field, len);
}

json flagged(uint16_t value, uint16_t valid) { return valid ? json(value) : json(nullptr); }

// A rational with a zero numerator means "no value".
json rational(const image_rational &r)
{
    if (r.numerator == 0)
        return nullptr;
    return json::array({r.numerator, r.denominator});
}

json rational_decimal(const image_rational &r)
{
    if (r.numerator == 0 || r.denominator == 0)
        return nullptr;
    return double(r.numerator) / double(r.denominator);
}

struct Entry {
    MetaKey key;
    json (*value)(const Source &);
};

const Entry kEntries[] = {
    {{"file", "string", "the path as given on the command line"},
     [](const Source &s) -> json { return s.file; }},
    {{"type", "string", "\"jpeg\" (read from Exif) or \"raw\" (read through LibRaw)"},
     [](const Source &s) -> json { return s.type == IMAGE_MEDIA_JPEG ? "jpeg" : "raw"; }},
    {{"width", "integer", "width in pixels, upright (after the orientation)"},
     [](const Source &s) -> json { return s.m.width; }},
    {{"height", "integer", "height in pixels, upright"},
     [](const Source &s) -> json { return s.m.height; }},
    {{"orientation", "integer|null", "Exif orientation 1..8; null when its flag says absent"},
     [](const Source &s) { return flagged(s.m.orientation, s.m.orientation_valid); }},
    {{"date_time", "string|null", "capture time, \"YYYY:MM:DD hh:mm:ss\""},
     [](const Source &s) { return text(s.m.date_time); }},
    {{"sub_sec", "string|null", "sub-second digits of the capture time"},
     [](const Source &s) { return text(s.m.sub_sec); }},
    {{"description", "string|null", "image description"},
     [](const Source &s) { return text(s.m.description); }},
    {{"make", "string|null", "camera maker"}, [](const Source &s) { return text(s.m.make); }},
    {{"model", "string|null", "camera model"}, [](const Source &s) { return text(s.m.model); }},
    {{"exposure_time", "[num, den]|null", "exposure time in seconds as stored"},
     [](const Source &s) { return rational(s.m.exposure_time); }},
    {{"exposure_time_decimal", "number|null", "exposure_time as a decimal"},
     [](const Source &s) { return rational_decimal(s.m.exposure_time); }},
    {{"f_number", "[num, den]|null", "f-number as stored"},
     [](const Source &s) { return rational(s.m.f_number); }},
    {{"f_number_decimal", "number|null", "f_number as a decimal"},
     [](const Source &s) { return rational_decimal(s.m.f_number); }},
    {{"focal_length", "[num, den]|null", "focal length in millimetres as stored"},
     [](const Source &s) { return rational(s.m.focal_length); }},
    {{"focal_length_decimal", "number|null", "focal_length as a decimal"},
     [](const Source &s) { return rational_decimal(s.m.focal_length); }},
    {{"iso", "integer|null", "ISO speed"},
     [](const Source &s) { return flagged(s.m.iso, s.m.iso_valid); }},
    {{"flash", "integer|null", "Exif Flash value"},
     [](const Source &s) { return flagged(s.m.flash, s.m.flash_valid); }},
    {{"exposure_program", "integer|null", "Exif ExposureProgram value"},
     [](const Source &s) { return flagged(s.m.exposure_program, s.m.exposure_program_valid); }},
    {{"metering_mode", "integer|null", "Exif MeteringMode value"},
     [](const Source &s) { return flagged(s.m.metering_mode, s.m.metering_mode_valid); }},
    {{"white_balance", "integer|null", "Exif WhiteBalance value"},
     [](const Source &s) { return flagged(s.m.white_balance, s.m.white_balance_valid); }},
    {{"aperture_value", "number|null", "APEX aperture (the record's thousandths / 1000)"},
     [](const Source &s) -> json {
         return s.m.aperture_value_valid ? json(s.m.aperture_value / 1000.0) : json(nullptr);
     }},
    {{"shutter_speed_value", "number|null",
      "APEX shutter speed, signed (the record's 16-bit thousandths / 1000)"},
     [](const Source &s) -> json {
         return s.m.shutter_speed_value_valid
                    ? json(int16_t(s.m.shutter_speed_value) / 1000.0)
                    : json(nullptr);
     }},
    {{"gps_latitude", "integer|null", "latitude in milliseconds of arc, north positive"},
     [](const Source &s) -> json {
         return s.m.gps_latitude_valid ? json(s.m.gps_latitude) : json(nullptr);
     }},
    {{"gps_latitude_deg", "number|null", "latitude in signed decimal degrees"},
     [](const Source &s) -> json {
         return s.m.gps_latitude_valid ? json(s.m.gps_latitude / 3600000.0) : json(nullptr);
     }},
    {{"gps_longitude", "integer|null", "longitude in milliseconds of arc, east positive"},
     [](const Source &s) -> json {
         return s.m.gps_longitude_valid ? json(s.m.gps_longitude) : json(nullptr);
     }},
    {{"gps_longitude_deg", "number|null", "longitude in signed decimal degrees"},
     [](const Source &s) -> json {
         return s.m.gps_longitude_valid ? json(s.m.gps_longitude / 3600000.0) : json(nullptr);
     }},
    {{"gps_altitude", "integer|null", "altitude in millimetres"},
     [](const Source &s) -> json {
         return s.m.gps_altitude_valid ? json(s.m.gps_altitude) : json(nullptr);
     }},
    {{"gps_altitude_m", "number|null", "altitude in metres"},
     [](const Source &s) -> json {
         return s.m.gps_altitude_valid ? json(s.m.gps_altitude / 1000.0) : json(nullptr);
     }},
};

}  // namespace

std::vector<MetaKey> metadata_keys()
{
    std::vector<MetaKey> keys;
    for (const Entry &e : kEntries)
        keys.push_back(e.key);
    return keys;
}

json metadata_json(const std::string &file, image_media_type type, const image_metadata &meta)
{
    const Source source{file, type, meta};
    json object = json::object();
    for (const Entry &e : kEntries)
        object[e.key.name] = e.value(source);
    return object;
}

std::string metadata_text(const json &object)
{
    size_t width = 0;
    for (const auto &item : object.items())
        width = std::max(width, item.key().size());
    std::string out;
    for (const auto &item : object.items()) {
        const json &v = item.value();
        std::string value;
        if (v.is_null())
            value = "-";
        else if (v.is_string())
            value = v.get<std::string>();
        else if (v.is_array() && v.size() == 2)
            value = v[0].dump() + "/" + v[1].dump();
        else
            value = v.dump();
        // Text from a file goes to a terminal: no control characters.
        for (char &c : value)
            if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f)
                c = '?';
        out += item.key();
        out.append(width + 2 - item.key().size(), ' ');
        out += value;
        out += '\n';
    }
    return out;
}

}  // namespace qbcli
