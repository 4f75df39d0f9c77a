// JSON text: strict parsing and compact writing of Json::Value.
#pragma once

#include <json/value.h>

#include <string>

#include "vantdr/export.h"

namespace VantDRCore {

// Parses `text` as one JSON value (RFC 8259: no comments, no trailing
// commas, nothing after the value, any value at the root, nesting up to 512
// levels). On failure `out` is null and the result false. Never throws.
VANTDR_API bool JsonFromString(Json::Value& out, const std::string& text);

// The value as compact one-line JSON text; strings are written byte for
// byte (only quotes, backslashes and control characters are escaped), so
// the text parses back to an equal value. A value nested deeper than
// JsonFromString accepts gives the empty string and one ERR line, so nothing
// is written that cannot be read back.
VANTDR_API std::string JsonToString(const Json::Value& value);

// Reads and parses a whole file. False (and `out` null) when the file cannot
// be read or does not parse.
VANTDR_API bool JsonFromFile(Json::Value& out, const std::string& path);

// Writes the value to `path` durably with the writer of File::Write(path):
// a plain file is replaced atomically (a reader sees the old document or the
// new one, a failure leaves the old one); wherever a replacement would show
// (links, hard links, special files, attributes, owners) it is written in
// place. False on any failure, a value JsonToString refuses among them.
VANTDR_API bool JsonToFile(const Json::Value& value, const std::string& path);

}  // namespace VantDRCore
