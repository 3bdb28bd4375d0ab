/// @file Json.h
/// JSON as text. Names on a medium may hold surrogates that stand alone, which UTF-8 cannot have; in the text they are
/// \uD800 .. \uDFFF, so that nothing of a name is lost.

#ifndef FATIMG_JSON_H
#define FATIMG_JSON_H

#include <fatlib/Time.h>

#include <nlohmann/json.hpp>
#include <string>

namespace fatimg {

/// One line without a line feed. Strings are taken as fatlib::ToUtf8 makes them; bytes that are none become U+FFFD.
std::string JsonText(const nlohmann::ordered_json& json);

/// A time as ISO 8601, null when it is none.
nlohmann::ordered_json JsonTime(const fatlib::Stamp& stamp, bool dateOnly = false);

}  // namespace fatimg

#endif  // FATIMG_JSON_H
