// The screen module: X11 through RandR, and Wayland's outputs, behind the platform's words.

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <wayland-client.h>
#include <xcb/randr.h>
#include <xcb/xcb.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "windowing/screen_module.h"

namespace {

using namespace zr::platform;

constexpr int kUsualDepth = 24;

struct Free {
    void operator()(void* memory) const { std::free(memory); }
};
template <class T>
using Reply = std::unique_ptr<T, Free>;

// Of a length that projectors and televisions make up nothing is believed.
int dots(int pixels, int millimetres, int usual) {
    constexpr int kFewest = 20;
    constexpr int kMost = 2400;
    if (millimetres <= 0) return usual;
    const int result = static_cast<int>(std::lround(pixels * 25.4 / millimetres));
    return result < kFewest || result > kMost ? usual : result;
}

struct Extent {
    int across;
    int down;
};

Extent turned(Extent extent, bool is_turned) {
    return is_turned ? Extent{extent.down, extent.across} : extent;
}

// The dots are as they were where the length is not known.
bool describe(ScreenFacts& facts, Extent pixels, Extent millimetres) {
    if (pixels.across <= 0 || pixels.down <= 0) return false;
    facts.width = pixels.across;
    facts.height = pixels.down;
    facts.dots_across = dots(pixels.across, millimetres.across, facts.dots_across);
    facts.dots_down = dots(pixels.down, millimetres.down, facts.dots_down);
    return true;
}

// ---- X11 ----

class X11 {
public:
    explicit X11(const char* name) : connection_(xcb_connect(name, &screen_number_)) {}
    ~X11() { xcb_disconnect(connection_); }
    X11(const X11&) = delete;
    X11& operator=(const X11&) = delete;

    bool ask(ScreenFacts& facts) const {
        if (xcb_connection_has_error(connection_) != 0) return false;
        xcb_screen_iterator_t each = xcb_setup_roots_iterator(xcb_get_setup(connection_));
        for (int i = 0; i < screen_number_ && each.rem > 1; ++i) {
            xcb_screen_next(&each);
        }
        if (each.rem == 0) return false;
        const xcb_screen_t& screen = *each.data;
        facts.depth = screen.root_depth;
        const bool good = describe(facts, {screen.width_in_pixels, screen.height_in_pixels},
                                   {screen.width_in_millimeters, screen.height_in_millimeters});
        return ask_outputs(screen.root, facts) || good;
    }

private:
    // Of the primary output, or of the first that shows something.
    bool ask_outputs(xcb_window_t root, ScreenFacts& facts) const {
        const xcb_query_extension_reply_t* const randr = xcb_get_extension_data(connection_, &xcb_randr_id);
        if (!randr || randr->present == 0) return false;
        const Reply<xcb_randr_query_version_reply_t> version(
            xcb_randr_query_version_reply(connection_, xcb_randr_query_version(connection_, 1, 3), nullptr));
        if (!version || (version->major_version == 1 && version->minor_version < 3)) return false;
        const Reply<xcb_randr_get_output_primary_reply_t> primary(
            xcb_randr_get_output_primary_reply(connection_, xcb_randr_get_output_primary(connection_, root), nullptr));
        if (primary && ask_output(primary->output, facts)) return true;
        const Reply<xcb_randr_get_screen_resources_current_reply_t> all(xcb_randr_get_screen_resources_current_reply(
            connection_, xcb_randr_get_screen_resources_current(connection_, root), nullptr));
        if (!all) return false;
        const xcb_randr_output_t* const outputs = xcb_randr_get_screen_resources_current_outputs(all.get());
        for (int i = 0; i < xcb_randr_get_screen_resources_current_outputs_length(all.get()); ++i) {
            if (ask_output(outputs[i], facts)) return true;
        }
        return false;
    }

    bool ask_output(xcb_randr_output_t output, ScreenFacts& facts) const {
        if (output == XCB_NONE) return false;
        const Reply<xcb_randr_get_output_info_reply_t> info(xcb_randr_get_output_info_reply(
            connection_, xcb_randr_get_output_info(connection_, output, XCB_CURRENT_TIME), nullptr));
        if (!info || info->crtc == XCB_NONE) return false;
        const Reply<xcb_randr_get_crtc_info_reply_t> shown(xcb_randr_get_crtc_info_reply(
            connection_, xcb_randr_get_crtc_info(connection_, info->crtc, XCB_CURRENT_TIME), nullptr));
        if (!shown) return false;
        // What is shown is turned already; the panel's length is not.
        const bool is_turned = (shown->rotation & (XCB_RANDR_ROTATION_ROTATE_90 | XCB_RANDR_ROTATION_ROTATE_270)) != 0;
        const Extent panel{static_cast<int>(info->mm_width), static_cast<int>(info->mm_height)};
        return describe(facts, {shown->width, shown->height}, turned(panel, is_turned));
    }

    int screen_number_ = 0;
    xcb_connection_t* const connection_;
};

bool ask_x11(const char* name, ScreenFacts& facts) noexcept {
    return X11(name).ask(facts);
}

// ---- Wayland ----

// What an output says of itself comes in several events.
struct Output {
    Extent pixels{0, 0};
    Extent millimetres{0, 0};
    bool is_turned = false;
};

void hear_geometry(void* data, wl_output*, std::int32_t, std::int32_t, std::int32_t width, std::int32_t height,
                   std::int32_t, const char*, const char*, std::int32_t transform) {
    auto& output = *static_cast<Output*>(data);
    output.millimetres = {width, height};
    output.is_turned = transform == WL_OUTPUT_TRANSFORM_90 || transform == WL_OUTPUT_TRANSFORM_270 ||
                       transform == WL_OUTPUT_TRANSFORM_FLIPPED_90 || transform == WL_OUTPUT_TRANSFORM_FLIPPED_270;
}

void hear_mode(void* data, wl_output*, std::uint32_t flags, std::int32_t width, std::int32_t height, std::int32_t) {
    if ((flags & WL_OUTPUT_MODE_CURRENT) != 0) static_cast<Output*>(data)->pixels = {width, height};
}

constexpr wl_output_listener output_listener{
    hear_geometry,
    hear_mode,
    [](void*, wl_output*) {},
    [](void*, wl_output*, std::int32_t) {},
    [](void*, wl_output*, const char*) {},
    [](void*, wl_output*, const char*) {},
};

void hear_global(void* data, wl_registry* registry, std::uint32_t name, const char* interface, std::uint32_t) {
    auto*& output = *static_cast<wl_output**>(data);
    if (output || std::strcmp(interface, wl_output_interface.name) != 0) return;
    output = static_cast<wl_output*>(wl_registry_bind(registry, name, &wl_output_interface, 1));
}

constexpr wl_registry_listener registry_listener{hear_global, [](void*, wl_registry*, std::uint32_t) {}};

// By the name alone: a connection that the program was started with is the program's.
int connect_to_wayland(const char* name) {
    const char* const folder = std::getenv("XDG_RUNTIME_DIR");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const bool is_path = name[0] == '/';
    const std::size_t before = is_path || !folder ? 0 : std::strlen(folder) + 1;
    const std::size_t length = before + std::strlen(name);
    if ((!is_path && !folder) || length >= sizeof address.sun_path) return -1;
    if (before > 0) {
        std::memcpy(address.sun_path, folder, before - 1);
        address.sun_path[before - 1] = '/';
    }
    std::memcpy(address.sun_path + before, name, length - before);
    const int server = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (server < 0) return -1;
    if (connect(server, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return server;
    close(server);
    return -1;
}

// Wayland does not say how many bits a pixel has: eight of each colour are what every server takes.
bool ask_outputs(wl_display* display, ScreenFacts& facts) {
    wl_registry* const registry = wl_display_get_registry(display);
    if (!registry) return false;
    wl_output* output = nullptr;
    Output said;
    wl_registry_add_listener(registry, &registry_listener, &output);
    bool good = wl_display_roundtrip(display) >= 0 && output;
    if (good) {
        wl_output_add_listener(output, &output_listener, &said);
        good = wl_display_roundtrip(display) >= 0;
    }
    if (output) wl_output_destroy(output);
    wl_registry_destroy(registry);
    facts.depth = kUsualDepth;
    return good && describe(facts, turned(said.pixels, said.is_turned), turned(said.millimetres, said.is_turned));
}

bool ask_wayland(const char* name, ScreenFacts& facts) noexcept {
    const int server = connect_to_wayland(name);
    if (server < 0) return false;
    wl_display* const display = wl_display_connect_to_fd(server);
    if (!display) {
        close(server);
        return false;
    }
    const bool good = ask_outputs(display, facts);
    wl_display_disconnect(display);
    return good;
}

constexpr ScreenFunctions functions{ask_wayland, ask_x11};

}  // namespace

extern "C" __attribute__((visibility("default"))) const ScreenFunctions* zr_screen_functions() {
    return &functions;
}
