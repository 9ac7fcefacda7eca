#pragma once

// What a provisioning document comes to: changes of the registry, each for one of its elements.

#include <vector>

#include "config_document.h"
#include "config_services.h"
#include "platform/registry.h"

namespace zr::platform {

// A key that elements concern.
struct ConfigPlace {
    const ConfigService* service = nullptr;
    HKEY root = nullptr;
    LPCWSTR path = nullptr;
    int level = 0;  // how many characteristics lie between it and the document; the service itself is the first
};

class ConfigPlan {
public:
    explicit ConfigPlan(ConfigDocument& document) : document_(document) {}

    // Once an object. False: some elements have failed, and are marked. May throw std::bad_alloc.
    bool make();

    struct Step {
        ZrRegistryChange change;
        std::size_t element;
    };
    const std::vector<Step>& steps() const { return steps_; }
    // The steps as they are best carried out, which comes to the same: values of one key that are set one after the
    // other go by their names, as the registry keeps them, so that neighbours are written together. May throw
    // std::bad_alloc.
    std::vector<const Step*> in_order() const;
    const std::vector<ConfigPlace>& places() const { return places_; }

private:
    bool take(std::size_t index);
    bool open(ConfigElement& element, const ConfigPlace& parent);
    bool set(const ConfigElement& element, const ConfigPlace& place, ConfigData& data);
    bool find(const ConfigPlace& parent, std::u16string_view name, ConfigPlace& place);
    void keep(ConfigElement& element, const ConfigPlace& place);
    void add(std::size_t index, ZrRegistryStep step, const ConfigPlace& place, LPCWSTR name = nullptr,
             const ConfigData& data = {});

    ConfigDocument& document_;
    std::vector<ConfigPlace> places_;
    std::vector<Step> steps_;
    std::vector<std::int32_t> open_;  // by depth: the place of the characteristic there; -1 for one that failed
};

}  // namespace zr::platform
