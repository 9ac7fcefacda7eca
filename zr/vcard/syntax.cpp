#include "zr/vcard/syntax.h"

#include <glib.h>

#include <algorithm>

#include "zr/base/content_line.h"
#include "zr/base/phone_number.h"
#include "zr/base/text.h"
#include "zr/vcard/builder.h"
#include "zr/vcard/header.h"

namespace zr {
namespace {

constexpr std::string_view kUnknownMedia = "application/octet-stream";

struct MediaType {
    std::string_view type;
    std::string_view media;
};

constexpr MediaType kMediaTypes[] = {
    {"X509", "application/pkix-cert"},
    {"PGP", "application/pgp-keys"},
    {"WAVE", "audio/wav"},
};

bool is_word(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
        return g_ascii_isalnum(c) || c == '-' || c == '_' || c == '.' || c == '+';
    });
}

bool is_base64_text(std::string_view text) {
    return std::all_of(text.begin(), text.end(),
                       [](char c) { return g_ascii_isalnum(c) || c == '+' || c == '/' || c == '='; });
}

bool is_any(std::string_view name, std::initializer_list<std::string_view> names) {
    return std::any_of(names.begin(), names.end(),
                       [&](std::string_view other) { return equal_ignoring_case(name, other); });
}

// Whether readers of version 2.1 know a word without a name as a kind.
bool is_bare_type(std::string_view word) {
    return is_any(word, {"DOM",
                         "INTL",
                         "POSTAL",
                         "PARCEL",
                         "HOME",
                         "WORK",
                         "VOICE",
                         "FAX",
                         "MSG",
                         "CELL",
                         "PAGER",
                         "BBS",
                         "MODEM",
                         "CAR",
                         "ISDN",
                         "VIDEO",
                         "X400",
                         "INTERNET",
                         "JPEG",
                         "GIF",
                         "PNG",
                         "BMP",
                         "TIFF",
                         "WAVE",
                         "PCM",
                         "AIFF",
                         "X509",
                         "PGP",
                         "X-EVOLUTION-RADIO",
                         "X-EVOLUTION-ASSISTANT"});
}

template <class Visit>
void each_word(std::string_view words, Visit visit) {
    for (;;) {
        const std::size_t comma = std::min(find_unquoted(words, ','), words.size());
        visit(trimmed(words.substr(0, comma)));
        if (comma == words.size()) return;
        words.remove_prefix(comma + 1);
    }
}

std::string_view media_class(std::string_view name) {
    return is_any(name, {"PHOTO", "LOGO"}) ? "image/" : is_any(name, {"SOUND"}) ? "audio/" : "application/";
}

std::string media_of(std::string_view name, std::string_view type) {
    for (const MediaType& known : kMediaTypes) {
        if (equal_ignoring_case(type, known.type)) return std::string(known.media);
    }
    if (!is_word(type)) return std::string(kUnknownMedia);
    std::string media(media_class(name));
    for (const char c : type) {
        media += g_ascii_tolower(c);
    }
    return media;
}

// Empty where the media type has no such word.
std::string type_of_media(std::string_view name, std::string_view media) {
    for (const MediaType& known : kMediaTypes) {
        if (media == known.media) return std::string(known.type);
    }
    const std::string_view known_class = media_class(name);
    if (media == kUnknownMedia || !media.starts_with(known_class)) return {};
    const std::string type = upper(media.substr(known_class.size()));
    return is_word(type) ? type : std::string();
}

// A property's parameters, in their order.
class Parameters {
public:
    Parameters(std::string_view line, const CardHeader& header) {
        for (const std::string_view parameter : card_parameters(line, header)) {
            take(parameter);
        }
    }

    bool has(std::string_view name, std::string_view value) const {
        return std::any_of(all_.begin(), all_.end(), [&](const Parameter& other) { return other.is(name, value); });
    }
    void remove(std::string_view name, std::string_view value) {
        std::erase_if(all_, [&](const Parameter& other) { return other.is(name, value); });
    }
    void replace(std::string_view name, std::string_view value, std::string_view by) {
        for (Parameter& parameter : all_) {
            if (parameter.is(name, value)) parameter.value = by;
        }
    }
    void add(std::string name, std::string value) { all_.push_back({std::move(name), std::move(value)}); }
    std::string take_data_type();
    std::string text(CardVersion version) const;

private:
    struct Parameter {
        std::string name;
        std::string value;

        bool is(std::string_view wanted_name, std::string_view wanted) const {
            return equal_ignoring_case(name, wanted_name) && equal_ignoring_case(value, wanted);
        }
    };

    void take(std::string_view parameter);
    void take_preference(std::string_view words);
    void take_types(std::string_view name, std::string_view words);

    std::vector<Parameter> all_;
    std::string preference_;  // 1 to 100; empty: none
};

void Parameters::take(std::string_view parameter) {
    const std::size_t equals = parameter.find('=');
    const std::string_view name = equals == std::string_view::npos ? "TYPE" : trimmed(parameter.substr(0, equals));
    const std::string_view words = trimmed(equals == std::string_view::npos ? parameter : parameter.substr(equals + 1));
    if (equal_ignoring_case(name, "PREF")) {
        take_preference(words);
    } else if (equal_ignoring_case(name, "TYPE")) {
        take_types(name, words);
    } else {
        const bool url = equal_ignoring_case(name, "VALUE") && equal_ignoring_case(words, "URL");
        add(std::string(name), std::string(url ? "uri" : words));
    }
}

// The first that a reader takes; others are not written.
void Parameters::take_preference(std::string_view words) {
    std::string all(words);
    std::erase(all, '"');
    each_word(all, [&](std::string_view word) {
        if (preference_.empty() && is_plain_kind(word)) preference_ = word;
    });
}

// Quotes stand around all types or around some of them.
void Parameters::take_types(std::string_view name, std::string_view words) {
    std::string types;
    const auto take_one = [&](std::string_view word) {
        if (equal_ignoring_case(word, "PREF")) {
            preference_ = "1";
        } else if (!word.empty()) {
            if (!types.empty()) types += ',';
            // What the quotes kept together.
            const bool quoted =
                word.find_first_of(";:") != std::string_view::npos && word.find('"') == std::string_view::npos;
            types += quoted ? '"' + std::string(word) + '"' : std::string(word);
        }
    };
    each_word(words, [&](std::string_view word) {
        const bool quoted = word.size() >= 2 && word.front() == '"' && word.find('"', 1) == word.size() - 1;
        each_word(quoted ? word.substr(1, word.size() - 2) : word, take_one);
    });
    if (!types.empty()) add(std::string(name), std::move(types));
}

// The kind of data, and not the kind of address or number.
std::string Parameters::take_data_type() {
    std::string found;
    for (Parameter& parameter : all_) {
        if (!equal_ignoring_case(parameter.name, "TYPE")) continue;
        std::string others;
        each_word(parameter.value, [&](std::string_view word) {
            if (found.empty() && is_word(word) && !is_any(word, {"HOME", "WORK", "INTERNET"})) {
                found = word;
            } else {
                if (!others.empty()) others += ',';
                others += word;
            }
        });
        parameter.value = others;
    }
    remove("TYPE", "");
    return found;
}

std::string Parameters::text(CardVersion version) const {
    const bool old = version == CardVersion::V21;
    std::string text;
    for (const Parameter& parameter : all_) {
        if (old && equal_ignoring_case(parameter.name, "TYPE")) {
            each_word(parameter.value,
                      [&](std::string_view word) { (text += is_bare_type(word) ? ";" : ";TYPE=") += word; });
        } else {
            const bool url = old && parameter.is("VALUE", "uri");
            (((text += ';') += parameter.name) += '=') += url ? "URL" : parameter.value;
        }
    }
    if (preference_.empty()) return text;
    // The versions before know no degrees; their readers pass over the parameter.
    if (version == CardVersion::V40 || preference_ != "1") return text + ";PREF=" + preference_;
    return text + (old ? ";PREF" : ";TYPE=PREF");
}

// The data behind "data:MEDIA;base64,", or false.
bool split_data_uri(std::string_view value, std::string_view& media, std::string_view& data) {
    constexpr std::string_view scheme = "data:";
    if (!equal_ignoring_case(value.substr(0, scheme.size()), scheme)) return false;
    value.remove_prefix(scheme.size());
    const std::size_t mark = value.find_first_of(";,\\");
    if (mark == std::string_view::npos) return false;
    media = value.substr(0, mark);
    for (const std::string_view between : {";base64,", ";base64\\,", "\\;base64\\,"}) {
        if (!equal_ignoring_case(value.substr(mark, between.size()), between)) continue;
        data = value.substr(mark + between.size());
        return is_base64_text(data);
    }
    return false;
}

// What a field of the contact is made of, even where a line calls that data.
bool holds_text(std::string_view name) {
    const Property property = property_of(name);
    return property != Property::Unknown && property != Property::Ignored;
}

bool holds_data(std::string_view name) {
    return is_any(name, {"PHOTO", "LOGO", "SOUND", "KEY"});
}

void write_as_uri(std::string_view name, Parameters& parameters, PropertySyntax& property) {
    parameters.remove("ENCODING", "b");
    property.value = "data:" + media_of(name, parameters.take_data_type()) + ";base64," + property.value;
    if (!holds_data(name)) parameters.add("VALUE", "uri");
}

// False when the value is no address that the data stands in.
bool write_from_uri(std::string_view name, CardVersion version, Parameters& parameters, PropertySyntax& property) {
    const bool may = holds_data(name) || (parameters.has("VALUE", "uri") && !holds_text(name));
    std::string_view media;
    std::string_view data;
    if (!may || !split_data_uri(property.value, media, data)) return false;
    std::string type = type_of_media(name, media);
    if (type.empty() && media != kUnknownMedia) return false;
    parameters.remove("VALUE", "uri");
    parameters.add("ENCODING", version == CardVersion::V21 ? "BASE64" : "b");
    if (!type.empty()) parameters.add("TYPE", std::move(type));
    property.value = std::string(data);
    property.base64 = true;
    return true;
}

bool is_digits(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return g_ascii_isdigit(c); });
}

// Whether every colon stands between the two digits of one part of a time and those of the next one.
bool has_colons_of_time(std::string_view time) {
    for (std::size_t at = time.find(':'); at != std::string_view::npos; at = time.find(':', at + 1)) {
        if (at < 2 || !is_digits(time.substr(at - 2, 2)) || at + 2 >= time.size() || !is_digits(time.substr(at + 1, 2)))
            return false;
    }
    return true;
}

// Version 4.0 writes days and times without marks between the digits. What is no day, or no time, stays as it is.
std::string basic_day(std::string_view value) {
    const std::size_t time = std::min(value.find_first_of("Tt"), value.size());
    const std::string_view day = value.substr(0, time);
    if (day.size() != 10 || day[4] != '-' || day[7] != '-' || !is_digits(day.substr(0, 4)) ||
        !is_digits(day.substr(5, 2)) || !is_digits(day.substr(8)) || !has_colons_of_time(value.substr(time))) {
        return std::string(value);
    }
    std::string basic(value);
    std::erase(basic, ':');
    return basic.erase(7, 1).erase(4, 1);
}

bool is_plain_day(std::string_view value) {
    return std::all_of(value.begin(), value.end(), [](char c) { return g_ascii_isdigit(c) || c == '-'; });
}

// The name that the version gives a property.
std::string_view name_in(std::string_view name, std::string_view value, CardVersion version) {
    constexpr std::string_view day = "ANNIVERSARY";
    constexpr std::string_view old_day = "X-EVOLUTION-ANNIVERSARY";
    if (version == CardVersion::V40 && is_any(name, {old_day, "X-ANNIVERSARY"})) return day;
    if (version != CardVersion::V40 && equal_ignoring_case(name, day) && is_plain_day(value)) return old_day;
    return name;
}

// Numbers are no addresses before version 4.0.
void write_number(std::string_view name, Parameters& parameters, PropertySyntax& property) {
    if (!equal_ignoring_case(name, "TEL") || !parameters.has("VALUE", "uri")) return;
    parameters.remove("VALUE", "uri");
    property.value = without_scheme(property.value);
}

}  // namespace

bool in_version(std::string_view line, CardVersion version, PropertySyntax& property) {
    property = {};
    CardHeader header;
    if (!read_card_header(line, header)) return false;
    const std::string_view name = line.substr(header.name, header.name_end - header.name);
    Parameters parameters(line, header);
    property.value = line.substr(header.value);
    const bool base64 = header.base64 && !holds_text(name);
    if (header.base64) parameters.remove("VALUE", "uri");  // it is the data itself
    if (header.base64 && !base64) parameters.remove("ENCODING", "b");
    if (base64 && version == CardVersion::V40) {
        write_as_uri(name, parameters, property);
    } else if (base64) {
        property.base64 = true;
        if (version == CardVersion::V21) parameters.replace("ENCODING", "b", "BASE64");
    } else if (version == CardVersion::V40 &&
               is_any(name, {"BDAY", "ANNIVERSARY", "X-ANNIVERSARY", "X-EVOLUTION-ANNIVERSARY", "REV", "DEATHDATE"})) {
        property.value = basic_day(property.value);
    } else if (version != CardVersion::V40 && !write_from_uri(name, version, parameters, property)) {
        write_number(name, parameters, property);
    }
    property.header = line.substr(0, header.name);
    property.header += name_in(name, property.value, version);
    property.header += parameters.text(version);
    return true;
}

std::vector<std::string> value_parts(std::string_view value) {
    std::vector<std::string> parts;
    for (std::size_t begin = 0, at = 0;; ++at) {
        if (at < value.size() && value[at] == '\\') {
            ++at;
            continue;
        }
        if (at < value.size() && value[at] != ';') continue;
        parts.push_back(unescaped_text(value.substr(begin, std::min(at, value.size()) - begin)));
        if (at >= value.size()) return parts;
        begin = at + 1;
    }
}

}  // namespace zr
