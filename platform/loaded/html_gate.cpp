// Loaded into each process that shows a document: decides what a document may ask for (nothing that is elsewhere, but
// an image that its owner may give; a remote one, everything), and says when its elements are there, with its title, of
// which the engine itself tells when it finds the time.

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

void tell(WebKitWebPage* page, const char* what, const char* text = "") {
    WebKitUserMessage* const message = webkit_user_message_new(what, g_variant_new_string(text));
    webkit_web_page_send_message_to_view(page, message, nullptr, nullptr, nullptr);
}

void loaded(WebKitWebPage* page, gpointer) {
    gchar* const title = webkit_dom_document_get_title(webkit_web_page_get_dom_document(page));
    tell(page, "ready", title && g_utf8_validate(title, -1, nullptr) ? title : "");
    g_free(title);
}

void page_made(WebKitWebExtension*, WebKitWebPage* page, gpointer is_remote) {
    if (!is_remote) g_signal_connect(page, "send-request", G_CALLBACK(decide), nullptr);
    g_signal_connect(page, "document-loaded", G_CALLBACK(loaded), nullptr);
    tell(page, "gate");
}

}  // namespace

extern "C" [[gnu::visibility("default")]] void webkit_web_extension_initialize_with_user_data(WebKitWebExtension*,
                                                                                              GVariant*);
extern "C" void webkit_web_extension_initialize_with_user_data(WebKitWebExtension* extension, GVariant* remote) {
    g_signal_connect(extension, "page-created", G_CALLBACK(page_made), GINT_TO_POINTER(g_variant_get_boolean(remote)));
}
