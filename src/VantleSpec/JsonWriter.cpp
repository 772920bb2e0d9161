#include "VantleSpec/JsonWriter.h"

#include "VantleSpec/JsonBytes.h"

#include <charconv>

namespace vantle {

namespace {
// Enough to keep the sink's calls few without holding a large answer twice.
constexpr size_t flushAt = 64 * 1024;
} // namespace

JsonWriter::JsonWriter(Sink sink, int indent) : sink_(std::move(sink)), indent_(indent) {
    buffer_.reserve(flushAt + 4096);
}

JsonWriter::~JsonWriter() {
    flush();
}

void JsonWriter::flush() {
    if (buffer_.empty()) return;
    sink_(buffer_);
    buffer_.clear();
}

void JsonWriter::newline(size_t depth) {
    if (indent_ < 0) return;
    buffer_ += '\n';
    buffer_.append(depth * static_cast<size_t>(indent_), ' ');
}

void JsonWriter::beforeValue() {
    if (afterKey_) {
        afterKey_ = false;
        return;
    }
    if (levels_.empty()) return;
    auto& level = levels_.back();
    if (!level.empty) buffer_ += ',';
    level.empty = false;
    newline(levels_.size());
}

void JsonWriter::beginObject() {
    beforeValue();
    buffer_ += '{';
    levels_.push_back({true, true});
}

void JsonWriter::beginArray() {
    beforeValue();
    buffer_ += '[';
    levels_.push_back({false, true});
}

void JsonWriter::endObject() {
    bool empty = levels_.back().empty;
    levels_.pop_back();
    if (!empty) newline(levels_.size());
    buffer_ += '}';
    if (buffer_.size() >= flushAt) flush();
}

void JsonWriter::endArray() {
    bool empty = levels_.back().empty;
    levels_.pop_back();
    if (!empty) newline(levels_.size());
    buffer_ += ']';
    if (buffer_.size() >= flushAt) flush();
}

void JsonWriter::key(std::string_view name) {
    beforeValue();
    putString(name);
    buffer_ += indent_ < 0 ? ":" : ": ";
    afterKey_ = true;
}

void JsonWriter::putString(std::string_view text) {
    // Nearly every name is plain ASCII with nothing to escape: one look, one copy.
    if (isPlainJsonText(text)) {
        buffer_ += '"';
        buffer_ += text;
        buffer_ += '"';
        return;
    }
    // Bytes that are not UTF-8 take the reversible escape first, as dumpEscaped gives them.
    std::string escaped;
    if (needsEscape(text)) {
        escaped = escapeBytes(text);
        text = escaped;
    }
    buffer_ += '"';
    size_t plain = 0; // start of the run not yet copied
    for (size_t i = 0; i < text.size(); ++i) {
        auto c = static_cast<unsigned char>(text[i]);
        if (c >= 0x20 && c != '"' && c != '\\') continue;
        buffer_.append(text.substr(plain, i - plain));
        plain = i + 1;
        switch (c) {
        case '"':
            buffer_ += "\\\"";
            break;
        case '\\':
            buffer_ += "\\\\";
            break;
        case '\b':
            buffer_ += "\\b";
            break;
        case '\f':
            buffer_ += "\\f";
            break;
        case '\n':
            buffer_ += "\\n";
            break;
        case '\r':
            buffer_ += "\\r";
            break;
        case '\t':
            buffer_ += "\\t";
            break;
        default: {
            static constexpr char hex[] = "0123456789abcdef";
            buffer_ += "\\u00";
            buffer_ += hex[c >> 4];
            buffer_ += hex[c & 0xF];
        }
        }
    }
    buffer_.append(text.substr(plain));
    buffer_ += '"';
}

void JsonWriter::value(std::string_view text) {
    beforeValue();
    putString(text);
}

void JsonWriter::value(std::int64_t number) {
    beforeValue();
    char digits[24];
    auto end = std::to_chars(digits, digits + sizeof digits, number).ptr;
    buffer_.append(digits, end);
}

void JsonWriter::value(bool truth) {
    beforeValue();
    buffer_ += truth ? "true" : "false";
}

void JsonWriter::value(double number) {
    // The ordinary coder's own digits ("2.0", "1e-05", null for what is not finite): rare enough
    // here that matching them beats writing them again.
    value(Json(number));
}

void JsonWriter::value(TimePoint at) {
    beforeValue();
    char date[isoDateLength + 2];
    date[0] = '"';
    isoDate(at, date + 1);
    date[isoDateLength + 1] = '"';
    buffer_.append(date, sizeof date);
}

void JsonWriter::value(const Json& small) {
    beforeValue();
    auto text = dumpEscaped(small, indent_);
    if (indent_ < 0 || levels_.empty()) {
        buffer_ += text;
        return;
    }
    // Strings hold no raw line breaks (they are written \n), so every break in the text is layout.
    std::string margin(levels_.size() * static_cast<size_t>(indent_), ' ');
    size_t start = 0;
    for (size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1) {
        buffer_.append(text, start, end + 1 - start);
        buffer_ += margin;
    }
    buffer_.append(text, start);
}

} // namespace vantle
