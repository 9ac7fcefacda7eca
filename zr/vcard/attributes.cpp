#include "zr/vcard/attributes.h"

#include <algorithm>
#include <array>

#include "zr/base/text.h"
#include "zr/vcard/evcard.h"

namespace zr {
namespace {

bool is_plain_parameter_character(char c) {
    return g_ascii_isalnum(c) || c == '-' || c == '_' || c == '.' || c == '+';
}

// NAME=WORD or NAME=WORD,WORD and none that says how the value is written.
bool is_plain_parameter(std::string_view parameter) {
    const std::size_t equals = parameter.find('=');
    if (equals == std::string_view::npos || equals == 0) return false;
    const std::string_view name = parameter.substr(0, equals);
    if (!std::all_of(name.begin(), name.end(), is_plain_parameter_character)) return false;
    if (equal_ignoring_case(name, "ENCODING") || equal_ignoring_case(name, "CHARSET")) return false;
    char before = ',';
    for (const char c : parameter.substr(equals + 1)) {
        if (c == ',' ? before == ',' : !is_plain_parameter_character(c)) return false;
        before = c;
    }
    return before != ',';
}

// Whether a word comes twice; EVCard knows which of the two counts. Many words are taken for a yes.
bool repeats(std::string_view parameters) {
    std::array<std::string_view, 8> words;
    std::size_t count = 0;
    while (!parameters.empty()) {
        const std::size_t end = std::min(parameters.find_first_of(",;="), parameters.size());
        const std::string_view word = parameters.substr(0, end);
        const bool is_name = end < parameters.size() && parameters[end] == '=';
        parameters.remove_prefix(std::min(end + 1, parameters.size()));
        if (is_name) continue;
        const auto same = [&](std::string_view other) { return equal_ignoring_case(word, other); };
        if (count == words.size() || std::any_of(words.begin(), words.begin() + count, same)) return true;
        words[count++] = word;
    }
    return false;
}

// Text with no escapes but those that each stand for one character.
bool is_plain_value(std::string_view value) {
    for (std::size_t at = value.find_first_of("\\\r\n"); at != std::string_view::npos;
         at = value.find_first_of("\\\r\n", at + 2)) {
        if (value[at] != '\\' || at + 1 == value.size()) return false;
        const char escaped = value[at + 1];
        if (escaped != 'n' && escaped != 'N' && escaped != ',' && escaped != ';' && escaped != '\\') return false;
    }
    return true;
}

bool is_plain(const PropertyLine& line) {
    const std::string_view value = line.value_text();
    if (value.empty() || value.front() == ' ' || value.front() == '\t') return false;
    if (!is_plain_value(value)) return false;
    const std::string_view text(line.text);
    for (std::size_t at = line.name_end; text[at] == ';';) {
        const std::size_t end = text.find_first_of(";:", at + 1);
        if (end >= line.value || !is_plain_parameter(text.substr(at + 1, end - at - 1))) return false;
        at = end;
    }
    return line.value <= line.name_end + 2 ||
           !repeats(text.substr(line.name_end + 1, line.value - 1 - (line.name_end + 1)));
}

// More than a card for people has.
constexpr std::ptrdiff_t kManyMarks = 200;

std::string_view view(const char* text) {
    return text ? std::string_view(text) : std::string_view();
}

template <class Visit>
void each_part(std::string_view text, char mark, Visit visit) {
    for (;;) {
        const std::size_t end = std::min(text.find(mark), text.size());
        visit(text.substr(0, end));
        if (end == text.size()) return;
        text.remove_prefix(end + 1);
    }
}

}  // namespace

CardAttributes::~CardAttributes() {
    for (void* card : cards_) {
        evcard::g_object_unref(card);
    }
}

// A line that is not plain may be so without the parameters that nobody asks for. What has many values goes the short
// way in any case: EVCard takes its time for each by the number of those before.
void CardAttributes::add(const PropertyLine& line) {
    const std::size_t whole = text_.size();
    text_ += line.text;
    if (is_plain(line)) return add_split(line, whole, text_.size(), true);
    PropertyLine simple = line;
    simple.text = with_kinds_only(line.text);
    simple.value = simple.text.size() - line.value_text().size();
    const auto marks =
        std::count_if(simple.text.begin(), simple.text.end(), [](char c) { return c == ';' || c == ','; });
    const std::size_t whole_end = text_.size();
    text_ += simple.text;
    add_split(simple, whole, whole_end,
              is_plain(simple) || (marks > kManyMarks && is_plain_value(simple.value_text())));
}

void CardAttributes::add_split(const PropertyLine& line, std::size_t whole, std::size_t whole_end, bool plain) {
    const std::size_t begin = text_.size() - line.text.size();
    lines_.push_back(
        {whole, whole_end, begin, begin + line.name, begin + line.name_end, begin + line.value, text_.size(), plain});
}

std::string_view CardAttributes::whole_of(const Line& line) const {
    return std::string_view(text_).substr(line.whole, line.whole_end - line.whole);
}

std::string_view CardAttributes::text_of(const Line& line) const {
    return std::string_view(text_).substr(line.begin, line.end - line.begin);
}

// The attributes, a GList, that EVCard makes of some lines.
void* CardAttributes::parse(const std::string& lines) {
    evcard::start();
    EVCard* card =
        evcard::e_vcard_new_from_string(("BEGIN:VCARD\r\nVERSION:3.0\r\n" + lines + "END:VCARD\r\n").c_str());
    cards_.push_back(card);
    GList* attributes = evcard::e_vcard_get_attributes(card);
    // The version comes back as the first of them.
    while (attributes &&
           equal_ignoring_case(
               view(evcard::e_vcard_attribute_get_name(static_cast<EVCardAttribute*>(attributes->data))), "VERSION")) {
        attributes = attributes->next;
    }
    return attributes;
}

// What EVCard makes of each line that is not plain, or of all; NULL for one that it cannot read.
std::vector<void*> CardAttributes::parse_all(bool all) {
    std::vector<void*> found;
    std::string known;
    std::size_t expected = 0;
    for (const Line& line : lines_) {
        if (line.plain && !all) continue;
        (known += with_kinds_only(text_of(line))) += "\r\n";
        ++expected;
    }
    if (expected == 0) return found;
    for (auto* each = static_cast<GList*>(parse(known)); each; each = each->next) {
        found.push_back(each->data);
    }
    if (found.size() == expected) return found;
    // It does not say which one it left out.
    found.clear();
    for (const Line& line : lines_) {
        if (line.plain && !all) continue;
        const auto* one = static_cast<GList*>(parse(with_kinds_only(text_of(line)) + "\r\n"));
        found.push_back(one ? one->data : nullptr);
    }
    return found;
}

bool CardAttributes::split(bool all_by_evcard) {
    const std::vector<void*> parsed = parse_all(all_by_evcard);
    attributes_.reserve(lines_.size());
    extents_.reserve(lines_.size());
    values_.reserve(lines_.size() * 3);
    parameters_.reserve(lines_.size() * 2);
    unescaped_.reserve(text_.size());  // views into it stay
    auto next = parsed.begin();
    for (const Line& line : lines_) {
        if (line.plain && !all_by_evcard) {
            split_plain(line);
        } else {
            if (*next != nullptr) take_parsed(line, *next);
            ++next;
        }
    }
    point();
    return std::find(parsed.begin(), parsed.end(), nullptr) == parsed.end();
}

void CardAttributes::split_plain(const Line& line) {
    const std::string_view text(text_);
    Attribute attribute;
    attribute.line = whole_of(line);
    if (line.name > line.begin) attribute.group = text.substr(line.begin, line.name - 1 - line.begin);
    attribute.name = text.substr(line.name, line.name_end - line.name);
    attributes_.push_back(attribute);
    extents_.push_back({parameters_.size(), values_.size()});
    if (line.name_end + 1 < line.value) {
        each_part(text.substr(line.name_end + 1, line.value - 1 - (line.name_end + 1)), ';', [&](auto parameter) {
            const std::size_t equals = parameter.find('=');
            each_part(parameter.substr(equals + 1), ',',
                      [&](auto value) { add_parameter(parameter.substr(0, equals), value); });
        });
    }
    split_values(line);
}

void CardAttributes::split_values(const Line& line) {
    const bool list =
        equal_ignoring_case(std::string_view(text_).substr(line.name, line.name_end - line.name), "CATEGORIES");
    std::size_t begin = unescaped_.size();
    const auto end_value = [&] {
        values_.push_back(std::string_view(unescaped_).substr(begin));
        begin = unescaped_.size();
    };
    for (std::size_t at = line.value; at < line.end; ++at) {
        if (text_[at] == ';' || (list && text_[at] == ',')) {
            end_value();
        } else if (text_[at] == '\\') {
            ++at;
            unescaped_ += text_[at] == 'n' || text_[at] == 'N' ? '\n' : text_[at];
        } else {
            unescaped_ += text_[at];
        }
    }
    end_value();
}

void CardAttributes::take_parsed(const Line& line, void* pointer) {
    auto* attribute = static_cast<EVCardAttribute*>(pointer);
    attributes_.push_back({whole_of(line),
                           view(evcard::e_vcard_attribute_get_group(attribute)),
                           view(evcard::e_vcard_attribute_get_name(attribute)),
                           {},
                           {}});
    extents_.push_back({parameters_.size(), values_.size()});
    // EVCard keeps them last one first.
    for (GList* p = g_list_last(evcard::e_vcard_attribute_get_params(attribute)); p; p = p->prev) {
        auto* parameter = static_cast<EVCardAttributeParam*>(p->data);
        const std::string_view name = view(evcard::e_vcard_attribute_param_get_name(parameter));
        for (GList* v = evcard::e_vcard_attribute_param_get_values(parameter); v; v = v->next) {
            add_parameter(name, view(static_cast<const char*>(v->data)));
        }
    }
    for (GList* v = evcard::e_vcard_attribute_get_values(attribute); v; v = v->next) {
        values_.push_back(view(static_cast<const char*>(v->data)));
    }
}

// Behind the last one of its name, where there is one.
void CardAttributes::add_parameter(std::string_view name, std::string_view value) {
    std::size_t place = parameters_.size();
    const auto differs = [&](std::size_t i) { return !equal_ignoring_case(parameters_[i].name, name); };
    while (place > extents_.back().parameters && differs(place - 1)) {
        --place;
    }
    if (place == extents_.back().parameters) place = parameters_.size();
    parameters_.insert(parameters_.begin() + static_cast<std::ptrdiff_t>(place), {name, value});
}

// Gives each attribute its parts, now that these move no more.
void CardAttributes::point() {
    extents_.push_back({parameters_.size(), values_.size()});
    for (std::size_t i = 0; i < attributes_.size(); ++i) {
        const Extent& from = extents_[i];
        const Extent& to = extents_[i + 1];
        attributes_[i].parameters = {parameters_.data() + from.parameters, to.parameters - from.parameters};
        attributes_[i].values = {values_.data() + from.values, to.values - from.values};
    }
}

}  // namespace zr
