// The metadata record as JSON and as aligned text. The keys, their types and
// their meaning stand in one table (metadata_keys.cpp); `qbimage meta
// --list-keys` prints it, and the README documents the same list. Another
// producer of these objects (a Python package, say) follows that table.
#pragma once

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include <qbimage.h>

namespace qbcli {

struct MetaKey {
    const char *name;
    const char *type;     // JSON type(s), "null" where the value may be absent
    const char *meaning;
};

// The keys of one file's object, in output order.
std::vector<MetaKey> metadata_keys();

// The object of one file whose record image_get_metadata filled with 0.
nlohmann::ordered_json metadata_json(const std::string &file, image_media_type type,
                                     const image_metadata &meta);

// The same object as "key  value" lines, values in one column; null shows
// as "-" and a rational as "num/den".
std::string metadata_text(const nlohmann::ordered_json &object);

}  // namespace qbcli
