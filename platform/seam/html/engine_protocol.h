#pragma once

// What the HTML control and its engine say to each other over a socket: frames of a length, a kind and a body. Both are
// of one installation and one computer: numbers are the host's.

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace zr::platform {

inline constexpr std::uint32_t kEngineVersion = 1;
// No frame is longer; who is sent a longer one ends the connection.
inline constexpr std::uint32_t kLongestEngineFrame = 320u << 20;

// A document has a number, the engine's requests for images have cookies, the control's requests have numbers; each
// counts from 1.
enum class EngineFrame : std::uint8_t {
    // To the engine.
    Load,      // document, EngineLoad flags, width, height, source
    Navigate,  // document, EngineLoad flags, width, height, address
    Call,      // request (0: no answer is wanted), document, script, run beside the document's own
    Run,       // request, document, script, run among the document's own
    Draw,      // request, document, width, height
    Image,     // cookie, whether there is one, type, bytes
    // From the engine.
    Hello,     // kEngineVersion, what it had to do without
    Trouble,   // why it cannot start
    Ready,     // document: its elements are there
    Complete,  // document: its images are, too
    Title,     // document, text
    Link,      // document, address
    Wanted,    // document, cookie, address
    Answer,    // request, EngineAnswer, what came out
};

enum EngineLoad : std::uint32_t {
    kEnginePlainText = 1,
    kEngineScripts = 2,
};

enum class EngineAnswer : std::uint32_t {
    Done,    // a value, or a picture
    Threw,   // the text of what was thrown
    Failed,  // no such document any more, or no memory
};

// A frame that is being written.
class FrameWriter {
public:
    explicit FrameWriter(EngineFrame kind) : bytes_(5, '\0') { bytes_[4] = static_cast<char>(kind); }
    FrameWriter& number(std::uint32_t value) {
        bytes_.append(reinterpret_cast<const char*>(&value), sizeof value);
        return *this;
    }
    FrameWriter& text(std::string_view value) {
        number(static_cast<std::uint32_t>(value.size()));
        bytes_.append(value);
        return *this;
    }
    const std::string& finish() {
        const std::uint32_t size = static_cast<std::uint32_t>(bytes_.size() - 4);
        std::memcpy(bytes_.data(), &size, sizeof size);
        return bytes_;
    }

private:
    std::string bytes_;
};

// A frame that is read. What is not there is 0 and empty, and makes it bad.
class FrameReader {
public:
    explicit FrameReader(std::string_view frame) : rest_(frame) {
        if (rest_.empty()) {
            bad_ = true;
        } else {
            kind_ = static_cast<EngineFrame>(rest_.front());
            rest_.remove_prefix(1);
        }
    }
    EngineFrame kind() const { return kind_; }
    bool is_bad() const { return bad_; }
    std::uint32_t number() {
        std::uint32_t value = 0;
        if (rest_.size() < sizeof value) {
            bad_ = true;
            return 0;
        }
        std::memcpy(&value, rest_.data(), sizeof value);
        rest_.remove_prefix(sizeof value);
        return value;
    }
    std::string_view text() {
        const std::uint32_t size = number();
        if (size > rest_.size()) {
            bad_ = true;
            return {};
        }
        const std::string_view value = rest_.substr(0, size);
        rest_.remove_prefix(size);
        return value;
    }

private:
    std::string_view rest_;
    EngineFrame kind_ = EngineFrame::Answer;
    bool bad_ = false;
};

// What arrives, as whole frames.
class FrameQueue {
public:
    void add(const char* bytes, std::size_t size) { bytes_.append(bytes, size); }
    // The next frame, valid until the next call here; false when none is whole. A frame that is too long is bad.
    bool next(std::string_view& frame) {
        drop();
        if (bytes_.size() - from_ < sizeof(std::uint32_t)) return false;
        std::uint32_t size = 0;
        std::memcpy(&size, bytes_.data() + from_, sizeof size);
        if (size == 0 || size > kLongestEngineFrame) {
            bad_ = true;
            return false;
        }
        if (bytes_.size() - from_ - sizeof size < size) return false;
        frame = std::string_view(bytes_).substr(from_ + sizeof size, size);
        from_ += sizeof size + size;
        return true;
    }
    bool is_bad() const { return bad_; }

private:
    // Moves what is left to the front when that is less than what goes.
    void drop() {
        if (from_ == 0 || from_ < bytes_.size() - from_) return;
        bytes_.erase(0, from_);
        from_ = 0;
    }

    std::string bytes_;
    std::size_t from_ = 0;
    bool bad_ = false;
};

// What is still to be sent.
class SendQueue {
public:
    void add(std::string_view bytes) {
        if (from_ > bytes_.size() / 2) {
            bytes_.erase(0, from_);
            from_ = 0;
        }
        bytes_.append(bytes);
    }
    bool empty() const { return from_ == bytes_.size(); }
    std::string_view rest() const { return std::string_view(bytes_).substr(from_); }
    void sent(std::size_t size) {
        from_ += size;
        if (empty()) clear();
    }
    void clear() {
        std::string().swap(bytes_);
        from_ = 0;
    }

private:
    std::string bytes_;
    std::size_t from_ = 0;
};

}  // namespace zr::platform
