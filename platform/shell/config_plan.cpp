#include "config_plan.h"

#include <algorithm>
#include <cstring>

#include "platform/base.h"

namespace zr::platform {
namespace {

constexpr std::size_t kLongestName = 255;
constexpr std::size_t kMostLevels = 500;

using Steps = std::vector<const ConfigPlan::Step*>;

bool is_path(std::u16string_view path) {
    std::size_t levels = 0;
    while (!path.empty()) {
        const std::size_t length = std::min(path.find(u'\\'), path.size());
        if (length > kLongestName || ++levels > kMostLevels) return false;
        path.remove_prefix(std::min(length + 1, path.size()));
    }
    return levels != 0;
}

bool is_entry_name(std::u16string_view name) {
    return !name.empty() && name.size() <= kLongestName && name.find(u'\\') == std::u16string_view::npos;
}

// Large values have pages of their own: their order gains nothing.
bool is_ordered(const ZrRegistryChange& change) {
    constexpr DWORD kMostBytes = 4096;
    return change.Step == ZrRegistryStep::SetValue && change.Size <= kMostBytes;
}

// Of one name the last value stays the last.
void order_by_name(Steps::iterator begin, Steps::iterator end) {
    struct Named {
        std::u16string_view folded;
        const ConfigPlan::Step* step;
    };
    std::u16string folded;
    for (auto each = begin; each != end; ++each) {
        folded.append((*each)->change.Name).push_back(0);
    }
    CharLowerBuffW(folded.data(), static_cast<DWORD>(folded.size()));
    std::vector<Named> named;
    named.reserve(static_cast<std::size_t>(end - begin));
    const WCHAR* name = folded.data();
    for (auto each = begin; each != end; ++each) {
        named.push_back({name, *each});
        name += named.back().folded.size() + 1;
    }
    const auto is_before = [](const Named& left, const Named& right) {
        const std::size_t shorter = std::min(left.folded.size(), right.folded.size());
        const int order = std::memcmp(left.folded.data(), right.folded.data(), shorter * sizeof(WCHAR));
        if (order != 0) return order < 0;
        if (left.folded.size() != right.folded.size()) return left.folded.size() < right.folded.size();
        return left.step < right.step;
    };
    std::sort(named.begin(), named.end(), is_before);
    std::transform(named.begin(), named.end(), begin, [](const Named& each) { return each.step; });
}

}  // namespace

// The key that a characteristic in `parent` names.
bool ConfigPlan::find(const ConfigPlace& parent, std::u16string_view name, ConfigPlace& place) {
    place = parent;
    place.level = parent.level + 1;
    std::u16string path = parent.path != nullptr ? parent.path : u"";
    if (parent.service->root == nullptr && parent.level == 1) {
        std::u16string_view below;
        if (!split_config_key(name, place.root, below)) return false;
        path = below;
        if (below.empty()) {
            place.path = u"";
            return true;
        }
    } else {
        if (parent.service->root != nullptr && (parent.level != 1 || !is_entry_name(name))) return false;
        if (!path.empty()) path += u'\\';
        path += name;
        if (name.empty()) return false;
    }
    if (!is_path(path)) return false;
    WCHAR* const room = document_.new_text(path.size() + 1);
    path.copy(room, path.size());
    room[path.size()] = 0;
    place.path = room;
    return true;
}

void ConfigPlan::keep(ConfigElement& element, const ConfigPlace& place) {
    element.place = static_cast<std::int32_t>(places_.size());
    places_.push_back(place);
}

void ConfigPlan::add(std::size_t index, ZrRegistryStep step, const ConfigPlace& place, LPCWSTR name,
                     const ConfigData& data) {
    steps_.push_back({{step, place.root, place.path, name, data.type, data.bytes, data.size}, index});
}

// What is directly in the document: a service, or a question for all of one.
bool ConfigPlan::open(ConfigElement& element, const ConfigPlace& parent) {
    ConfigPlace place;
    if (parent.service == nullptr) {
        place.service = find_config_service(element.name);
        if (place.service == nullptr) return false;
        place.root = HKEY_LOCAL_MACHINE;
        place.path = place.service->root;
        place.level = 1;
        if (element.kind == ElementKind::CharacteristicQuery && place.path == nullptr) return false;
    } else if (!find(parent, element.name, place)) {
        return false;
    }
    keep(element, place);
    return true;
}

bool ConfigPlan::set(const ConfigElement& element, const ConfigPlace& place, ConfigData& data) {
    return place.level > 1 && read_config_value(*place.service, element, document_, data);
}

bool ConfigPlan::take(std::size_t index) {
    ConfigElement& element = document_.elements()[index];
    open_.resize(element.depth);
    const std::int32_t parent = element.depth > 1 ? open_.back() : -1;
    // What is in something that failed is not looked at.
    if (element.depth > 1 && parent < 0) {
        if (element.kind == ElementKind::Characteristic) open_.push_back(-1);
        return true;
    }
    const ConfigPlace place = parent >= 0 ? places_[static_cast<std::size_t>(parent)] : ConfigPlace{};
    ConfigData data{};
    switch (element.kind) {
        case ElementKind::Document:
            open_.push_back(-1);
            return true;
        case ElementKind::Characteristic:
            open_.push_back(-1);
            if (!open(element, place)) return false;
            open_.back() = element.place;
            if (element.empty && places_.back().level > 1) add(index, ZrRegistryStep::CreateKey, places_.back());
            return true;
        case ElementKind::CharacteristicQuery:
            return open(element, place);
        case ElementKind::NoCharacteristic:
            if (place.service == nullptr || !open(element, place) || *places_.back().path == 0) return false;
            add(index, ZrRegistryStep::DeleteKey, places_.back());
            return true;
        case ElementKind::Parm:
            element.place = parent;
            if (!set(element, place, data)) return false;
            add(index, ZrRegistryStep::SetValue, place, element.name.data(), data);
            return true;
        default:
            element.place = parent;
            if (place.level < 2 || !has_config_parm(*place.service, element.name)) return false;
            if (element.kind == ElementKind::NoParm)
                add(index, ZrRegistryStep::DeleteValue, place, element.name.data());
            return true;
    }
}

std::vector<const ConfigPlan::Step*> ConfigPlan::in_order() const {
    std::vector<const Step*> ordered;
    ordered.reserve(steps_.size());
    for (const Step& step : steps_) {
        ordered.push_back(&step);
    }
    for (auto begin = ordered.begin(); begin != ordered.end();) {
        const auto end = std::find_if(begin + 1, ordered.end(), [&](const Step* step) {
            return !is_ordered(step->change) || step->change.Path != (*begin)->change.Path ||
                   step->change.Root != (*begin)->change.Root;
        });
        if (is_ordered((*begin)->change)) order_by_name(begin, end);
        begin = end;
    }
    return ordered;
}

bool ConfigPlan::make() {
    bool good = true;
    std::vector<ConfigElement>& elements = document_.elements();
    for (std::size_t i = 0; i < elements.size(); ++i) {
        if (take(i)) continue;
        elements[i].failed = true;
        good = false;
    }
    return good;
}

}  // namespace zr::platform
