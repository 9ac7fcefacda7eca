// Loaded into each process that shows a document: decides what a document may ask for. Nothing that is elsewhere, but
// an image that its owner may give.

#include <webkit2/webkit-web-extension.h>

#include <string>
#include <string_view>

namespace {

bool starts_with(std::string_view text, std::string_view begin) {
    return text.substr(0, begin.size()) == begin;
}

bool is_at_hand(std::string_view address) {
    for (const char* const scheme : {"data:", "about:", "cid:", "blob:", "zr-image:"}) {
        if (starts_with(address, scheme)) return true;
    }
    return false;
}

bool is_image(WebKitURIRequest* request) {
    SoupMessageHeaders* const headers = webkit_uri_request_get_http_headers(request);
    const char* const accept = headers ? soup_message_headers_get_one(headers, "Accept") : nullptr;
    return accept && starts_with(accept, "image/");
}

// TRUE: it is not sent.
gboolean decide(WebKitWebPage*, WebKitURIRequest* request, WebKitURIResponse*, gpointer) {
    const std::string address = webkit_uri_request_get_uri(request);
    if (is_at_hand(address)) return FALSE;
    if (!is_image(request)) return TRUE;
    webkit_uri_request_set_uri(request, ("zr-image:" + address).c_str());
    return FALSE;
}

void page_made(WebKitWebExtension*, WebKitWebPage* page, gpointer) {
    g_signal_connect(page, "send-request", G_CALLBACK(decide), nullptr);
    webkit_web_page_send_message_to_view(page, webkit_user_message_new("gate", nullptr), nullptr, nullptr, nullptr);
}

}  // namespace

extern "C" [[gnu::visibility("default")]] void webkit_web_extension_initialize_with_user_data(WebKitWebExtension*,
                                                                                              GVariant*);
extern "C" void webkit_web_extension_initialize_with_user_data(WebKitWebExtension* extension, GVariant* remote) {
    if (g_variant_get_boolean(remote)) return;
    g_signal_connect(extension, "page-created", G_CALLBACK(page_made), nullptr);
}
