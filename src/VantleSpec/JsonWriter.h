// Writes JSON text as it goes, laid out exactly as dumpEscaped(value, indent) lays out the same
// value (names kept byte-exact by the escape of JsonBytes.h), so a large answer is printed without
// first building it as a tree. The writer owns only its small buffer; the sink gets each piece as it
// fills. One writer per thread; the caller keeps the calls balanced (every begin has its end).
#pragma once
#include "VantleSpec/Json.h"
#include "VantleSpec/Time.h"

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace vantle {

class JsonWriter {
  public:
    using Sink = std::function<void(std::string_view)>;

    // `indent` < 0 writes compact text on one line, as dumpEscaped does.
    explicit JsonWriter(Sink sink, int indent = 2);
    ~JsonWriter(); // hands what is left to the sink
    JsonWriter(const JsonWriter&) = delete;
    JsonWriter& operator=(const JsonWriter&) = delete;

    void beginObject();
    void endObject();
    void beginArray();
    void endArray();
    // The next value's name, inside an object.
    void key(std::string_view name);

    void value(std::string_view text);
    void value(const char* text) { value(std::string_view(text)); }
    void value(const std::string& text) { value(std::string_view(text)); }
    void value(std::int64_t number);
    void value(int number) { value(static_cast<std::int64_t>(number)); }
    void value(bool truth);
    void value(double number);
    void value(TimePoint at); // ISO 8601, as every stored date
    // A small value made the ordinary way, written in place at the current depth.
    void value(const Json& small);

    // Hands the buffer to the sink now.
    void flush();

  private:
    void beforeValue();
    void newline(size_t depth);
    void putString(std::string_view text);

    Sink sink_;
    int indent_;
    std::string buffer_;
    struct Level {
        bool isObject;
        bool empty;
    };
    std::vector<Level> levels_;
    bool afterKey_ = false;
};

} // namespace vantle
