#include "zr/mail/mime_reader.h"

#include <algorithm>
#include <optional>
#include <vector>

#include "zr/base/text.h"
#include "zr/mail/gmime.h"
#include "zr/mail/header.h"
#include "zr/mail/line_pieces.h"

namespace zr {
namespace {

constexpr std::size_t kLongestTypeField = std::size_t{16} << 10;
// How much of a multipart is remembered until its first boundary comes.
constexpr std::size_t kLongestPreamble = std::size_t{1} << 20;

std::string lower(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(), [](char c) { return g_ascii_tolower(c); });
    return out;
}

std::string_view without_line_end(std::string_view line) {
    if (line.ends_with('\n')) line.remove_suffix(1);
    if (line.ends_with('\r')) line.remove_suffix(1);
    return line;
}

bool is_blank_line(std::string_view line) {
    return line == "\n" || line == "\r\n";
}

// Undoes a transfer encoding piece by piece.
class TransferDecoder {
public:
    explicit TransferDecoder(std::string_view name) {
        const GMimeContentEncoding encoding = g_mime_content_encoding_from_string(std::string(name).c_str());
        const bool known = encoding == GMIME_CONTENT_ENCODING_BASE64 ||
                           encoding == GMIME_CONTENT_ENCODING_QUOTEDPRINTABLE ||
                           encoding == GMIME_CONTENT_ENCODING_UUENCODE;
        g_mime_encoding_init_decode(&state_, known ? encoding : GMIME_CONTENT_ENCODING_DEFAULT);
        plain_ = !known;
    }

    std::string_view decode(std::string_view bytes) {
        if (plain_ || bytes.empty()) return bytes;
        out_.resize(g_mime_encoding_outlen(&state_, bytes.size()));
        const std::size_t size = g_mime_encoding_step(&state_, bytes.data(), bytes.size(), out_.data());
        return std::string_view(out_).substr(0, size);
    }

private:
    GMimeEncoding state_ = {};
    bool plain_ = true;
    std::string out_;
};

struct ContentType {
    PartHeader part;
    std::string boundary;  // of a multipart
};

std::string field_value(std::string_view header, std::string_view name) {
    std::string value = raw_field(header, name).value_or("");
    if (value.size() > kLongestTypeField) value.resize(kLongestTypeField);
    return value;
}

void read_disposition(std::string_view header, PartHeader& part) {
    const std::string value = field_value(header, "Content-Disposition");
    if (value.empty()) return;
    const ParserOptions options = parser_options();
    const GObjectPtr<GMimeContentDisposition> disposition(
        g_mime_content_disposition_parse(options.get(), value.c_str()));
    if (!disposition) return;
    const std::string kind = text_of(g_mime_content_disposition_get_disposition(disposition.get()));
    part.is_attachment = equal_ignoring_case(kind, "attachment");
    const std::string name = text_of(g_mime_content_disposition_get_parameter(disposition.get(), "filename"));
    if (!name.empty()) part.name = name;
}

// What the header of a part says of it; `otherwise` is the type of one that does not say.
ContentType read_content_type(std::string_view header, const char* otherwise) {
    start_gmime();
    ContentType result;
    std::string value = field_value(header, "Content-Type");
    if (value.empty()) value = otherwise;
    const ParserOptions options = parser_options();
    const GObjectPtr<GMimeContentType> type(g_mime_content_type_parse(options.get(), value.c_str()));
    PartHeader& part = result.part;
    part.type = "text/plain";
    if (type) {
        part.type = lower(text_of(g_mime_content_type_get_media_type(type.get())) + "/" +
                          text_of(g_mime_content_type_get_media_subtype(type.get())));
        const auto parameter = [&](const char* name) {
            return text_of(g_mime_content_type_get_parameter(type.get(), name));
        };
        part.charset = lower(parameter("charset"));
        part.name = parameter("name");
        part.method = upper(parameter("method"));
        // Bytes, whatever they are: they are compared with bytes.
        const char* const boundary = g_mime_content_type_get_parameter(type.get(), "boundary");
        if (part.type.starts_with("multipart/") && boundary != nullptr) result.boundary = boundary;
    }
    read_disposition(header, part);
    part.content_id = text_of(raw_field(header, "Content-ID").value_or("").c_str());
    if (part.content_id.starts_with('<') && part.content_id.ends_with('>')) {
        part.content_id = part.content_id.substr(1, part.content_id.size() - 2);
    }
    return result;
}

class Walk {
public:
    Walk(const ReadFunction& read, MimeSink& sink) : pieces_(read), sink_(sink) {}

    int run() {
        std::string_view piece;
        while (pieces_.next(piece)) {
            if (!take(piece)) return 0;
        }
        if (pieces_.error() != 0) return pieces_.error();
        // A message may end anywhere.
        if (state_ == State::Header && !end_header()) return 0;
        finish_unmarked();
        end_leaf(true);
        return 0;
    }

private:
    enum class State { Before, Header, Outside, Leaf };
    struct Multipart {
        std::string boundary;
        bool alternative;
        bool digest;
    };

    bool take(std::string_view piece) {
        if (state_ == State::Before) {
            if (header_.empty() && piece.starts_with("\xEF\xBB\xBF")) piece.remove_prefix(3);
            if (is_blank_line(piece) || piece.empty()) return true;
            state_ = State::Header;
            if (piece.starts_with("From ") || piece.starts_with(">From ")) return true;
        }
        if (pieces_.begins_line() && is_boundary(piece)) return true;
        switch (state_) {
            case State::Header:
                return take_header(piece);
            case State::Outside:
                if (!marked_ && preamble_.size() < kLongestPreamble) preamble_ += piece;
                return true;
            case State::Leaf:
                write(piece);
                return true;
            case State::Before:
                break;
        }
        return true;
    }

    bool take_header(std::string_view piece) {
        if (pieces_.begins_line() && is_blank_line(piece)) return end_header();
        if (header_.size() + piece.size() <= kLongestHeader) header_ += piece;
        return true;
    }

    // False when the message is of no interest.
    bool end_header() {
        if (first_) {
            first_ = false;
            if (!sink_.header(header_)) return false;
        }
        const bool digest = !multiparts_.empty() && multiparts_.back().digest;
        ContentType type = read_content_type(header_, digest ? "message/rfc822" : "text/plain");
        if (!type.boundary.empty() && multiparts_.size() < kDeepest) {
            multiparts_.push_back(
                {type.boundary, type.part.type == "multipart/alternative", type.part.type == "multipart/digest"});
            state_ = State::Outside;
        } else {
            begin_leaf(type.part);
        }
        header_.clear();
        return true;
    }

    void begin_leaf(PartHeader& part) {
        decoder_ = TransferDecoder(raw_field(header_, "Content-Transfer-Encoding").value_or(""));
        part.depth = static_cast<int>(multiparts_.size());
        part.is_alternative = !multiparts_.empty() && multiparts_.back().alternative;
        sink_.begin_part(part);
        line_end_ = {};
        state_ = State::Leaf;
    }

    // The end of a line goes with what follows: the one before a boundary is the boundary's.
    void write(std::string_view piece) {
        send(line_end_);
        const std::string_view text = without_line_end(piece);
        send(text);
        line_end_ = piece.ends_with("\r\n") ? "\r\n" : piece.ends_with('\n') ? "\n" : "";
        // A piece of a line that was cut between the two.
        if (line_end_.empty() && text.size() < piece.size()) line_end_ = "\r";
    }

    void send(std::string_view bytes) {
        const std::string_view decoded = decoder_.decode(bytes);
        if (!decoded.empty()) sink_.part_bytes(decoded);
    }

    void end_leaf(bool at_end) {
        if (state_ != State::Leaf) return;
        if (at_end) send(line_end_);
        sink_.end_part();
        state_ = State::Outside;
    }

    bool is_boundary(std::string_view line) {
        if (multiparts_.empty() || !line.starts_with("--")) return false;
        line = without_line_end(line).substr(2);
        for (std::size_t i = multiparts_.size(); i-- > 0;) {
            const std::string_view boundary = multiparts_[i].boundary;
            if (!line.starts_with(boundary)) continue;
            std::string_view rest = line.substr(boundary.size());
            const bool last = rest.starts_with("--");
            if (last) rest.remove_prefix(2);
            if (!trimmed(rest).empty()) continue;
            reach(i, last);
            return true;
        }
        return false;
    }

    // A boundary of the multipart in a place; those inside of it are over.
    void reach(std::size_t place, bool last) {
        if (state_ == State::Header) end_header();  // a part of a header and nothing else
        end_leaf(false);
        marked_ = true;
        preamble_ = {};
        multiparts_.resize(last ? place : place + 1);
        state_ = last ? State::Outside : State::Header;
        header_.clear();
    }

    // Everything stood before the first boundary: there is none.
    void finish_unmarked() {
        if (state_ != State::Outside || marked_ || preamble_.empty()) return;
        PartHeader part;
        part.type = "text/plain";
        decoder_ = TransferDecoder("");
        sink_.begin_part(part);
        sink_.part_bytes(preamble_);
        sink_.end_part();
    }

    LinePieces pieces_;
    MimeSink& sink_;
    State state_ = State::Before;
    bool first_ = true;    // the message's own header is not over
    bool marked_ = false;  // there was a boundary
    std::string header_;
    std::string preamble_;
    std::vector<Multipart> multiparts_;
    TransferDecoder decoder_{""};
    std::string_view line_end_;
};

}  // namespace

int read_mime(const ReadFunction& read, MimeSink& sink) {
    start_gmime();
    return Walk(read, sink).run();
}

}  // namespace zr
