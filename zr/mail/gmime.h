#pragma once

// GMime as the mail room uses it. For its sources only.

#include <gmime/gmime.h>

#include <memory>
#include <string>
#include <type_traits>

#include "zr/base/loaded_library.h"

// clang-format off
#define ZR_GMIME_CALLS(CALL)                                                                                          \
    CALL(g_mime_content_disposition_get_disposition) CALL(g_mime_content_disposition_get_parameter)                   \
    CALL(g_mime_content_disposition_parse) CALL(g_mime_content_encoding_from_string)                                  \
    CALL(g_mime_content_type_get_media_subtype) CALL(g_mime_content_type_get_media_type)                              \
    CALL(g_mime_content_type_get_parameter) CALL(g_mime_content_type_is_type) CALL(g_mime_content_type_new)           \
    CALL(g_mime_content_type_parse) CALL(g_mime_content_type_set_parameter)                                           \
    CALL(g_mime_data_wrapper_new_with_stream) CALL(g_mime_encoding_init_decode) CALL(g_mime_encoding_outlen)          \
    CALL(g_mime_encoding_step) CALL(g_mime_format_options_free) CALL(g_mime_format_options_new)                       \
    CALL(g_mime_format_options_set_newline_format) CALL(g_mime_init) CALL(g_mime_message_get_bcc)                     \
    CALL(g_mime_message_get_cc) CALL(g_mime_message_get_date) CALL(g_mime_message_get_from)                           \
    CALL(g_mime_message_get_message_id) CALL(g_mime_message_get_subject) CALL(g_mime_message_get_to)                  \
    CALL(g_mime_message_new) CALL(g_mime_message_set_date) CALL(g_mime_message_set_message_id)                        \
    CALL(g_mime_message_set_mime_part) CALL(g_mime_message_set_subject) CALL(g_mime_multipart_add)                    \
    CALL(g_mime_multipart_new_with_subtype) CALL(g_mime_multipart_set_boundary) CALL(g_mime_object_get_type)          \
    CALL(g_mime_object_set_content_type) CALL(g_mime_object_set_disposition) CALL(g_mime_object_set_header)           \
    CALL(g_mime_object_write_to_stream) CALL(g_mime_parser_construct_message)                                         \
    CALL(g_mime_parser_new_with_stream) CALL(g_mime_parser_options_free) CALL(g_mime_parser_options_new)              \
    CALL(g_mime_parser_options_set_fallback_charsets) CALL(g_mime_part_new) CALL(g_mime_part_set_content)             \
    CALL(g_mime_part_set_content_encoding) CALL(g_mime_part_set_content_id) CALL(g_mime_part_set_filename)            \
    CALL(g_mime_stream_flush) CALL(g_mime_stream_fs_get_type) CALL(g_mime_stream_fs_new)                              \
    CALL(g_mime_stream_fs_new_with_bounds) CALL(g_mime_stream_fs_set_owner)                                           \
    CALL(g_mime_stream_mem_new_with_buffer) CALL(g_mime_utils_header_decode_date) CALL(g_object_ref)                  \
    CALL(g_object_unref) CALL(g_type_check_instance_cast) CALL(g_type_check_instance_is_a)                            \
    CALL(internet_address_get_name) CALL(internet_address_group_get_members)                                          \
    CALL(internet_address_group_get_type) CALL(internet_address_group_new) CALL(internet_address_list_add)            \
    CALL(internet_address_list_get_address) CALL(internet_address_list_length)                                        \
    CALL(internet_address_mailbox_get_addr) CALL(internet_address_mailbox_get_type)                                   \
    CALL(internet_address_mailbox_new)
// clang-format on

namespace zr {

ZR_GMIME_CALLS(ZR_LOADED_CALL)

struct GUnref {
    void operator()(gpointer object) const { g_object_unref(object); }
};
struct GFree {
    void operator()(gpointer memory) const { g_free(memory); }
};
struct FreeParserOptions {
    void operator()(GMimeParserOptions* options) const { g_mime_parser_options_free(options); }
};
template <class T>
using GObjectPtr = std::unique_ptr<T, GUnref>;
using ParserOptions = std::unique_ptr<GMimeParserOptions, FreeParserOptions>;

// To be called before anything else of GMime's; any thread, any number of times. Throws Failure (StoreFailed) where the
// library is not there.
void start_gmime();

// Text without an encoded word is UTF-8 today and was Windows-1252 before.
ParserOptions parser_options();

// GMime's text as valid UTF-8; empty for none.
std::string text_of(const char* text);

}  // namespace zr
